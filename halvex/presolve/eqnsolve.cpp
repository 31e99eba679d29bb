// The equation solver.  The systems of the starting point, the reset and the
// special-case solve are often mostly singletons and rows of two entries, so
// a presolve over the presolver's own record takes most of them apart, and
// the factorisation sees what is left, or nothing at all.
//
// K is symmetric and stored in full, so row i and column i are treated as
// one thing, and every reduction keeps the two working copies each other's
// transpose.  The system is posed as a model in which every row is an
// equation and every column is free; a variable that a reduction takes out
// without knowing its value yet is COLMAP_POSTDET, and the row that will give
// it after the solve is kept aside, frozen, as ROWMAP_POSTDET.
#include "presolve/eqnsolve.h"

#include "ipm/ipm.h"
#include "presolve/internal.h"
#include "util/sparse.h"
#include "verify/verify.h"
#include "verify/verify_presolve.h"

using presolve::newArray;


namespace {

const int32_t kMaxPass = 1000;
const double kTinyDiagonal = 1e-6;
const double kPointMove = 0.0001;

// ---- working copies ----------------------------------------------------------------

// Lays one copy out anew with a spare slot behind every major, so that the
// diagonal that replaceVarOne may have to add always has a place that
// belongs to its own row and column.  begin has numMajor + 1 entries and
// ends up closing the last major's room.
int32_t spreadCopy(QVPool* pool, int32_t numMajor, int32_t* begin, const int32_t* length,
                   int32_t** index, double** value) {
  int64_t room = numMajor;
  for (int32_t j = 0; j < numMajor; j++) room += length[j];
  int32_t* newIndex = newArray<int32_t>(pool, room, false);
  double* newValue = newArray<double>(pool, room, false);
  if (!newIndex || !newValue) {
    poolRelease(pool, newIndex);
    poolRelease(pool, newValue);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  int32_t pos = 0;
  for (int32_t j = 0; j < numMajor; j++) {
    const int32_t from = begin[j];
    begin[j] = pos;
    for (int32_t p = 0; p < length[j]; p++) {
      newIndex[pos] = (*index)[from + p];
      newValue[pos] = (*value)[from + p];
      pos++;
    }
    newIndex[pos] = -1;
    newValue[pos] = 0.0;
    pos++;
  }
  begin[numMajor] = pos;
  poolFree(pool, *index);
  poolFree(pool, *value);
  *index = newIndex;
  *value = newValue;
  return 0;
}

// Position of minor in the live part of major, or -1.
int32_t findEntry(int32_t minor, int32_t major, const int32_t* begin, const int32_t* length,
                  const int32_t* index) {
  for (int32_t p = begin[major]; p < begin[major] + length[major]; p++)
    if (index[p] == minor) return p;
  return -1;
}

// ---- checks ---------------------------------------------------------------------------

int32_t verifyCopies(HalvexEnv* env, int32_t level, ipmModel* model, presolver* pre,
                     bool withSkip) {
  const int32_t numDim = model->numCol;
  const int32_t numCoef = model->numCoef - pre->numRemovedElement;
  const int32_t* colSkip = withSkip ? pre->colMap : nullptr;
  const int32_t* rowSkip = withSkip ? pre->rowMap : nullptr;
  int32_t status = ipmVerifyRowMatrix(env, level, numDim, numDim, numCoef, colSkip, rowSkip,
                                      pre->colBegin, pre->colLength, pre->rowIndex,
                                      pre->matValue, pre->rowBegin, pre->rowLength,
                                      pre->colIndex, pre->rowMatValue);
  if (status == 0)
    status = VerifySymMatrixFormat(env, level, numDim, numCoef, colSkip, rowSkip, pre->colBegin,
                                   pre->colLength, pre->rowIndex, pre->matValue, pre->rowBegin,
                                   pre->rowLength, pre->colIndex, pre->rowMatValue);
  return status;
}

// The system as it came in, for the check that the reduced one is the same.
// Bounds, senses and objective never change and are shared.
ipmModel* NewCheckCopy(HalvexEnv* env, const ipmModel* model) {
  QVPool* pool = env->pool;
  ipmModel* copy = poolNew<ipmModel>(pool, 1);
  if (!copy) return nullptr;
  *copy = *model;
  const int32_t n = model->numCol, numCoef = model->numCoef;
  copy->colBegin = newArray<int32_t>(pool, n + 1, false);
  copy->colLength = newArray<int32_t>(pool, n, false);
  copy->rowIndex = newArray<int32_t>(pool, numCoef, false);
  copy->matValue = newArray<double>(pool, numCoef, false);
  copy->rhs = newArray<double>(pool, n, false);
  if (!copy->colBegin || !copy->colLength || !copy->rowIndex || !copy->matValue || !copy->rhs) {
    poolRelease(pool, copy->colBegin);
    poolRelease(pool, copy->colLength);
    poolRelease(pool, copy->rowIndex);
    poolRelease(pool, copy->matValue);
    poolRelease(pool, copy->rhs);
    poolFree(pool, copy);
    return nullptr;
  }
  for (int32_t j = 0; j <= n; j++) copy->colBegin[j] = model->colBegin[j];
  for (int32_t j = 0; j < n; j++) copy->colLength[j] = model->colLength[j];
  for (int32_t p = 0; p < numCoef; p++) {
    copy->rowIndex[p] = model->rowIndex[p];
    copy->matValue[p] = model->matValue[p];
  }
  for (int32_t i = 0; i < n; i++) copy->rhs[i] = model->rhs[i];
  return copy;
}

void FreeCheckCopy(HalvexEnv* env, ipmModel* copy) {
  if (!copy) return;
  QVPool* pool = env->pool;
  poolRelease(pool, copy->colBegin);
  poolRelease(pool, copy->colLength);
  poolRelease(pool, copy->rowIndex);
  poolRelease(pool, copy->matValue);
  poolRelease(pool, copy->rhs);
  poolFree(pool, copy);
}

// ---- the reductions of the equation solver --------------------------------------------

// Row i has one entry, in column j.  A diagonal one fixes z[i] outright.  An
// off-diagonal one fixes z[j]; by symmetry column i then holds only row j,
// and row j, set aside, gives z[i] after the solve.
int32_t removeSingletonEquation(HalvexEnv* env, ipmModel* model, ipmOption* option,
                                presolver* pre, int32_t i) {
  const int32_t j = pre->colIndex[pre->rowBegin[i]];
  int32_t status = removeSingletonRow(env, model, option, pre, i);
  if (status == 0) status = removeFixedCol(env, model, option, pre, j);
  if (status) return status;
  if (j == i) {
    pre->rowDone[j] = 1;
    pre->colDone[j] = 1;
    return 0;
  }
  if (pre->colLength[i] != 1) {
    PRE_TEXT(env, "Error removeSingletonEquation: length of column %d must be 1", i);
    return IPM_STATUS_FAILED;
  }
  if (pre->rowIndex[pre->colBegin[i]] != j) {
    PRE_TEXT(env, "Error removeSingletonEquation: row index of column %d must be %d", i, j);
    return IPM_STATUS_FAILED;
  }
  pre->numRemovedRow++;
  pre->numRemovedElement += pre->rowLength[j];
  // Only the column-wise copy lets go of row j: its row-wise live part is
  // what the back-substitution reads.
  for (int32_t p = pre->rowBegin[j]; p < pre->rowBegin[j] + pre->rowLength[j]; p++)
    removeElement(env, j, pre->colIndex[p], pre->colBegin, pre->colLength, pre->rowIndex,
                  pre->matValue);
  pre->rowMap[j] = ROWMAP_POSTDET;
  status = removeEmptyCol(env, model, option, pre, i);
  if (status) return status;
  updateMapLower(env, pre->rowMap, pre->lbMap, i, j);
  updateMapUpper(env, pre->rowMap, pre->ubMap, i, j);
  pre->lowerBound[i] = 0.0;
  pre->upperBound[i] = 0.0;
  pre->colMap[i] = COLMAP_POSTDET;
  pre->spec[pre->numPostdet++] = i;
  return 0;
}

// Row i reads d z[i] + o z[k] = b[i].  z[i] is put into row k, which gains
// -o*o/d on its diagonal, and row i is kept aside to give z[i] afterwards.
int32_t replaceVarOne(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                      int32_t i) {
  const int32_t p0 = pre->rowBegin[i];
  int32_t k;
  double d, o;
  if (pre->colIndex[p0] == i) {
    d = pre->rowMatValue[p0];
    o = pre->rowMatValue[p0 + 1];
    k = pre->colIndex[p0 + 1];
  } else if (pre->colIndex[p0 + 1] == i) {
    d = pre->rowMatValue[p0 + 1];
    o = pre->rowMatValue[p0];
    k = pre->colIndex[p0];
  } else {
    return 0;
  }
  // A singleton row k fixes z[i] by itself, which is cheaper and exact.
  // The other two guard against a pattern that is not symmetric.
  if (k == i || pre->rowMap[k] < 0 || pre->rowLength[k] == 1) return 0;

  const double shift = -(o * o) / d;
  pre->rhs[k] -= o * pre->rhs[i] / d;
  const int32_t rowDiag = findEntry(k, k, pre->rowBegin, pre->rowLength, pre->colIndex);
  const int32_t colDiag = findEntry(k, k, pre->colBegin, pre->colLength, pre->rowIndex);
  if (rowDiag >= 0) {
    if (colDiag < 0) {
      PRE_TEXT(env, "Error replaceVarOne: column %d should have nonzero main diagonal element", k);
      return IPM_STATUS_FAILED;
    }
    pre->rowMatValue[rowDiag] += shift;
    pre->matValue[colDiag] += shift;
  } else {
    const int32_t rowSlot = pre->rowBegin[k] + pre->rowLength[k];
    const int32_t colSlot = pre->colBegin[k] + pre->colLength[k];
    // The copies were laid out with a spare slot per row and column, and a
    // row that has a diagonal never loses it while it is live; no room here
    // means the copies are broken.
    if (rowSlot >= pre->rowBegin[k + 1] || colSlot >= pre->colBegin[k + 1]) {
      PRE_TEXT(env, "Error replaceVarOne: no room for the diagonal of column %d", k);
      return IPM_STATUS_FAILED;
    }
    pre->colIndex[rowSlot] = k;
    pre->rowMatValue[rowSlot] = shift;
    pre->rowLength[k]++;
    pre->rowIndex[colSlot] = k;
    pre->matValue[colSlot] = shift;
    pre->colLength[k]++;
    pre->numRemovedElement--;  // a fill-in is a removal in reverse
  }

  updateMapLower(env, pre->rowMap, pre->lbMap, i, i);
  updateMapUpper(env, pre->rowMap, pre->ubMap, i, i);
  pre->lowerBound[i] = 0.0;
  pre->upperBound[i] = 0.0;

  pre->numRemovedRow++;
  pre->numRemovedElement += pre->rowLength[i];
  for (int32_t p = pre->rowBegin[i]; p < pre->rowBegin[i] + pre->rowLength[i]; p++)
    removeElement(env, i, pre->colIndex[p], pre->colBegin, pre->colLength, pre->rowIndex,
                  pre->matValue);
  // At value 0 no right side moves: z[i] is already in row k.
  const int32_t status = removeFixedCol(env, model, option, pre, i);
  if (status) return status;

  pre->colDone[k] = 0;
  pre->rowMap[i] = ROWMAP_POSTDET;
  pre->colMap[i] = COLMAP_POSTDET;
  pre->spec[pre->numPostdet++] = i;
  return 0;
}

int32_t eqnPreLoop(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  const int32_t numDim = model->numRow;
  for (;;) {
    for (int32_t i = 0; i < numDim; i++) {
      if (pre->rowDone[i] > 0) continue;
      pre->rowDone[i] = 1;
      pre->colDone[i] = 1;
      if (pre->rowMap[i] < 0) continue;
      int32_t status = 0;
      switch (pre->rowLength[i]) {
        case 0:
          status = removeEmptyRow(env, model, option, pre, i);
          if (status == 0) status = removeEmptyCol(env, model, option, pre, i);
          break;
        case 1:
          status = removeSingletonEquation(env, model, option, pre, i);
          break;
        case 2:
          status = replaceVarOne(env, model, option, pre, i);
          break;
        default:
          break;
      }
      if (status) return status;
    }
    if (!pre->changed) return 0;
    pre->changed = 0;
    pre->numPass++;
    if (pre->numPass >= pre->maxPass) return 0;
  }
}

// Rewrites the caller's arrays with the reduced system.
void reduceEquation(HalvexEnv* env, ipmModel* model, presolver* pre) {
  const int32_t numDim = model->numCol;
  const int32_t room = model->numCoef;
  model->numRow -= pre->numRemovedRow;
  model->numCol -= pre->numRemovedCol;
  model->numCoef -= pre->numRemovedElement;
  for (int32_t i = 0; i < numDim; i++)
    if (pre->rowMap[i] >= 0) model->rhs[pre->rowMap[i]] = pre->rhs[i];
  int32_t count = 0;
  for (int32_t j = 0; j < numDim; j++) {
    const int32_t c = pre->colMap[j];
    if (c < 0) continue;
    model->colBegin[c] = count < room ? count : room;
    const int32_t begin = pre->colBegin[j], end = begin + pre->colLength[j];
    for (int32_t p = begin; p < end; p++) {
      const int32_t r = pre->rowMap[pre->rowIndex[p]];
      if (r < 0) continue;
      // Never past the caller's arrays, whatever the books say; the count
      // below reports the disagreement.
      if (count < room) {
        model->rowIndex[count] = r;
        model->matValue[count] = pre->matValue[p];
      }
      count++;
    }
    model->colLength[c] = (count < room ? count : room) - model->colBegin[c];
  }
  model->colBegin[model->numCol] = count < room ? count : room;
  if (model->numRow != model->numCol)
    PRE_TEXT(env, "Error reduceEquation: not symmetric matrix  numRow=%d  numCol=%d",
             model->numRow, model->numCol);
  if (count != model->numCoef)
    PRE_TEXT(env, "Error reduceEquation: nonzeros=%d should be %d", count, model->numCoef);
}

// ---- solves ---------------------------------------------------------------------------------

// The point of K z = b closest to the start vector x0, from the system
// [I K; K 0] [z; w] = [x0; b].  A point that moves further than the start
// itself is distrusted, and the start is kept.
int32_t solveToPoint(HalvexEnv* env, ipmModel* model, presolver* pre, const double* start,
                     int32_t numDim, int32_t numThreads, int32_t verifyLevel) {
  QVPool* pool = env->pool;
  const int32_t n = model->numCol;
  const int32_t* begin = model->colBegin;
  const int32_t* length = model->colLength;
  int64_t stored = 0;
  for (int32_t j = 0; j < n; j++) stored += length[j];

  int32_t* bigBegin = newArray<int32_t>(pool, 2 * (int64_t)n + 1, false);
  int32_t* bigIndex = newArray<int32_t>(pool, n + 2 * stored, false);
  double* bigValue = newArray<double>(pool, n + 2 * stored, false);
  double* vector = newArray<double>(pool, 2 * (int64_t)n);
  double* x0 = newArray<double>(pool, n);
  int32_t status = 0;
  if (!bigBegin || !bigIndex || !bigValue || !vector || !x0) {
    status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    // The caller's start is in the caller's numbering.  Without one the
    // nearest point to the origin is wanted, which is what x0 = 0 gives.
    if (start)
      for (int32_t j = 0; j < numDim; j++)
        if (pre->colMap[j] >= 0) x0[pre->colMap[j]] = start[j];
    int32_t count = 0;
    for (int32_t i = 0; i < n; i++) {
      bigBegin[i] = count;
      bigIndex[count] = i;
      bigValue[count++] = 1.0;
      for (int32_t p = begin[i]; p < begin[i] + length[i]; p++) {
        bigIndex[count] = model->rowIndex[p] + n;
        bigValue[count++] = model->matValue[p];
      }
    }
    if (count != n + model->numCoef) {
      PRE_TEXT(env, "Error solveToPoint: half numCoef=%d should be %d", count, n + model->numCoef);
      status = IPM_STATUS_FAILED;
    }
    for (int32_t i = 0; i < n && status == 0; i++) {
      bigBegin[n + i] = count;
      for (int32_t p = begin[i]; p < begin[i] + length[i]; p++) {
        bigIndex[count] = model->rowIndex[p];
        bigValue[count++] = model->matValue[p];
      }
    }
    if (status == 0) {
      bigBegin[2 * n] = count;
      if (count != n + 2 * model->numCoef) {
        PRE_TEXT(env, "Error solveToPoint: numCoef=%d should be %d", count,
                 n + 2 * model->numCoef);
        status = IPM_STATUS_FAILED;
      }
    }
    if (status == 0) {
      for (int32_t i = 0; i < n; i++) {
        vector[i] = x0[i];
        vector[n + i] = model->rhs[i];
      }
      if (verifyLevel) {
        VerifySymMatrix(env, verifyLevel, 2 * n, bigBegin[2 * n], nullptr, bigBegin, nullptr,
                        bigIndex, bigValue);
        VerifyVector(env, verifyLevel, 2 * n, vector);
      }
      status = solveEquationLDL(env, verifyLevel, 0, 2 * n, n, numThreads, bigBegin, bigIndex,
                                bigValue, vector, nullptr);
    }
    if (status == 0) {
      bool rejected = false;
      for (int32_t i = 0; i < n && !rejected; i++) {
        const double move = fabs(vector[i] - x0[i]);
        rejected = move > fabs(x0[i]) && move > kPointMove;
      }
      const double* chosen = rejected ? x0 : vector;
      for (int32_t i = 0; i < n; i++) model->rhs[i] = chosen[i];
    }
  }
  poolRelease(pool, bigBegin);
  poolRelease(pool, bigIndex);
  poolRelease(pool, bigValue);
  poolRelease(pool, vector);
  poolRelease(pool, x0);
  return status;
}

// Takes the reduced solution in z back to the caller's numbering, then
// computes the set-aside variables, latest first: a row kept aside refers
// only to variables that were still in the system when it was, and those
// are either solved or set aside later.
void expandSolution(presolver* pre, int32_t numDim, const double* start, double* z) {
  for (int32_t j = numDim - 1; j >= 0; j--) {
    const int32_t c = pre->colMap[j];
    if (c >= 0)
      z[j] = z[c];
    else if (c == COLMAP_FIXED)
      z[j] = pre->lowerBound[j];
    else if (c == COLMAP_EMPTY)
      z[j] = start ? start[j] : 0.0;
    else
      z[j] = 0.0;
  }
  for (int32_t s = pre->numPostdet - 1; s >= 0; s--) {
    const int32_t j = pre->spec[s];
    const int32_t r = pre->lbMap[j];
    double t = pre->rhs[r], pivot = 0.0;
    for (int32_t p = pre->rowBegin[r]; p < pre->rowBegin[r] + pre->rowLength[r]; p++) {
      const int32_t c = pre->colIndex[p];
      if (c == j)
        pivot = pre->rowMatValue[p];
      else
        t -= pre->rowMatValue[p] * z[c];
    }
    z[j] = t / pivot;
  }
}

int32_t solveReduced(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                     int32_t numDim, int32_t numLeading, int32_t numThreads, double* start,
                     int32_t mode) {
  int32_t status = eqnPresolve(env, model, option, pre, numLeading);
  if (status) return status;
  const bool reduced = pre->preControl == PRECONTROL_REDUCED;
  const int32_t n = model->numCol;
  if (n != 0) {
    if (mode == EQN_MODE_LIFT_DIAGONAL) {
      for (int32_t j = 0; j < n; j++)
        for (int32_t p = model->colBegin[j]; p < model->colBegin[j] + model->colLength[j]; p++)
          if (model->rowIndex[p] == j && model->matValue[p] > -kTinyDiagonal &&
              model->matValue[p] < kTinyDiagonal)
            model->matValue[p] = kTinyDiagonal;
    }
    int32_t leading = numLeading;
    if (reduced) {
      leading = 0;
      for (int32_t j = 0; j < numLeading && j < numDim; j++)
        if (pre->colMap[j] >= 0) leading++;
    }
    if (mode == EQN_MODE_TO_POINT)
      status = solveToPoint(env, model, pre, start, numDim, numThreads, option->verifyLevel);
    else
      status = solveEquationLDL(env, option->verifyLevel, 0, n, leading, numThreads,
                                model->colBegin, model->rowIndex, model->matValue, model->rhs,
                                nullptr);
    if (status) return status;
  }
  if (reduced) expandSolution(pre, numDim, start, model->rhs);
  return 0;
}

}  // namespace

int32_t eqnPresolve(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre,
                    int32_t /*numLeading*/) {
  const int32_t level = option->verifyLevel;
  ipmModel* check = nullptr;
  int32_t status = CreatePresolver(env, model, option, pre);
  pre->maxPass = kMaxPass;
  pre->numPostdet = 0;
  pre->numPass = 0;
  pre->changed = 0;
  if (status == 0)
    status = spreadCopy(env->pool, model->numCol, pre->colBegin, pre->colLength,
                        &pre->rowIndex, &pre->matValue);
  if (status == 0)
    status = spreadCopy(env->pool, model->numRow, pre->rowBegin, pre->rowLength,
                        &pre->colIndex, &pre->rowMatValue);
  if (status == 0 && level != 0) {
    check = NewCheckCopy(env, model);
    if (!check) status = IPM_STATUS_OUT_OF_MEMORY;
    // The working copies are spread out and have no closing begin of their
    // own; the packed caller's matrix is the same one at this point.
    if (status == 0)
      status = VerifySymMatrix(env, level, model->numCol, model->numCoef, nullptr,
                               model->colBegin, model->colLength, model->rowIndex,
                               model->matValue);
    if (status == 0) status = verifyCopies(env, level, model, pre, false);
  }

  if (status == 0) {
    detectNoise(env, model, pre);
    if (pre->noiseThreshold < 1.0) status = removeNoiseA(env, model, pre);
  }
  if (status == 0) status = eqnPreLoop(env, model, option, pre);

  if (status == 0 && level != 0) {
    if (pre->numRemovedRow != pre->numRemovedCol)
      status = IPM_STATUS_FAILED;
    else
      status = verifyCopies(env, level, model, pre, true);
  }
  if (status == 0) {
    setMapping(env, model, pre);
    const bool none = pre->numRemovedRow == 0 && pre->numRemovedCol == 0 &&
                      pre->numRemovedElement == 0;
    pre->preControl = none ? PRECONTROL_NONE : PRECONTROL_REDUCED;
  }
  if (status == 0 && level != 0) {
    status = VerifyPresolveStructure(env, level, model, option, pre);
    if (status == 0) status = verifyCopies(env, level, model, pre, true);
  }
  if (status == 0 && pre->preControl == PRECONTROL_REDUCED) {
    reduceEquation(env, model, pre);
    if (level != 0) {
      status = VerifySymMatrix(env, level, model->numCol, model->numCoef, nullptr,
                               model->colBegin, model->colLength, model->rowIndex,
                               model->matValue);
      if (status == 0)
        status = VerifyPresolveValue(env, level, model, check, pre);
    }
  }

  FreePresolver(env, pre);
  FreeCheckCopy(env, check);
  return status;
}

int32_t eqnSolve(double infinity, double primalTol, HalvexEnv* env, int32_t numDim,
                 int32_t numLeading, int32_t numThreads, int32_t* colBegin, int32_t* rowIndex,
                 double* matValue, double* rhs, double* start, int32_t verifyLevel,
                 int32_t mode) {
  if (!colBegin || !rowIndex || !matValue || !rhs) return IPM_STATUS_FAILED;
  if (!env || !env->pool || numDim < 0) return IPM_STATUS_FAILED;
  // An empty system is solved as it stands; no pool is troubled for it.
  if (numDim == 0) return 0;
  QVPool* pool = env->pool;

  ipmModel* model = poolNew<ipmModel>(pool, 1);
  ipmOption* option = poolNew<ipmOption>(pool, 1);
  presolver* pre = poolNew<presolver>(pool, 1);
  int32_t status = 0;
  if (!model || !option || !pre) status = IPM_STATUS_OUT_OF_MEMORY;
  if (status == 0) {
    model->colLength = newArray<int32_t>(pool, numDim, false);
    model->obj = newArray<double>(pool, numDim);
    model->lower = newArray<double>(pool, numDim, false);
    model->upper = newArray<double>(pool, numDim, false);
    model->rowSense = newArray<char>(pool, numDim, false);
    if (!model->colLength || !model->obj || !model->lower || !model->upper || !model->rowSense)
      status = IPM_STATUS_OUT_OF_MEMORY;
  }
  if (status == 0) {
    model->typeModel = PRESOLVE_MODEL_EQUATION;
    model->numRow = numDim;
    model->numCol = numDim;
    model->numCoef = colBegin[numDim];
    model->numQuadCoef = 0;
    model->colBegin = colBegin;
    model->rowIndex = rowIndex;
    model->matValue = matValue;
    model->rhs = rhs;
    for (int32_t j = 0; j < numDim; j++) {
      model->colLength[j] = colBegin[j + 1] - colBegin[j];
      model->lower[j] = -infinity;
      model->upper[j] = infinity;
      model->rowSense[j] = 'E';
    }
    option->infinity = infinity;
    option->primalTol = primalTol;
    option->verifyLevel = verifyLevel;
    status = solveReduced(env, model, option, pre, numDim, numLeading, numThreads, start, mode);
  }

  if (model) {
    poolRelease(pool, model->colLength);
    poolRelease(pool, model->obj);
    poolRelease(pool, model->lower);
    poolRelease(pool, model->upper);
    poolRelease(pool, model->rowSense);
    poolFree(pool, model);
  }
  poolRelease(pool, option);
  DestroyPresolver(env, nullptr, pre);
  return status;
}

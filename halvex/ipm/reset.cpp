// The active-set finish.  Near the end of a run the complementary pairs have
// mostly separated: in each, the slack or the dual is on its way to zero.
// Reading that off gives an active set; with the active bounds held and the
// inactive rows dropped, one symmetric solve lands on the stationary point of
// that set, a vertex-like point whose complementarity is exact.  The point is
// taken only if it measures as well as the loop would accept, so a wrong guess
// costs one factorisation of a smaller system and leaves the run as it was.
#include <math.h>

#include "frame/qv.h"
#include "ipm/ipm.h"
#include "ipm/reset.h"
#include "presolve/eqnsolve.h"
#include "util/random.h"
#include "util/sparse.h"
#include "verify/verify.h"

namespace {

// A member of a pair counts as gone when it is below a tenth of its partner;
// the floor keeps a pair whose partner has gone too from deciding on noise.
inline double farOf(double v) {
  const double f = 0.1 * v;
  return f > 0.0001 ? f : 0.0001;
}

inline bool hasUpper(uint8_t type) { return (type & VARBND_UPPER) != 0; }
inline bool hasLower(uint8_t type) { return (type & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }

// Zero-length requests still get a block, so that null always means refused.
template <typename T>
T* take(QVPool* pool, int64_t count, bool zero = false) {
  return poolNew<T>(pool, count > 0 ? count : 1, zero);
}

// Every temporary of one reset, so that all exits share one release.
struct Scratch {
  int32_t* colMap = nullptr;
  int32_t* rowMap = nullptr;
  int32_t* kktBegin = nullptr;
  int32_t* kktIndex = nullptr;
  double* kktValue = nullptr;
  double* right = nullptr;  // right side in, solution out
  double* start = nullptr;
  int32_t* qtBegin = nullptr;  // Q's strict triangle, transposed
  int32_t* qtLength = nullptr;
  int32_t* qtIndex = nullptr;
  double* qtValue = nullptr;
  int32_t* atBegin = nullptr;  // A by rows
  int32_t* atLength = nullptr;
  int32_t* atIndex = nullptr;
  double* atValue = nullptr;
  double* xNew = nullptr;
  double* lowerSlackNew = nullptr;
  double* upperSlackNew = nullptr;
  double* lowerDualNew = nullptr;
  double* upperDualNew = nullptr;
  double* yNew = nullptr;
  double* slackNew = nullptr;
  double* work = nullptr;
};

void releaseSystem(QVPool* pool, Scratch* s) {
  poolRelease(pool, s->kktBegin);
  poolRelease(pool, s->kktIndex);
  poolRelease(pool, s->kktValue);
  poolRelease(pool, s->start);
  poolRelease(pool, s->qtBegin);
  poolRelease(pool, s->qtLength);
  poolRelease(pool, s->qtIndex);
  poolRelease(pool, s->qtValue);
  poolRelease(pool, s->atBegin);
  poolRelease(pool, s->atLength);
  poolRelease(pool, s->atIndex);
  poolRelease(pool, s->atValue);
}

int32_t finish(QVPool* pool, Scratch* s, int32_t status) {
  releaseSystem(pool, s);
  poolRelease(pool, s->colMap);
  poolRelease(pool, s->rowMap);
  poolRelease(pool, s->right);
  poolRelease(pool, s->xNew);
  poolRelease(pool, s->lowerSlackNew);
  poolRelease(pool, s->upperSlackNew);
  poolRelease(pool, s->lowerDualNew);
  poolRelease(pool, s->upperDualNew);
  poolRelease(pool, s->yNew);
  poolRelease(pool, s->slackNew);
  poolRelease(pool, s->work);
  return status;
}

// The active set read off the point.  A column's lower pair is asked first,
// then its upper pair; a pair in doubt gives up the whole reset, as one wrong
// guess would only cost a factorisation to find out.
int32_t classify(const Ipm* ipm, int32_t* colMap, int32_t* rowMap, int32_t* numColReset,
                 int32_t* numRowReset) {
  int32_t n = 0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    const bool lo = hasLower(type), up = hasUpper(type);
    if (!lo && !up) {
      colMap[j] = n++;
      continue;
    }
    if (lo && ipm->lowerSlack[j] < farOf(ipm->lowerDual[j])) {
      colMap[j] = RESET_MAP_FIXED_LOWER;
    } else if (up && ipm->upperSlack[j] < farOf(ipm->upperDual[j])) {
      colMap[j] = RESET_MAP_FIXED_UPPER;
    } else if ((!lo || ipm->lowerDual[j] < farOf(ipm->lowerSlack[j])) &&
               (!up || ipm->upperDual[j] < farOf(ipm->upperSlack[j]))) {
      colMap[j] = n++;
    } else {
      return IPM_STATUS_FAILED;
    }
  }
  int32_t m = 0;
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (ipm->rowSense[i] == 'E') {
      rowMap[i] = m++;
    } else if (ipm->ineqnSlack[i] < farOf(ipm->solDual[i])) {
      rowMap[i] = m++;
    } else if (ipm->solDual[i] < farOf(ipm->ineqnSlack[i])) {
      rowMap[i] = RESET_MAP_DROPPED;
    } else {
      return IPM_STATUS_FAILED;
    }
  }
  *numColReset = n;
  *numRowReset = m;
  return 0;
}

inline double boundOf(const Ipm* ipm, int32_t j, int32_t mapped) {
  return mapped == RESET_MAP_FIXED_LOWER ? ipm->lower[j] : ipm->upper[j];
}

// Kept columns carry -Qx + A'y = obj + Q_F b, kept rows Ax = rhs - A_F b,
// with b the bounds at which the fixed columns are held.  Returns 0 or -1086.
int32_t buildSystem(const Ipm* ipm, Scratch* s, int32_t nc, int32_t nr) {
  QVPool* pool = ipm->env->pool;
  const int32_t numCol = ipm->numCol, numRow = ipm->numRow, dim = nc + nr;
  const int32_t* colMap = s->colMap;
  const int32_t* rowMap = s->rowMap;
  const bool quad = ipm->modelType == IPM_MODEL_QP;
  const bool offDiag = quad && ipm->numQuadCoef > 0 && ipm->quadColBegin &&
                       ipm->quadColLength && ipm->quadRowIndex && ipm->quadMatValue;
  const bool diag = quad && ipm->quadDiag;

  // Sized by the live entries rather than the counters, which may include
  // removed entries but can never fall short of what is really there.
  int64_t liveA = 0, liveQ = 0;
  for (int32_t j = 0; j < numCol; j++) liveA += ipm->colLength[j];
  if (offDiag)
    for (int32_t j = 0; j < numCol; j++) liveQ += ipm->quadColLength[j];
  const int64_t cap = (int64_t)dim + 2 * (liveA + liveQ);

  s->kktBegin = take<int32_t>(pool, (int64_t)dim + 1);
  s->kktIndex = take<int32_t>(pool, cap);
  s->kktValue = take<double>(pool, cap);
  s->right = take<double>(pool, dim);
  s->start = take<double>(pool, dim);
  if (!s->kktBegin || !s->kktIndex || !s->kktValue || !s->right || !s->start)
    return IPM_STATUS_OUT_OF_MEMORY;
  if (offDiag) {
    s->qtBegin = take<int32_t>(pool, (int64_t)numCol + 1);
    s->qtLength = take<int32_t>(pool, numCol);
    s->qtIndex = take<int32_t>(pool, liveQ);
    s->qtValue = take<double>(pool, liveQ);
    if (!s->qtBegin || !s->qtLength || !s->qtIndex || !s->qtValue)
      return IPM_STATUS_OUT_OF_MEMORY;
    toggleMatrixWithLength(numCol, numCol, nullptr, ipm->quadColBegin, ipm->quadColLength,
                           ipm->quadRowIndex, ipm->quadMatValue, s->qtBegin, s->qtLength,
                           s->qtIndex, s->qtValue);
  }

  double* right = s->right;
  for (int32_t j = 0; j < numCol; j++)
    if (colMap[j] >= 0) {
      right[colMap[j]] = ipm->obj[j];
      s->start[colMap[j]] = ipm->solPrimal[j];
    }
  for (int32_t i = 0; i < numRow; i++)
    if (rowMap[i] >= 0) {
      right[nc + rowMap[i]] = ipm->rhs[i];
      s->start[nc + rowMap[i]] = ipm->solDual[i];
    }

  int32_t* begin = s->kktBegin;
  int32_t* index = s->kktIndex;
  double* value = s->kktValue;
  int64_t pos = 0;
  for (int32_t j = 0; j < numCol; j++) {
    const int32_t aEnd = ipm->colBegin[j] + ipm->colLength[j];
    const int32_t mapped = colMap[j];
    if (mapped < 0) {
      const double b = boundOf(ipm, j, mapped);
      for (int32_t k = ipm->colBegin[j]; k < aEnd; k++) {
        const int32_t r = rowMap[ipm->rowIndex[k]];
        if (r >= 0) right[nc + r] -= ipm->matValue[k] * b;
      }
      if (offDiag) {
        const int32_t qEnd = ipm->quadColBegin[j] + ipm->quadColLength[j];
        for (int32_t k = ipm->quadColBegin[j]; k < qEnd; k++) {
          const int32_t c = colMap[ipm->quadRowIndex[k]];
          if (c >= 0) right[c] += ipm->quadMatValue[k] * b;
        }
        for (int32_t k = s->qtBegin[j]; k < s->qtBegin[j + 1]; k++) {
          const int32_t c = colMap[s->qtIndex[k]];
          if (c >= 0) right[c] += s->qtValue[k] * b;
        }
      }
      continue;
    }
    begin[mapped] = (int32_t)pos;
    if (offDiag)
      for (int32_t k = s->qtBegin[j]; k < s->qtBegin[j + 1]; k++) {
        const int32_t c = colMap[s->qtIndex[k]];
        if (c < 0) continue;
        index[pos] = c;
        value[pos++] = -s->qtValue[k];
      }
    index[pos] = mapped;
    value[pos++] = diag ? -ipm->quadDiag[j] : 0.0;
    if (offDiag) {
      const int32_t qEnd = ipm->quadColBegin[j] + ipm->quadColLength[j];
      for (int32_t k = ipm->quadColBegin[j]; k < qEnd; k++) {
        const int32_t c = colMap[ipm->quadRowIndex[k]];
        if (c < 0) continue;
        index[pos] = c;
        value[pos++] = -ipm->quadMatValue[k];
      }
    }
    for (int32_t k = ipm->colBegin[j]; k < aEnd; k++) {
      const int32_t r = rowMap[ipm->rowIndex[k]];
      if (r < 0) continue;
      index[pos] = nc + r;
      value[pos++] = ipm->matValue[k];
    }
  }
  // The transposed Q has served; A by rows takes its place.
  poolRelease(pool, s->qtBegin);
  poolRelease(pool, s->qtLength);
  poolRelease(pool, s->qtIndex);
  poolRelease(pool, s->qtValue);

  s->atBegin = take<int32_t>(pool, (int64_t)numRow + 1);
  s->atLength = take<int32_t>(pool, numRow);
  s->atIndex = take<int32_t>(pool, liveA);
  s->atValue = take<double>(pool, liveA);
  if (!s->atBegin || !s->atLength || !s->atIndex || !s->atValue) return IPM_STATUS_OUT_OF_MEMORY;
  // Fixed columns are left out of the transpose: they have gone to the right.
  toggleMatrixWithLength(numCol, numRow, colMap, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                         ipm->matValue, s->atBegin, s->atLength, s->atIndex, s->atValue);
  for (int32_t i = 0; i < numRow; i++) {
    const int32_t r = rowMap[i];
    if (r < 0) continue;
    begin[nc + r] = (int32_t)pos;
    for (int32_t k = s->atBegin[i]; k < s->atBegin[i + 1]; k++) {
      index[pos] = colMap[s->atIndex[k]];
      value[pos++] = s->atValue[k];
    }
    index[pos] = nc + r;
    value[pos++] = 0.0;
  }
  begin[dim] = (int32_t)pos;
  poolRelease(pool, s->atBegin);
  poolRelease(pool, s->atLength);
  poolRelease(pool, s->atIndex);
  poolRelease(pool, s->atValue);
  return 0;
}

}  // namespace

int32_t VerifyMapping(HalvexEnv* env, int32_t level, int32_t length, const int32_t* map,
                      int32_t numReduced) {
  if (level < 1) return 0;
  TextLogFn log = env ? env->textLog : nullptr;
  int32_t status = 0, next = 0;
  for (int32_t k = 0; k < length; k++) {
    if (map[k] < 0) continue;
    if (map[k] != next) {
      if (log) log("Error VerifyMapping: invalid vector mapping(%d)=%d should be %d", k, map[k],
                   next);
      status = IPM_STATUS_FAILED;
    }
    next++;
  }
  if (next != numReduced) {
    if (log) log("Error VerifyMapping: reduced size = %d should be %d", numReduced, next);
    status = IPM_STATUS_FAILED;
  }
  return status;
}

int32_t VerifyResetSystem(Ipm* ipm, int32_t level, const int32_t* colMap, int32_t numColReset,
                          const int32_t* rowMap, int32_t numRowReset, const int32_t* begin,
                          const int32_t* index, const double* value, const double* right) {
  if (level < 1) return 0;
  HalvexEnv* env = ipm->env;
  if (env->textLog) env->textLog("running debug code......");
  QVPool* pool = env->pool;
  const int32_t numCol = ipm->numCol, numRow = ipm->numRow;
  const int32_t nc = numColReset, dim = numColReset + numRowReset;
  double* z = take<double>(pool, dim);
  double* kz = take<double>(pool, dim, true);
  double* x = take<double>(pool, numCol);
  double* y = take<double>(pool, numRow);
  double* ax = take<double>(pool, numRow);
  double* w = take<double>(pool, numCol);
  int32_t status = 0;
  if (!z || !kz || !x || !y || !ax || !w) status = IPM_STATUS_OUT_OF_MEMORY;
  if (status == 0) {
    int64_t seed = 271828183;
    for (int32_t k = 0; k < dim; k++) z[k] = 2.0 * zranuni(&seed) - 1.0;
    for (int32_t c = 0; c < dim; c++)
      for (int32_t p = begin[c]; p < begin[c + 1]; p++) kz[index[p]] += value[p] * z[c];
    for (int32_t j = 0; j < numCol; j++)
      x[j] = colMap[j] >= 0 ? z[colMap[j]] : boundOf(ipm, j, colMap[j]);
    for (int32_t i = 0; i < numRow; i++) y[i] = rowMap[i] >= 0 ? z[nc + rowMap[i]] : 0.0;
    matrixTimesVector(numRow, numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                      ipm->matValue, x, ax);
    vectorTimesMatrix(numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex, ipm->matValue, y, w);
    if (ipm->modelType == IPM_MODEL_QP && ipm->quadDiag) {
      const bool offDiag = ipm->numQuadCoef > 0;
      symmatrixTimesVector(numCol, offDiag ? ipm->quadColBegin : nullptr,
                           offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                           ipm->quadMatValue, ipm->quadDiag, x, w, -1.0);
    }
    TextLogFn log = env->textLog;
    for (int32_t i = 0; i < numRow; i++) {
      if (rowMap[i] < 0) continue;
      const int32_t k = nc + rowMap[i];
      const double got = kz[k] - right[k], want = ax[i] - ipm->rhs[i];
      const double scale = fmax(1.0, fmax(fabs(ax[i]), fabs(ipm->rhs[i])));
      if (!(fabs(got - want) <= 1e-10 * scale)) {
        if (log) log("Error VerifyResetSystem: primal residual(%d) %15.7g <> %15.7g", i, got, want);
        status = IPM_STATUS_FAILED;
      }
    }
    for (int32_t j = 0; j < numCol; j++) {
      if (colMap[j] < 0) continue;
      const int32_t k = colMap[j];
      const double got = kz[k] - right[k], want = w[j] - ipm->obj[j];
      const double scale = fmax(1.0, fmax(fabs(w[j]), fabs(ipm->obj[j])));
      if (!(fabs(got - want) <= 1e-10 * scale)) {
        if (log) log("Error VerifyResetSystem: dual residual(%d) %15.7g <> %15.7g", j, got, want);
        status = IPM_STATUS_FAILED;
      }
    }
  }
  poolRelease(pool, z);
  poolRelease(pool, kz);
  poolRelease(pool, x);
  poolRelease(pool, y);
  poolRelease(pool, ax);
  poolRelease(pool, w);
  return status;
}

int32_t ipmReset(Ipm* ipm) {
  // A record without a pool cannot have come through CreateIpm.
  if (!ipm || !ipm->env || !ipm->env->pool) return IPM_STATUS_FAILED;
  QVPool* pool = ipm->env->pool;
  const int32_t numCol = ipm->numCol, numRow = ipm->numRow;
  Scratch s;

  s.colMap = take<int32_t>(pool, numCol);
  s.rowMap = take<int32_t>(pool, numRow);
  if (!s.colMap || !s.rowMap) return finish(pool, &s, IPM_STATUS_OUT_OF_MEMORY);
  int32_t nc = 0, nr = 0;
  int32_t status = classify(ipm, s.colMap, s.rowMap, &nc, &nr);
  if (status) return finish(pool, &s, status);
  const int32_t level = ipm->verifyLevel;
  if (level) {
    if ((status = VerifyMapping(ipm->env, level, numCol, s.colMap, nc)) != 0 ||
        (status = VerifyMapping(ipm->env, level, numRow, s.rowMap, nr)) != 0)
      return finish(pool, &s, status);
  }

  const int32_t dim = nc + nr;
  if ((status = buildSystem(ipm, &s, nc, nr)) != 0) return finish(pool, &s, status);
  if (level) {
    if ((status = VerifySymMatrix(ipm->env, level, dim, s.kktBegin[dim], nullptr, s.kktBegin,
                                  nullptr, s.kktIndex, s.kktValue)) ||
        (status = VerifyResetSystem(ipm, level, s.colMap, nc, s.rowMap, nr, s.kktBegin,
                                    s.kktIndex, s.kktValue, s.right)))
      return finish(pool, &s, status);
  }
  // The solution nearest the current point: where the set leaves the system
  // singular, the point keeps what it had rather than jumping somewhere.
  status = eqnSolve(ipm->infinity, ipm->primalTol, ipm->env, dim, nc, ipm->numThreads,
                    s.kktBegin, s.kktIndex, s.kktValue, s.right, s.start, level,
                    EQN_MODE_TO_POINT);
  if (status) return finish(pool, &s, status);
  releaseSystem(pool, &s);

  s.xNew = take<double>(pool, numCol);
  s.lowerSlackNew = take<double>(pool, numCol);
  s.upperSlackNew = take<double>(pool, numCol);
  s.lowerDualNew = take<double>(pool, numCol, true);
  s.upperDualNew = take<double>(pool, numCol, true);
  s.yNew = take<double>(pool, numRow);
  s.slackNew = take<double>(pool, numRow);
  s.work = take<double>(pool, numRow > numCol ? numRow : numCol);
  if (!s.xNew || !s.lowerSlackNew || !s.upperSlackNew || !s.lowerDualNew || !s.upperDualNew ||
      !s.yNew || !s.slackNew || !s.work)
    return finish(pool, &s, IPM_STATUS_OUT_OF_MEMORY);

  const double* z = s.right;
  double minPrimal = 1e+20, minDual = 1e+20;
  for (int32_t j = 0; j < numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    const int32_t mapped = s.colMap[j];
    double x;
    if (mapped == RESET_MAP_FIXED_LOWER) {
      x = ipm->lower[j];
      s.lowerSlackNew[j] = 0.0;
      s.upperSlackNew[j] = hasUpper(type) ? ipm->upper[j] - x : 0.0;
      minPrimal = fmin(minPrimal, s.upperSlackNew[j]);
    } else if (mapped == RESET_MAP_FIXED_UPPER) {
      x = ipm->upper[j];
      s.upperSlackNew[j] = 0.0;
      s.lowerSlackNew[j] = hasLower(type) ? x - ipm->lower[j] : 0.0;
      minPrimal = fmin(minPrimal, s.lowerSlackNew[j]);
    } else {
      x = z[mapped];
      s.lowerSlackNew[j] = 0.0;
      s.upperSlackNew[j] = 0.0;
      if (hasLower(type)) {
        s.lowerSlackNew[j] = x - ipm->lower[j];
        minPrimal = fmin(minPrimal, s.lowerSlackNew[j]);
      }
      if (hasUpper(type)) {
        s.upperSlackNew[j] = ipm->upper[j] - x;
        minPrimal = fmin(minPrimal, s.upperSlackNew[j]);
      }
    }
    s.xNew[j] = x;
  }
  for (int32_t i = 0; i < numRow; i++) {
    const int32_t r = s.rowMap[i];
    s.slackNew[i] = 0.0;
    s.yNew[i] = r >= 0 ? z[nc + r] : 0.0;
    // An equation's dual has no sign to keep.
    if (r >= 0 && ipm->rowSense[i] != 'E') minDual = fmin(minDual, s.yNew[i]);
  }
  if (nr != numRow) {
    matrixTimesVector(numRow, numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                      ipm->matValue, s.xNew, s.work);
    for (int32_t i = 0; i < numRow; i++) {
      if (s.rowMap[i] >= 0) continue;
      s.slackNew[i] = s.work[i] - ipm->rhs[i];
      minPrimal = fmin(minPrimal, s.slackNew[i]);
    }
  }
  if (nc != numCol) {
    vectorTimesMatrix(numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex, ipm->matValue,
                      s.yNew, s.work);
    if (ipm->modelType == IPM_MODEL_QP && ipm->quadDiag) {
      const bool offDiag = ipm->numQuadCoef > 0;
      symmatrixTimesVector(numCol, offDiag ? ipm->quadColBegin : nullptr,
                           offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                           ipm->quadMatValue, ipm->quadDiag, s.xNew, s.work, -1.0);
    }
    for (int32_t j = 0; j < numCol; j++) {
      if (s.colMap[j] == RESET_MAP_FIXED_LOWER) {
        s.lowerDualNew[j] = ipm->obj[j] - s.work[j];
        minDual = fmin(minDual, s.lowerDualNew[j]);
      } else if (s.colMap[j] == RESET_MAP_FIXED_UPPER) {
        s.upperDualNew[j] = s.work[j] - ipm->obj[j];
        minDual = fmin(minDual, s.upperDualNew[j]);
      }
    }
  }
  // A slack or dual of the wrong sign beyond the tolerances: the set was
  // wrong, and no measure would make the point better.
  if (!(minPrimal > -ipm->primalTol) || !(minDual > -ipm->dualTol))
    return finish(pool, &s, IPM_STATUS_RESET_FAILED);

  double primalInfeas = 0.0, dualInfeas = 0.0, boundInfeas = 0.0, dualityGap = 0.0,
         complementarity = 0.0;
  status = computeMeasurementReset(ipm, s.xNew, s.yNew, s.slackNew, s.lowerSlackNew,
                                   s.lowerDualNew, s.upperSlackNew, s.upperDualNew,
                                   &primalInfeas, &dualInfeas, &boundInfeas, &dualityGap,
                                   &complementarity);
  if (status) return finish(pool, &s, status);
  const int32_t verdict =
      getSolutionStatus(ipm->primalTol, ipm->dualTol, ipm->gapTol, ipm->complTol, primalInfeas,
                        boundInfeas, dualInfeas, dualityGap, complementarity);
  if (verdict != IPM_STATUS_OPTIMAL && verdict != IPM_STATUS_ACCEPTABLE)
    return finish(pool, &s, IPM_STATUS_RESET_FAILED);

  for (int32_t j = 0; j < numCol; j++) {
    ipm->solPrimal[j] = s.xNew[j];
    ipm->lowerSlack[j] = s.lowerSlackNew[j];
    ipm->upperSlack[j] = s.upperSlackNew[j];
    ipm->lowerDual[j] = s.lowerDualNew[j];
    ipm->upperDual[j] = s.upperDualNew[j];
  }
  for (int32_t i = 0; i < numRow; i++) {
    ipm->solDual[i] = s.yNew[i];
    ipm->ineqnSlack[i] = s.slackNew[i];
  }
  ipm->status = verdict;
  ipm->primalInfeas = primalInfeas;
  ipm->boundInfeas = boundInfeas;
  ipm->dualInfeas = dualInfeas;
  ipm->dualityGap = dualityGap;
  ipm->complementarity = complementarity;
  return finish(pool, &s, 0);
}

// The presolver record: its making, its maps and its release.
#include "presolve/presolver.h"

#include "frame/qv.h"
#include "presolve/internal.h"
#include "records/model.h"
#include "util/sparse.h"
#include "verify/verify_presolve.h"

using presolve::isQP;
using presolve::newArray;
using presolve::verifyRowMatrix;

namespace {

int32_t liveCount(int32_t numMajor, const int32_t* length) {
  int32_t total = 0;
  if (length)
    for (int32_t j = 0; j < numMajor; j++) total += length[j];
  return total;
}

}  // namespace

int32_t CreatePresolver(HalvexEnv* env, ipmModel* model, ipmOption* option, presolver* pre) {
  QVPool* pool = env->pool;
  const int32_t numRow = model->numRow, numCol = model->numCol;
  pre->typeModel = model->typeModel;
  pre->maxPass = PRESOLVE_MAX_PASS;
  pre->numRemovedRow = pre->numRemovedCol = pre->numRemovedElement = 0;
  pre->numRemovedQuadElement = pre->numChangeRange = 0;
  pre->changed = 0;
  pre->numPass = 0;

  // Sized by the live entries as well as by numCoef, so that a model whose
  // count disagrees with its lengths cannot make the copies overrun.
  int32_t numCoef = liveCount(numCol, model->colLength);
  if (model->numCoef > numCoef) numCoef = model->numCoef;

  pre->rowBegin = newArray<int32_t>(pool, numRow + 1);
  pre->rowLength = newArray<int32_t>(pool, numRow);
  pre->colIndex = newArray<int32_t>(pool, numCoef, false);
  pre->rowMatValue = newArray<double>(pool, numCoef, false);
  if (!pre->rowBegin || !pre->rowLength || !pre->colIndex || !pre->rowMatValue)
    return IPM_STATUS_OUT_OF_MEMORY;
  toggleMatrixWithLength(numCol, numRow, nullptr, model->colBegin, model->colLength,
                         model->rowIndex, model->matValue, pre->rowBegin, pre->rowLength,
                         pre->colIndex, pre->rowMatValue);
  int32_t status = verifyRowMatrix(env, option->verifyLevel, numRow, numCol, model->numCoef,
                                   nullptr, nullptr, model->colBegin, model->colLength,
                                   model->rowIndex, model->matValue, pre->rowBegin,
                                   pre->rowLength, pre->colIndex, pre->rowMatValue);
  if (status) return status;

  pre->colBegin = newArray<int32_t>(pool, numCol + 1);
  pre->colLength = newArray<int32_t>(pool, numCol);
  pre->rowIndex = newArray<int32_t>(pool, numCoef, false);
  pre->matValue = newArray<double>(pool, numCoef, false);
  if (!pre->colBegin || !pre->colLength || !pre->rowIndex || !pre->matValue)
    return IPM_STATUS_OUT_OF_MEMORY;
  if (model->colBegin && model->colLength)
    copyMatrix(numCol, model->colBegin, model->colLength, model->rowIndex, model->matValue,
               pre->colBegin, pre->colLength, pre->rowIndex, pre->matValue);

  if (model->numQuadCoef > 0) {
    int32_t numQuad = liveCount(numCol, model->quadColLength);
    if (model->numQuadCoef > numQuad) numQuad = model->numQuadCoef;
    pre->quadRowBegin = newArray<int32_t>(pool, numCol + 1);
    pre->quadRowLength = newArray<int32_t>(pool, numCol);
    pre->quadColIndex = newArray<int32_t>(pool, numQuad, false);
    pre->quadRowMatValue = newArray<double>(pool, numQuad, false);
    if (!pre->quadRowBegin || !pre->quadRowLength || !pre->quadColIndex || !pre->quadRowMatValue)
      return IPM_STATUS_OUT_OF_MEMORY;
    toggleMatrixWithLength(numCol, numCol, nullptr, model->quadColBegin, model->quadColLength,
                           model->quadRowIndex, model->quadMatValue, pre->quadRowBegin,
                           pre->quadRowLength, pre->quadColIndex, pre->quadRowMatValue);
    status = verifyRowMatrix(env, option->verifyLevel, numCol, numCol, model->numQuadCoef,
                             nullptr, nullptr, model->quadColBegin, model->quadColLength,
                             model->quadRowIndex, model->quadMatValue, pre->quadRowBegin,
                             pre->quadRowLength, pre->quadColIndex, pre->quadRowMatValue);
    if (status) return status;
    pre->quadColBegin = newArray<int32_t>(pool, numCol + 1);
    pre->quadColLength = newArray<int32_t>(pool, numCol);
    pre->quadRowIndex = newArray<int32_t>(pool, numQuad, false);
    pre->quadMatValue = newArray<double>(pool, numQuad, false);
    if (!pre->quadColBegin || !pre->quadColLength || !pre->quadRowIndex || !pre->quadMatValue)
      return IPM_STATUS_OUT_OF_MEMORY;
    if (model->quadColBegin && model->quadColLength)
      copyMatrix(numCol, model->quadColBegin, model->quadColLength, model->quadRowIndex,
                 model->quadMatValue, pre->quadColBegin, pre->quadColLength, pre->quadRowIndex,
                 pre->quadMatValue);
  }

  pre->rowSense = newArray<char>(pool, numRow, false);
  pre->rhs = newArray<double>(pool, numRow, false);
  pre->obj = newArray<double>(pool, numCol, false);
  pre->rowMap = newArray<int32_t>(pool, numRow);
  pre->colMap = newArray<int32_t>(pool, numCol);
  pre->lowerBound = newArray<double>(pool, numCol, false);
  pre->upperBound = newArray<double>(pool, numCol, false);
  pre->lbMap = newArray<int32_t>(pool, numCol, false);
  pre->ubMap = newArray<int32_t>(pool, numCol, false);
  if (!pre->rowSense || !pre->rhs || !pre->obj || !pre->rowMap || !pre->colMap ||
      !pre->lowerBound || !pre->upperBound || !pre->lbMap || !pre->ubMap)
    return IPM_STATUS_OUT_OF_MEMORY;
  for (int32_t i = 0; i < numRow; i++) {
    pre->rowSense[i] = model->rowSense[i];
    pre->rhs[i] = model->rhs[i];
  }
  // A bound at exactly plus or minus infinity means none, but the activity
  // tests count a lower bound of exactly -infinity on a negative entry as a
  // number.  Summed in, 1e20 would wipe out every digit of the bounds that
  // the row implies, so the working copies keep "none" beyond infinity,
  // where every test reads it as none.
  const double inf = option->infinity;
  for (int32_t j = 0; j < numCol; j++) {
    pre->obj[j] = model->obj[j];
    const double lower = model->lower[j], upper = model->upper[j];
    pre->lowerBound[j] = lower <= -inf && lower > -2.0 * inf ? -2.0 * inf : lower;
    pre->upperBound[j] = upper >= inf && upper < 2.0 * inf ? 2.0 * inf : upper;
    pre->lbMap[j] = -1;
    pre->ubMap[j] = -1;
  }

  pre->rowDone = newArray<int32_t>(pool, numRow);
  pre->colDone = newArray<int32_t>(pool, numCol);
  pre->spec = newArray<int32_t>(pool, numCol, false);
  if (!pre->rowDone || !pre->colDone || !pre->spec) return IPM_STATUS_OUT_OF_MEMORY;
  return 0;
}

void FreePresolver(HalvexEnv* env, presolver* pre) {
  if (!pre) return;
  QVPool* pool = env->pool;
  poolRelease(pool, pre->colBegin);
  poolRelease(pool, pre->colLength);
  poolRelease(pool, pre->rowIndex);
  poolRelease(pool, pre->matValue);
  poolRelease(pool, pre->quadColBegin);
  poolRelease(pool, pre->quadColLength);
  poolRelease(pool, pre->quadRowIndex);
  poolRelease(pool, pre->quadMatValue);
  poolRelease(pool, pre->quadRowBegin);
  poolRelease(pool, pre->quadRowLength);
  poolRelease(pool, pre->quadColIndex);
  poolRelease(pool, pre->quadRowMatValue);
  poolRelease(pool, pre->rowSense);
  poolRelease(pool, pre->rowDone);
  poolRelease(pool, pre->colDone);
  // The equation solver back-substitutes through the row copy and rhs.
  if (pre->numPostdet <= 0) {
    poolRelease(pool, pre->rowBegin);
    poolRelease(pool, pre->rowLength);
    poolRelease(pool, pre->colIndex);
    poolRelease(pool, pre->rowMatValue);
    poolRelease(pool, pre->rhs);
  }
}

void DestroyPresolver(HalvexEnv* env, ipmModel* model, presolver* pre) {
  if (!pre) return;
  FreePresolver(env, pre);
  QVPool* pool = env->pool;
  // With bounds-only presolve the relaxation flags were made on the caller's
  // model.  The postsolve drops them; when a stage failed before it, this is
  // the last chance.
  if (pre->preControl == PRECONTROL_BOUND && model && !pre->inModel && pre->relaxMade &&
      model->relaxColBound == pre->relaxMade) {
    poolRelease(pool, model->relaxColBound);
    pre->relaxMade = nullptr;
  }
  poolRelease(pool, pre->rowBegin);
  poolRelease(pool, pre->rowLength);
  poolRelease(pool, pre->colIndex);
  poolRelease(pool, pre->rowMatValue);
  poolRelease(pool, pre->rhs);
  poolRelease(pool, pre->obj);
  poolRelease(pool, pre->lowerBound);
  poolRelease(pool, pre->upperBound);
  poolRelease(pool, pre->rowMap);
  poolRelease(pool, pre->colMap);
  poolRelease(pool, pre->lbMap);
  poolRelease(pool, pre->ubMap);
  poolRelease(pool, pre->shiftValue);
  poolRelease(pool, pre->shiftStatus);
  poolRelease(pool, pre->spec);
  poolFree(pool, pre);
}

void setMapping(HalvexEnv* /*env*/, ipmModel* model, presolver* pre) {
  int32_t gaps = 0;
  for (int32_t i = 0; i < model->numRow; i++) {
    if (pre->rowMap[i] < 0)
      gaps++;
    else
      pre->rowMap[i] = i - gaps;
  }
  gaps = 0;
  for (int32_t j = 0; j < model->numCol; j++) {
    if (pre->colMap[j] < 0)
      gaps++;
    else
      pre->colMap[j] = j - gaps;
  }
}

void adjustBound(HalvexEnv* /*env*/, ipmModel* model, presolver* pre) {
  for (int32_t j = 0; j < model->numCol; j++) {
    double t = model->lower[j];
    model->lower[j] = pre->lowerBound[j];
    pre->lowerBound[j] = t;
    t = model->upper[j];
    model->upper[j] = pre->upperBound[j];
    pre->upperBound[j] = t;
  }
}


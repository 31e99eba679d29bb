// The starting point's routes for models with big data: the marked rows or
// columns are left out of the least-squares system, which then has a pattern
// of its own and goes through the equation solver, and their slacks or duals
// are set afterwards from the sub-model's copies.
#include <math.h>

#include "frame/qv.h"
#include "ipm/init_internal.h"
#include "ipm/submodel.h"
#include "presolve/eqnsolve.h"
#include "util/sparse.h"
#include "verify/verify.h"

namespace {

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }

void logText(const Ipm* ipm, const char* format, int32_t a, int32_t b) {
  if (ipm->env && ipm->env->textLog) ipm->env->textLog(format, a, b);
}

// The sub-model's map covers the model as it was when the sub-model was
// made; rows or columns removed since carry other negative codes and are
// dropped here.  *out is the map to use, *owned what to free.
int32_t compactMap(const Ipm* ipm, const int32_t* map, int32_t subCount, int32_t count,
                   const char* message, int32_t** out, int32_t** owned) {
  *owned = nullptr;
  *out = const_cast<int32_t*>(map);
  if (subCount == count) return 0;
  int32_t* compact = poolNew<int32_t>(ipm->env->pool, subCount > 0 ? subCount : 1, false);
  if (!compact) return IPM_STATUS_OUT_OF_MEMORY;
  int32_t kept = 0;
  for (int32_t k = 0; k < subCount; k++)
    if (map[k] >= 0 || map[k] == -1) compact[kept++] = map[k];
  if (kept != count) {
    logText(ipm, message, count, kept);
    poolFree(ipm->env->pool, compact);
    return IPM_STATUS_FAILED;
  }
  *out = compact;
  *owned = compact;
  return 0;
}

bool differs(double a, double b) {
  const double scale = fabs(b) > 1.0 ? fabs(b) : 1.0;
  return fabs(a - b) > scale * 1e-8;
}

}  // namespace

int32_t initPrimalPartial(Ipm* ipm, subModel* sub) {
  int32_t *rowMap, *owned;
  int32_t status = compactMap(ipm, sub->rhsMapSub, sub->numRow, ipm->numRow,
                              "Error lpPrimalPartial: numRow should be %d, but counted as %d",
                              &rowMap, &owned);
  if (status) return status;
  const int32_t n = ipm->numCol;
  const int32_t numMapped = sub->numRow - sub->numRhsBigAll;
  if (owned) status = VerifyInitRowMap(ipm->env, ipm->verifyLevel, sub, rowMap, ipm->numRow);
  if (status == 0) {
    createAugmentMatrixPartial(ipm, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                               ipm->varBndDiagIndex, ipm->ineqnDiagIndex, nullptr, n, rowMap,
                               numMapped);
    status = VerifyAugValue(ipm, ipm->verifyLevel, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                            nullptr, n, rowMap, numMapped);
  }
  if (status) {
    if (owned) poolFree(ipm->env->pool, owned);
    return status;
  }
  hideBigBounds(ipm, sub, true);
  primalColumnBlock(ipm);
  for (int32_t i = 0; i < ipm->numRow; i++) {
    const int32_t r = rowMap[i];
    if (r < 0) continue;
    ipm->vecRhs[n + r] = -ipm->rhs[i];
    const bool tight = ipm->rowSense[i] == 'E' && fabs(ipm->rhs[i]) < sub->thresholdBig;
    ipm->kktValue[ipm->ineqnDiagIndex[r]] = tight ? 0.0 : 1.0;
  }
  status = eqnSolve(ipm->infinity, ipm->primalTol, ipm->env, n + numMapped, n, ipm->numThreads,
                    ipm->kktBegin, ipm->kktIndex, ipm->kktValue, ipm->vecRhs, nullptr,
                    ipm->verifyLevel, 0);
  if (status) {
    hideBigBounds(ipm, sub, false);
    if (owned) poolFree(ipm->env->pool, owned);
    return status;
  }
  double least = 1e+20;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    const double x = ipm->vecRhs[j];
    ipm->solPrimal[j] = x;
    ipm->upperSlack[j] = hasUpper(type) ? ipm->upper[j] - x : 0.0;
    ipm->lowerSlack[j] = hasLower(type) ? x - ipm->lower[j] : 0.0;
    if (hasUpper(type) && ipm->upperSlack[j] < least) least = ipm->upperSlack[j];
    if (hasLower(type) && ipm->lowerSlack[j] < least) least = ipm->lowerSlack[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    const int32_t r = rowMap[i];
    if (ipm->rowSense[i] == 'E' || r < 0) {
      ipm->ineqnSlack[i] = 0.0;
      continue;
    }
    ipm->ineqnSlack[i] = ipm->vecRhs[n + r];
    if (ipm->ineqnSlack[i] < least) least = ipm->ineqnSlack[i];
  }
  if (owned) poolFree(ipm->env->pool, owned);
  hideBigBounds(ipm, sub, false);

  const bool check = ipm->verifyLevel > 0;
  if (check)
    matrixTimesVector(ipm->numRow, n, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                      ipm->matValue, ipm->solPrimal, ipm->scratchA);
  for (int32_t k = 0; k < sub->numRhsBigAll; k++) {
    const int32_t i = mapped(sub->rowMapSub, sub->idxRowSub[k]);
    if (i < 0 || ipm->rowSense[i] == 'E') continue;
    double activity = 0.0;
    for (int32_t p = sub->rowBeginSub[k]; p < sub->rowBeginSub[k] + sub->rowLengthSub[k]; p++) {
      const int32_t j = mapped(sub->colMapSub, sub->colIndexSub[p]);
      if (j >= 0) activity += sub->rowMatValueSub[p] * ipm->solPrimal[j];
    }
    if (ipm->rowSense[i] == 'G') {
      ipm->ineqnSlack[i] = activity - ipm->rhs[i];
    } else if (ipm->rowSense[i] == 'L') {
      ipm->ineqnSlack[i] = ipm->rhs[i] - activity;
    } else if (ipm->env->textLog) {
      ipm->env->textLog("Error lpAdjustIgnoredRow: unknown row sense(%d) = %c", i,
                        ipm->rowSense[i]);
    }
    if (check && differs(activity, ipm->scratchA[i]) && ipm->env->textLog)
      ipm->env->textLog("Error lpAdjustIgnoredRow: row %d  activity=%15.7g <> calculated=%15.7g",
                        i, activity, ipm->scratchA[i]);
  }
  if (check)
    for (int32_t i = 0; i < ipm->numRow; i++) ipm->scratchA[i] = 0.0;
  adjustSolPrimal(ipm, sub, least);
  return 0;
}

int32_t lpInitDualPartial(Ipm* ipm, subModel* sub) {
  int32_t *colMap, *owned;
  int32_t status = compactMap(ipm, sub->objMapSub, sub->numCol, ipm->numCol,
                              "Error lpDualPartial: numCol should be %d, but counted as %d",
                              &colMap, &owned);
  if (status) return status;
  const int32_t n = ipm->numCol, m = ipm->numRow;
  const int32_t numMapped = sub->numCol - sub->numObjBigAll;
  if (owned) status = VerifyInitColMap(ipm->env, ipm->verifyLevel, sub, colMap, ipm->numCol);
  if (status == 0) {
    createAugmentMatrixPartial(ipm, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                               ipm->varBndDiagIndex, ipm->ineqnDiagIndex, colMap, numMapped,
                               nullptr, m);
    status = VerifyAugValue(ipm, ipm->verifyLevel, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                            colMap, numMapped, nullptr, m);
  }
  if (status) {
    if (owned) poolFree(ipm->env->pool, owned);
    return status;
  }
  for (int32_t j = 0; j < n; j++) {
    const int32_t c = colMap[j];
    if (c < 0) continue;
    const uint8_t type = ipm->varBndType[j];
    double diag = (hasLower(type) ? 1.0 : 0.0) + (hasUpper(type) ? 1.0 : 0.0);
    if (diag == 0.0) diag = fabs(ipm->obj[j]) >= sub->thresholdBig ? 1.0 : 0.0;
    ipm->kktValue[ipm->varBndDiagIndex[c]] = diag;
    ipm->vecRhs[c] = -ipm->obj[j];
  }
  for (int32_t i = 0; i < m; i++) {
    ipm->vecRhs[numMapped + i] = 0.0;
    ipm->kktValue[ipm->ineqnDiagIndex[i]] = ipm->rowSense[i] == 'E' ? 0.0 : -1.0;
  }
  // The leading block of this system is the mapped columns, not all of them.
  status = eqnSolve(ipm->infinity, ipm->dualTol, ipm->env, numMapped + m, numMapped,
                    ipm->numThreads, ipm->kktBegin, ipm->kktIndex, ipm->kktValue, ipm->vecRhs,
                    nullptr, ipm->verifyLevel, 0);
  if (status) {
    if (owned) poolFree(ipm->env->pool, owned);
    return status;
  }
  double least = 1e+20;
  for (int32_t j = 0; j < n; j++) {
    const int32_t c = colMap[j];
    const uint8_t type = ipm->varBndType[j];
    const double v = c >= 0 ? ipm->vecRhs[c] : 0.0;
    ipm->upperDual[j] = c >= 0 && hasUpper(type) ? v : 0.0;
    ipm->lowerDual[j] = c >= 0 && hasLower(type) ? -v : 0.0;
    if (c < 0) continue;
    if (hasUpper(type) && ipm->upperDual[j] < least) least = ipm->upperDual[j];
    if (hasLower(type) && ipm->lowerDual[j] < least) least = ipm->lowerDual[j];
  }
  for (int32_t i = 0; i < m; i++) {
    ipm->solDual[i] = ipm->vecRhs[numMapped + i];
    if (ipm->rowSense[i] != 'E' && ipm->solDual[i] < least) least = ipm->solDual[i];
  }
  if (owned) poolFree(ipm->env->pool, owned);

  const bool check = ipm->verifyLevel > 0;
  if (check)
    vectorTimesMatrix(n, ipm->colBegin, ipm->colLength, ipm->rowIndex, ipm->matValue,
                      ipm->solDual, ipm->scratchA);
  for (int32_t k = 0; k < sub->numObjBigAll; k++) {
    const int32_t j = mapped(sub->colMapSub, sub->idxColSub[k]);
    if (j < 0) continue;
    double activity = 0.0;
    for (int32_t p = sub->colBeginSub[k]; p < sub->colBeginSub[k] + sub->colLengthSub[k]; p++) {
      const int32_t i = mapped(sub->rowMapSub, sub->rowIndexSub[p]);
      if (i >= 0) activity += sub->matValueSub[p] * ipm->solDual[i];
    }
    if (check && differs(activity, ipm->scratchA[j]) && ipm->env->textLog)
      ipm->env->textLog("Error lpAdjustIgnoredCol: col %d  activity=%15.7g <> calculated=%15.7g",
                        j, activity, ipm->scratchA[j]);
    // Duals that make the column's dual residual vanish, kept well inside.
    const double d = ipm->obj[j] - activity;
    const uint8_t type = ipm->varBndType[j];
    if (hasLower(type) && hasUpper(type)) {
      ipm->lowerDual[j] = d < 0.0 ? 100.0 : d + 100.0;
      ipm->upperDual[j] = d < 0.0 ? 100.0 - d : 100.0;
    } else if (hasLower(type)) {
      ipm->lowerDual[j] = d;
    } else if (hasUpper(type)) {
      ipm->upperDual[j] = -d;
    }
  }
  if (check)
    for (int32_t j = 0; j < n; j++) ipm->scratchA[j] = 0.0;
  if (least <= 1e-10) {
    shiftDuals(ipm, least);
    return 0;
  }
  // Indexed by the list position, not by the column the entry names: that
  // is how this branch has always behaved, and a negative dual at a left-out
  // column may thus reach the first iteration.
  for (int32_t k = 0; k < sub->numObjBigAll && k < n; k++) {
    if (mapped(sub->colMapSub, sub->idxColSub[k]) < 0) continue;
    const uint8_t type = ipm->varBndType[k];
    if (hasLower(type) && ipm->lowerDual[k] < 1e-10) ipm->lowerDual[k] = 100.0;
    if (hasUpper(type) && ipm->upperDual[k] < 1e-10) ipm->upperDual[k] = 100.0;
  }
  return 0;
}

// The augmented matrix [H -A'; -A D]: its two layouts, the subset form of
// the starting point, and the per-iteration refresh of its diagonal.
#include <math.h>

#include "frame/qv.h"
#include "ipm/ipm.h"
#include "util/sparse.h"
#include "verify/verify.h"

void createAugmentMatrix(int32_t numRow, int32_t numCol, const int32_t* colBegin,
                         const int32_t* colLength, const int32_t* rowIndex,
                         const double* matValue, int32_t* outBegin, int32_t* outIndex,
                         double* outValue, int32_t* outColDiag, int32_t* outRowDiag) {
  int32_t pos = 0;
  for (int32_t j = 0; j < numCol; j++) {
    outBegin[j] = pos;
    outColDiag[j] = pos;
    outIndex[pos] = j;
    outValue[pos++] = 0.0;
    const int32_t end = colBegin[j] + colLength[j];
    for (int32_t k = colBegin[j]; k < end; k++) {
      outIndex[pos] = numCol + rowIndex[k];
      outValue[pos++] = -matValue[k];
    }
  }
  outBegin[numCol] = pos;
  augmentMatrix(numCol + numRow, numCol, outBegin, outIndex, outValue);
  for (int32_t i = 0; i < numRow; i++) outRowDiag[i] = outBegin[numCol + i + 1] - 1;
}

int32_t createAugmentMatrixQP(HalvexEnv* env, int32_t numRow, int32_t numCol, int32_t numCoef,
                              int32_t numQuadCoef, const int32_t* colBegin,
                              const int32_t* colLength, const int32_t* rowIndex,
                              const double* matValue, const int32_t* quadColBegin,
                              const int32_t* quadColLength, const int32_t* quadRowIndex,
                              const double* quadMatValue, int32_t* outBegin, int32_t* outIndex,
                              double* outValue, int32_t* outColDiag, int32_t* outRowDiag) {
  QVPool* pool = env->pool;
  int32_t* aBegin = poolNew<int32_t>(pool, (int64_t)numRow + 1, false);
  int32_t* aLength = poolNew<int32_t>(pool, numRow > 0 ? numRow : 1, false);
  int32_t* aIndex = poolNew<int32_t>(pool, numCoef > 0 ? numCoef : 1, false);
  double* aValue = poolNew<double>(pool, numCoef > 0 ? numCoef : 1, false);
  int32_t* qBegin = poolNew<int32_t>(pool, (int64_t)numCol + 1, false);
  int32_t* qLength = poolNew<int32_t>(pool, numCol > 0 ? numCol : 1, false);
  int32_t* qIndex = poolNew<int32_t>(pool, numQuadCoef > 0 ? numQuadCoef : 1, false);
  double* qValue = poolNew<double>(pool, numQuadCoef > 0 ? numQuadCoef : 1, false);
  int32_t status = 0;
  if (!aBegin || !aLength || !aIndex || !aValue || !qBegin || !qLength || !qIndex || !qValue) {
    status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    toggleMatrixWithLength(numCol, numRow, nullptr, colBegin, colLength, rowIndex, matValue,
                           aBegin, aLength, aIndex, aValue);
    toggleMatrixWithLength(numCol, numCol, nullptr, quadColBegin, quadColLength, quadRowIndex,
                           quadMatValue, qBegin, qLength, qIndex, qValue);
    int32_t pos = 0;
    for (int32_t j = 0; j < numCol; j++) {
      outBegin[j] = pos;
      for (int32_t k = qBegin[j]; k < qBegin[j] + qLength[j]; k++) {
        outIndex[pos] = qIndex[k];
        outValue[pos++] = qValue[k];
      }
      outColDiag[j] = pos;
      outIndex[pos] = j;
      outValue[pos++] = 0.0;
      const int32_t qEnd = quadColBegin[j] + quadColLength[j];
      for (int32_t k = quadColBegin[j]; k < qEnd; k++) {
        outIndex[pos] = quadRowIndex[k];
        outValue[pos++] = quadMatValue[k];
      }
      const int32_t end = colBegin[j] + colLength[j];
      for (int32_t k = colBegin[j]; k < end; k++) {
        outIndex[pos] = numCol + rowIndex[k];
        outValue[pos++] = -matValue[k];
      }
    }
    for (int32_t i = 0; i < numRow; i++) {
      outBegin[numCol + i] = pos;
      for (int32_t k = aBegin[i]; k < aBegin[i] + aLength[i]; k++) {
        outIndex[pos] = aIndex[k];
        outValue[pos++] = -aValue[k];
      }
      outRowDiag[i] = pos;
      outIndex[pos] = numCol + i;
      outValue[pos++] = 0.0;
    }
    outBegin[numCol + numRow] = pos;
  }
  if (aBegin) poolFree(pool, aBegin);
  if (aLength) poolFree(pool, aLength);
  if (aIndex) poolFree(pool, aIndex);
  if (aValue) poolFree(pool, aValue);
  if (qBegin) poolFree(pool, qBegin);
  if (qLength) poolFree(pool, qLength);
  if (qIndex) poolFree(pool, qIndex);
  if (qValue) poolFree(pool, qValue);
  return status;
}

void createAugmentMatrixPartial(Ipm* ipm, int32_t* outBegin, int32_t* outIndex,
                                double* outValue, int32_t* outColDiag, int32_t* outRowDiag,
                                const int32_t* colMap, int32_t numMappedCol,
                                const int32_t* rowMap, int32_t numMappedRow) {
  if (!colMap) numMappedCol = ipm->numCol;
  if (!rowMap) numMappedRow = ipm->numRow;
  // The maps number their kept items in ascending order, so walking the
  // columns in order writes the new columns in order too.
  int32_t pos = 0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const int32_t c = colMap ? colMap[j] : j;
    if (c < 0) continue;
    outBegin[c] = pos;
    outColDiag[c] = pos;
    outIndex[pos] = c;
    outValue[pos++] = 0.0;
    const int32_t end = ipm->colBegin[j] + ipm->colLength[j];
    for (int32_t k = ipm->colBegin[j]; k < end; k++) {
      const int32_t i = ipm->rowIndex[k];
      const int32_t r = rowMap ? rowMap[i] : i;
      if (r < 0) continue;
      outIndex[pos] = r + numMappedCol;
      outValue[pos++] = -ipm->matValue[k];
    }
  }
  outBegin[numMappedCol] = pos;
  augmentMatrix(numMappedCol + numMappedRow, numMappedCol, outBegin, outIndex, outValue);
  for (int32_t r = 0; r < numMappedRow; r++) outRowDiag[r] = outBegin[numMappedCol + r + 1] - 1;
}

int32_t ipmInitAugmat(Ipm* ipm, int32_t useQuad) {
  if (ipm->LDL_factor && ipm->LDL_memory) return 0;
  if (ipm->modelType == IPM_MODEL_QP && ipm->numQuadCoef > 0 && useQuad == 1) {
    int32_t status = createAugmentMatrixQP(
        ipm->env, ipm->numRow, ipm->numCol, ipm->numCoef, ipm->numQuadCoef, ipm->colBegin,
        ipm->colLength, ipm->rowIndex, ipm->matValue, ipm->quadColBegin, ipm->quadColLength,
        ipm->quadRowIndex, ipm->quadMatValue, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
        ipm->varBndDiagIndex, ipm->ineqnDiagIndex);
    if (status) return status;
  } else {
    createAugmentMatrix(ipm->numRow, ipm->numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                        ipm->matValue, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                        ipm->varBndDiagIndex, ipm->ineqnDiagIndex);
  }
  // One handle without the other is a leftover of an earlier pattern.
  ldlCleanUp(ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
  int32_t status = ldlAnalyze(ipm->env, ipm->numDim, ipm->kktBegin, ipm->kktIndex, ipm->kktValue,
                              ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
  if (status) return status;
  if (ipm->verifyLevel) {
    if ((status = VerifyKKTmatrix(ipm, ipm->verifyLevel)) != 0) return status;
    if ((status = VerifyIneqnEnv(ipm, ipm->verifyLevel)) != 0) return status;
    if ((status = VerifyBoundEnv(ipm, ipm->verifyLevel)) != 0) return status;
    if ((status = VerifySymMatrix(ipm->env, ipm->verifyLevel, ipm->numDim,
                                  ipm->kktBegin[ipm->numDim], nullptr, ipm->kktBegin, nullptr,
                                  ipm->kktIndex, ipm->kktValue)) != 0)
      return status;
    if ((status = VerifyAugValue(ipm, ipm->verifyLevel, ipm->kktBegin, ipm->kktIndex,
                                 ipm->kktValue, nullptr, ipm->numCol, nullptr, ipm->numRow)) != 0)
      return status;
  }
  return 0;
}

namespace {

inline void trackMin(double v, double* least) {
  const double a = fabs(v);
  if (a != 0.0 && a < *least) *least = a;
}

}  // namespace

void computeAugmentDiag(Ipm* ipm) {
  double* value = ipm->kktValue;
  const uint8_t* type = ipm->varBndType;
  double colMin = 1e+20, rowMin = 1e+20;
  const bool quad = ipm->modelType == IPM_MODEL_QP && ipm->quadDiag;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    double h = quad ? ipm->quadDiag[j] : 0.0;
    if (type[j] & VARBND_UPPER) h += ipm->upperDual[j] / ipm->upperSlack[j];
    if (type[j] & (VARBND_LOWER | VARBND_LOWER_ZERO)) h += ipm->lowerDual[j] / ipm->lowerSlack[j];
    value[ipm->varBndDiagIndex[j]] = h;
    trackMin(h, &colMin);
  }
  if (ipm->numRow * ipm->densityRatio < ipm->numIneqn) {
    for (int32_t i = 0; i < ipm->numRow; i++) {
      if (ipm->rowSense[i] != 'G') continue;
      const double d = -ipm->ineqnSlack[i] / ipm->solDual[i];
      value[ipm->ineqnDiagIndex[i]] = d;
      trackMin(d, &rowMin);
    }
  } else {
    for (int32_t k = 0; k < ipm->numIneqn; k++) {
      const int32_t i = ipm->ineqnIndex[k];
      const double d = -ipm->ineqnSlack[i] / ipm->solDual[i];
      value[ipm->ineqnDiagIndex[i]] = d;
      trackMin(d, &rowMin);
    }
  }
  double reg = colMin < rowMin ? colMin : rowMin;
  if (reg > 1e-10) reg = 1e-10;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    double* v = &value[ipm->varBndDiagIndex[j]];
    if (*v > -reg && *v < reg) *v = reg;
  }
  // An equation row's diagonal is 0 before the fill-in, every iteration: the
  // value left from the last pass may be a larger reg than today's.
  for (int32_t i = 0; i < ipm->numRow; i++) {
    double* v = &value[ipm->ineqnDiagIndex[i]];
    if (ipm->rowSense[i] != 'G') *v = 0.0;
    if (*v > -reg && *v < reg) *v = -reg;
  }
}

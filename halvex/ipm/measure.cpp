// Residuals, gap and complementarity of a point, in one pass over the matrix;
// the predictor's right side falls out on the way.
#include <math.h>

#include "frame/qv.h"
#include "ipm/ipm.h"

namespace {

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }

// Adds |a b| to the sum and keeps the largest small/large ratio of the pairs
// whose smaller member has not yet gone to zero.
inline void accountPair(double a, double b, double* compl_, double* ratio) {
  *compl_ += fabs(a * b);
  if (!ratio) return;
  const double fa = fabs(a), fb = fabs(b);
  const double small = fa < fb ? fa : fb;
  const double large = fa < fb ? fb : fa;
  if (small > 1e-06 && small / large >= *ratio) *ratio = small / large;
}

// Subtracts Qx from g (numCol entries) and returns 1/2 x'Qx.
double applyQuad(const Ipm* ipm, const double* x, double* g) {
  double quad = 0.0;
  const int32_t n = ipm->numCol;
  if (ipm->quadDiag)
    for (int32_t j = 0; j < n; j++) {
      g[j] -= ipm->quadDiag[j] * x[j];
      quad += 0.5 * ipm->quadDiag[j] * x[j] * x[j];
    }
  if (ipm->numQuadCoef > 0 && ipm->quadColBegin && ipm->quadColLength)
    for (int32_t j = 0; j < n; j++) {
      const int32_t end = ipm->quadColBegin[j] + ipm->quadColLength[j];
      for (int32_t k = ipm->quadColBegin[j]; k < end; k++) {
        const int32_t i = ipm->quadRowIndex[k];
        const double q = ipm->quadMatValue[k];
        g[j] -= q * x[i];
        g[i] -= q * x[j];
        quad += x[j] * q * x[i];
      }
    }
  return quad;
}

}  // namespace

void computeMeasurement(Ipm* ipm) {
  const int32_t n = ipm->numCol, m = ipm->numRow;
  double* rhsCol = ipm->vecRhs;
  double* rhsRow = ipm->vecRhs + n;
  const double* x = ipm->solPrimal;
  const double* y = ipm->solDual;
  for (int32_t i = 0; i < m; i++) rhsRow[i] = -ipm->rhs[i];
  for (int32_t j = 0; j < n; j++) rhsCol[j] = -ipm->obj[j];
  double objPrimal = 0.0, objDual = 0.0;
  if (ipm->modelType == IPM_MODEL_QP) {
    const double quad = applyQuad(ipm, x, rhsCol);
    objPrimal = quad;
    objDual = -quad;
  }
  double compl_ = 0.0, ratio = 0.0, dualSum = 0.0, boundSum = 0.0, primalSum = 0.0;
  for (int32_t j = 0; j < n; j++) {
    double g = rhsCol[j];
    const double xj = x[j];
    const int32_t end = ipm->colBegin[j] + ipm->colLength[j];
    for (int32_t k = ipm->colBegin[j]; k < end; k++) {
      const int32_t i = ipm->rowIndex[k];
      const double a = ipm->matValue[k];
      rhsRow[i] += a * xj;
      g += a * y[i];
    }
    double r = g, t = g;
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type)) {
      const double u = ipm->upper[j], su = ipm->upperSlack[j], zu = ipm->upperDual[j];
      r -= zu;
      t -= (1.0 - (u - xj) / su) * zu;
      objDual -= u * zu;
      const double e = (u - xj) - su;
      boundSum += e * e;
      accountPair(zu, su, &compl_, &ratio);
    }
    if (hasLower(type)) {
      const double l = ipm->lower[j], sl = ipm->lowerSlack[j], zl = ipm->lowerDual[j];
      r += zl;
      t += (1.0 - (xj - l) / sl) * zl;
      objDual += l * zl;
      const double e = (xj - l) - sl;
      boundSum += e * e;
      accountPair(zl, sl, &compl_, &ratio);
    }
    rhsCol[j] = t;
    dualSum += r * r;
    objPrimal += ipm->obj[j] * xj;
  }
  for (int32_t i = 0; i < m; i++) {
    const double e = rhsRow[i] - ipm->ineqnSlack[i];
    primalSum += e * e;
    objDual += ipm->rhs[i] * y[i];
  }
  for (int32_t k = 0; k < ipm->numIneqn; k++) {
    const int32_t i = ipm->ineqnIndex[k];
    accountPair(ipm->ineqnSlack[i], y[i], &compl_, &ratio);
  }
  ipm->complRatio = ratio;
  ipm->objValuePrimal = objPrimal;
  ipm->objValueDual = objDual;
  ipm->primalInfeas = sqrt(primalSum) / (ipm->normRhs + 1.0);
  ipm->dualInfeas = sqrt(dualSum) / (ipm->normObj + 1.0);
  ipm->boundInfeas = sqrt(boundSum) / (ipm->normLower + 1.0 + ipm->normUpper);
  ipm->complementarity = compl_;
  // Models without any pair are solved elsewhere; should one arrive, mu 0
  // stops it at the floor rather than turning every later test into NaN.
  ipm->mu = ipm->numComplement > 0 ? compl_ / ipm->numComplement : 0.0;
  ipm->dualityGap = fabs(objPrimal - objDual) / (fabs(objPrimal) + 1.0);
}

int32_t computeMeasurementReset(Ipm* ipm, const double* x, const double* y,
                                const double* ineqnSlack, const double* lowerSlack,
                                const double* lowerDual, const double* upperSlack,
                                const double* upperDual, double* primalInfeas,
                                double* dualInfeas, double* boundInfeas, double* dualityGap,
                                double* complementarity) {
  const int32_t n = ipm->numCol, m = ipm->numRow;
  QVPool* pool = ipm->env->pool;
  double* row = poolNew<double>(pool, m > 0 ? m : 1, false);
  double* col = poolNew<double>(pool, n > 0 ? n : 1, false);
  if (!row || !col) {
    if (row) poolFree(pool, row);
    if (col) poolFree(pool, col);
    return IPM_STATUS_OUT_OF_MEMORY;
  }
  for (int32_t i = 0; i < m; i++) row[i] = -ipm->rhs[i];
  for (int32_t j = 0; j < n; j++) col[j] = -ipm->obj[j];
  double objPrimal = 0.0, objDual = 0.0;
  if (ipm->modelType == IPM_MODEL_QP) {
    const double quad = applyQuad(ipm, x, col);
    objPrimal = quad;
    objDual = -quad;
  }
  double compl_ = 0.0, dualSum = 0.0, boundSum = 0.0, primalSum = 0.0;
  for (int32_t j = 0; j < n; j++) {
    double g = col[j];
    const int32_t end = ipm->colBegin[j] + ipm->colLength[j];
    for (int32_t k = ipm->colBegin[j]; k < end; k++) {
      row[ipm->rowIndex[k]] += ipm->matValue[k] * x[j];
      g += ipm->matValue[k] * y[ipm->rowIndex[k]];
    }
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type)) {
      g -= upperDual[j];
      objDual -= ipm->upper[j] * upperDual[j];
      const double e = (ipm->upper[j] - x[j]) - upperSlack[j];
      boundSum += e * e;
      accountPair(upperDual[j], upperSlack[j], &compl_, nullptr);
    }
    if (hasLower(type)) {
      g += lowerDual[j];
      objDual += ipm->lower[j] * lowerDual[j];
      const double e = (x[j] - ipm->lower[j]) - lowerSlack[j];
      boundSum += e * e;
      accountPair(lowerDual[j], lowerSlack[j], &compl_, nullptr);
    }
    dualSum += g * g;
    objPrimal += ipm->obj[j] * x[j];
  }
  for (int32_t i = 0; i < m; i++) {
    const double e = row[i] - ineqnSlack[i];
    primalSum += e * e;
    objDual += ipm->rhs[i] * y[i];
    if (ipm->rowSense[i] == 'G') accountPair(ineqnSlack[i], y[i], &compl_, nullptr);
  }
  poolFree(pool, row);
  poolFree(pool, col);
  *primalInfeas = sqrt(primalSum) / (ipm->normRhs + 1.0);
  *dualInfeas = sqrt(dualSum) / (ipm->normObj + 1.0);
  *boundInfeas = sqrt(boundSum) / (ipm->normLower + 1.0 + ipm->normUpper);
  *dualityGap = fabs(objPrimal - objDual) / (fabs(objPrimal) + 1.0);
  *complementarity = compl_;
  return 0;
}

int32_t getSolutionStatus(double primalTol, double dualTol, double gapTol, double complTol,
                          double primalInfeas, double boundInfeas, double dualInfeas,
                          double dualityGap, double complementarity) {
  const bool primalMet = primalInfeas <= primalTol && boundInfeas <= primalTol;
  const bool dualMet = dualInfeas <= dualTol;
  if (primalMet && dualMet && dualityGap <= gapTol && complementarity <= complTol)
    return IPM_STATUS_OPTIMAL;
  if (primalMet && dualMet &&
      (dualityGap < gapTol || complementarity < complTol ||
       (dualityGap < 100.0 * gapTol && complementarity < 100.0 * complTol)))
    return IPM_STATUS_ACCEPTABLE;
  if (!primalMet) return dualMet ? IPM_STATUS_PRIMAL_INFEASIBLE : IPM_STATUS_BOTH_INFEASIBLE;
  if (!dualMet) return IPM_STATUS_DUAL_INFEASIBLE;
  return IPM_STATUS_FAILED;
}

// The starting point: two least-squares solves on the loop's own augmented
// pattern, one for the primal point and one for the dual, then a uniform
// shift into the interior.  Items that the sub-model marks as big are kept
// out of the systems and set afterwards.
#include <math.h>

#include "ipm/init_internal.h"
#include "ipm/submodel.h"
#include "util/sparse.h"
#include "verify/verify.h"

namespace {

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }

// What counts as a big right side or objective when no sub-model marks any.
double bigThreshold(const Ipm* ipm, const subModel* sub) {
  return sub ? sub->thresholdBig : ipm->infinity;
}

// Reads x and the slacks off the primal solve in vecRhs; returns the
// smallest slack over the bounds in force and the inequality rows.
double readPrimal(Ipm* ipm) {
  const int32_t n = ipm->numCol;
  double least = 1e+20;
  for (int32_t j = 0; j < n; j++) {
    const double x = ipm->vecRhs[j];
    const uint8_t type = ipm->varBndType[j];
    ipm->solPrimal[j] = x;
    ipm->upperSlack[j] = hasUpper(type) ? ipm->upper[j] - x : 0.0;
    ipm->lowerSlack[j] = hasLower(type) ? x - ipm->lower[j] : 0.0;
    if (hasUpper(type) && ipm->upperSlack[j] < least) least = ipm->upperSlack[j];
    if (hasLower(type) && ipm->lowerSlack[j] < least) least = ipm->lowerSlack[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (ipm->rowSense[i] == 'E') {
      ipm->ineqnSlack[i] = 0.0;
      continue;
    }
    ipm->ineqnSlack[i] = ipm->vecRhs[n + i];
    if (ipm->ineqnSlack[i] < least) least = ipm->ineqnSlack[i];
  }
  return least;
}

int32_t factorAndSolve(Ipm* ipm) {
  int32_t status = ldlFactorize(ipm->env, ipm->numDim, ipm->kktBegin, ipm->kktIndex,
                                ipm->kktValue, ipm->LA_env, ipm->LDL_factor, ipm->LDL_memory);
  if (status) return status;
  return ldlSolve(ipm->env, ipm->verifyLevel, ipm->numDim, 0, ipm->kktBegin, ipm->kktIndex,
                  ipm->kktValue, ipm->vecRhs, ipm->LA_env, ipm->LDL_factor, ipm->LDL_memory);
}

// Flips the off-diagonal part of the variable block: Q for the loop, -Q for
// the primal start of a QP.
void negateQuadBlock(Ipm* ipm) {
  for (int32_t j = 0; j < ipm->numCol; j++)
    for (int32_t k = ipm->kktBegin[j]; k < ipm->kktBegin[j + 1]; k++) {
      const int32_t i = ipm->kktIndex[k];
      if (i < ipm->numCol && i != j) ipm->kktValue[k] = -ipm->kktValue[k];
    }
}

}  // namespace

int32_t initPrimal(Ipm* ipm, subModel* sub) {
  int32_t status;
  if (!ipm->LDL_factor || !ipm->LDL_memory) {
    if ((status = ipmInitAugmat(ipm, 0)) != 0) return status;
  }
  hideBigBounds(ipm, sub, true);
  const int32_t n = ipm->numCol;
  const double big = bigThreshold(ipm, sub);
  primalColumnBlock(ipm);
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->vecRhs[n + i] = -ipm->rhs[i];
    const bool tightEquation = ipm->rowSense[i] == 'E' && fabs(ipm->rhs[i]) < big;
    ipm->kktValue[ipm->ineqnDiagIndex[i]] = tightEquation ? 0.0 : 1.0;
  }
  status = factorAndSolve(ipm);
  if (status) {
    hideBigBounds(ipm, sub, false);
    return status;
  }
  const double least = readPrimal(ipm);
  if (ipm->verifyLevel) {
    if ((status = VerifyPrimalFeasible(ipm, ipm->verifyLevel)) != 0 ||
        (status = VerifyInitDerivPrimal(ipm, ipm->verifyLevel)) != 0) {
      hideBigBounds(ipm, sub, false);
      return status;
    }
  }
  hideBigBounds(ipm, sub, false);
  adjustSolPrimal(ipm, sub, least);
  return 0;
}

int32_t initDual(Ipm* ipm, subModel* sub) {
  int32_t status;
  if (!ipm->LDL_factor || !ipm->LDL_memory) {
    if ((status = ipmInitAugmat(ipm, 0)) != 0) return status;
  }
  const int32_t n = ipm->numCol;
  const bool qp = ipm->modelType == IPM_MODEL_QP;
  const double big = bigThreshold(ipm, sub);
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    double diag = (hasLower(type) ? 1.0 : 0.0) + (hasUpper(type) ? 1.0 : 0.0);
    if (diag == 0.0) diag = (qp || fabs(ipm->obj[j]) >= big) ? 1.0 : 0.0;
    ipm->kktValue[ipm->varBndDiagIndex[j]] = diag;
    ipm->vecRhs[j] = -ipm->obj[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->vecRhs[n + i] = 0.0;
    ipm->kktValue[ipm->ineqnDiagIndex[i]] = ipm->rowSense[i] == 'E' ? 0.0 : -1.0;
  }
  if (qp) {
    const bool offDiag = ipm->numQuadCoef > 0;
    if (ipm->quadDiag)
      symmatrixTimesVector(n, offDiag ? ipm->quadColBegin : nullptr,
                           offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                           ipm->quadMatValue, ipm->quadDiag, ipm->solPrimal, ipm->vecRhs, -1.0);
    regMatDiag(n, ipm->numRow, ipm->kktValue, ipm->varBndDiagIndex, ipm->ineqnDiagIndex, 1e-06);
  }
  if ((status = factorAndSolve(ipm)) != 0) return status;
  double least = 1e+20;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    const double v = ipm->vecRhs[j];
    ipm->upperDual[j] = hasUpper(type) ? v : 0.0;
    ipm->lowerDual[j] = hasLower(type) ? -v : 0.0;
    if (hasUpper(type) && ipm->upperDual[j] < least) least = ipm->upperDual[j];
    if (hasLower(type) && ipm->lowerDual[j] < least) least = ipm->lowerDual[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->solDual[i] = ipm->vecRhs[n + i];
    if (ipm->rowSense[i] != 'E' && ipm->solDual[i] < least) least = ipm->solDual[i];
  }
  if (ipm->verifyLevel) {
    if ((status = VerifyDualFeasible(ipm, ipm->verifyLevel)) != 0) return status;
    if ((status = VerifyInitDerivDual(ipm, ipm->verifyLevel)) != 0) return status;
  }
  shiftDuals(ipm, least);
  return 0;
}

int32_t ipmInitLP(Ipm* ipm, subModel* sub) {
  int32_t status;
  if (sub && sub->numRhsBigAll > 0) {
    if ((status = initPrimalPartial(ipm, sub)) != 0) return status;
    if (sub->numObjBigAll < 1) {
      if ((status = initDual(ipm, sub)) != 0) return status;
    } else {
      if ((status = lpInitDualPartial(ipm, sub)) != 0) return status;
      if (ipm->LDL_factor || ipm->LDL_memory) {
        if (ipm->env && ipm->env->textLog)
          ipm->env->textLog(
              "Error ipmInitLP: LDL_factor and LDL_memory should not be initialized.");
        return IPM_STATUS_FAILED;
      }
      if ((status = ipmInitAugmat(ipm, 0)) != 0) return status;
    }
  } else if (sub && sub->numObjBigAll > 0) {
    if ((status = lpInitDualPartial(ipm, sub)) != 0) return status;
    if ((status = initPrimal(ipm, sub)) != 0) return status;
  } else {
    if ((status = initPrimal(ipm, sub)) != 0) return status;
    if ((status = initDual(ipm, sub)) != 0) return status;
  }
  initFinish(ipm);
  return 0;
}

int32_t ipmInitQP(Ipm* ipm, subModel* sub) {
  int32_t status;
  const bool offDiag = ipm->numQuadCoef > 0;
  if (!offDiag) {
    if (!ipm->LDL_factor || !ipm->LDL_memory) {
      if ((status = ipmInitAugmat(ipm, 1)) != 0) return status;
    }
  } else {
    ldlCleanUp(ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
    if ((status = ipmInitAugmat(ipm, 1)) != 0) return status;
    negateQuadBlock(ipm);
  }
  const int32_t n = ipm->numCol;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    double diag = ipm->quadDiag ? -ipm->quadDiag[j] : 0.0;
    double right = ipm->obj[j];
    if (hasLower(type)) {
      diag -= 1.0;
      right -= ipm->lower[j];
    }
    if (hasUpper(type)) {
      diag -= 1.0;
      right -= ipm->upper[j];
    }
    ipm->kktValue[ipm->varBndDiagIndex[j]] = diag;
    ipm->vecRhs[j] = right;
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->vecRhs[n + i] = -ipm->rhs[i];
    ipm->kktValue[ipm->ineqnDiagIndex[i]] = ipm->rowSense[i] == 'E' ? 0.0 : 1.0;
  }
  regMatDiag(n, ipm->numRow, ipm->kktValue, ipm->varBndDiagIndex, ipm->ineqnDiagIndex, 1e-06);
  if ((status = factorAndSolve(ipm)) != 0) return status;
  const double least = readPrimal(ipm);
  if (ipm->verifyLevel) {
    if ((status = VerifyPrimalFeasible(ipm, ipm->verifyLevel)) != 0) return status;
    if ((status = VerifyInitDerivPrimal(ipm, ipm->verifyLevel)) != 0) return status;
  }
  adjustSolPrimal(ipm, sub, least);
  if (offDiag) {
    negateQuadBlock(ipm);
    // The dual start wants the plain pattern, the loop the full one again.
    ldlCleanUp(ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
  }
  if ((status = initDual(ipm, sub)) != 0) return status;
  if (offDiag) ldlCleanUp(ipm->LA_env, &ipm->LDL_factor, &ipm->LDL_memory);
  if (!ipm->LDL_factor || !ipm->LDL_memory) {
    if ((status = ipmInitAugmat(ipm, 1)) != 0) return status;
  }
  initFinish(ipm);
  return 0;
}

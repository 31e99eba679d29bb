// Pieces of the starting point that its full and partial routes share: the
// primal system's column block, the big bounds kept aside, and the shift of
// the point into the interior.
#include "ipm/init_internal.h"

#include <math.h>

#include "ipm/submodel.h"

namespace {

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }

}  // namespace

// The big bounds leave the primal system by losing their flag for a while.
void primalColumnBlock(Ipm* ipm) {
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    double diag = 0.0, right = 0.0;
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
}

void hideBigBounds(Ipm* ipm, const subModel* sub, bool hide) {
  if (!sub || !sub->statusBoundSub) return;
  for (int32_t k = 0; k < sub->numBoundBig; k++) {
    const int32_t status = sub->statusBoundSub[k];
    if (!status) continue;
    const int32_t j = mapped(sub->colMapSub, sub->idxBoundSub[k]);
    if (j < 0) continue;
    uint8_t& type = ipm->varBndType[j];
    if (hide) {
      if (status & SUB_BIG_LOWER) type &= (uint8_t)~VARBND_LOWER;
      if (status & SUB_BIG_UPPER) type &= (uint8_t)~VARBND_UPPER;
    } else {
      if (status & SUB_BIG_LOWER) {
        type |= VARBND_LOWER;
        ipm->lowerSlack[j] = ipm->solPrimal[j] - ipm->lower[j];
      }
      if (status & SUB_BIG_UPPER) {
        type |= VARBND_UPPER;
        ipm->upperSlack[j] = ipm->upper[j] - ipm->solPrimal[j];
      }
    }
  }
}

void initFloor(const Ipm* ipm, double* floor, double* refill) {
  if (ipm->modelType == IPM_MODEL_QP) {
    *floor = 0.1;
    *refill = 0.1;
  } else {
    *floor = 1e-10;
    *refill = 100.0;
  }
}

double initShift(const Ipm* ipm, double least) {
  double shift = 1e-10;
  if (least < 0.0) {
    const double rel = -least * 1e-10;
    shift = -least + (rel > 1e-10 ? rel : 1e-10);
  }
  if (ipm->modelType == IPM_MODEL_QP && shift < 0.1) shift = 0.1;
  return shift;
}

void shiftDuals(Ipm* ipm, double least) {
  double floor, refill;
  initFloor(ipm, &floor, &refill);
  const double shift = initShift(ipm, least);
  auto interior = [&](double& v) {
    v += shift;
    if (v < floor) v = refill;
  };
  for (int32_t i = 0; i < ipm->numRow; i++)
    if (ipm->rowSense[i] != 'E') interior(ipm->solDual[i]);
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    if (hasLower(type)) interior(ipm->lowerDual[j]);
    if (hasUpper(type)) interior(ipm->upperDual[j]);
  }
}

void initFinish(Ipm* ipm) {
  for (int32_t j = 0; j < ipm->numCol; j++) ipm->kktValue[ipm->varBndDiagIndex[j]] = 0.0;
  for (int32_t i = 0; i < ipm->numRow; i++) ipm->kktValue[ipm->ineqnDiagIndex[i]] = 0.0;
  double least = ipm->infinity;
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (ipm->rowSense[i] != 'G') ipm->ineqnSlackDelta[i] = 0.0;
    if (ipm->rowSense[i] != 'E' && ipm->solDual[i] < least) least = ipm->solDual[i];
  }
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    if (!hasLower(type)) {
      ipm->lowerSlackDelta[j] = 0.0;
      ipm->lowerDualDelta[j] = 0.0;
    } else if (ipm->lowerSlack[j] < least) {
      least = ipm->lowerSlack[j];
    }
    if (!hasUpper(type)) {
      ipm->upperSlackDelta[j] = 0.0;
      ipm->upperDualDelta[j] = 0.0;
    } else if (ipm->upperSlack[j] < least) {
      least = ipm->upperSlack[j];
    }
  }
  ipm->divisor = least;
}

void adjustSolPrimal(Ipm* ipm, subModel* sub, double minSlack) {
  double floor, refill;
  initFloor(ipm, &floor, &refill);
  const double shift = initShift(ipm, minSlack);
  auto interior = [&](double& v) {
    v += shift;
    if (v < floor) v = refill;
  };
  if (minSlack <= floor || !sub) {
    for (int32_t i = 0; i < ipm->numRow; i++)
      if (ipm->rowSense[i] != 'E') interior(ipm->ineqnSlack[i]);
    for (int32_t j = 0; j < ipm->numCol; j++) {
      const uint8_t type = ipm->varBndType[j];
      if (hasLower(type)) interior(ipm->lowerSlack[j]);
      if (hasUpper(type)) interior(ipm->upperSlack[j]);
    }
    return;
  }
  // The least-squares point is interior already; only the marked items,
  // which it never saw, may need lifting.
  if (sub->statusBoundSub)
    for (int32_t k = 0; k < sub->numBoundBig; k++) {
      const int32_t status = sub->statusBoundSub[k];
      if (!status) continue;
      const int32_t j = mapped(sub->colMapSub, sub->idxBoundSub[k]);
      if (j < 0) continue;
      if ((status & SUB_BIG_LOWER) && ipm->lowerSlack[j] < floor) ipm->lowerSlack[j] = refill;
      if ((status & SUB_BIG_UPPER) && ipm->upperSlack[j] < floor) ipm->upperSlack[j] = refill;
    }
  if (sub->idxRowSub)
    for (int32_t k = 0; k < sub->numRhsBigAll; k++) {
      const int32_t i = mapped(sub->rowMapSub, sub->idxRowSub[k]);
      if (i < 0 || ipm->rowSense[i] == 'E') continue;
      if (ipm->ineqnSlack[i] < floor) ipm->ineqnSlack[i] = refill;
    }
}

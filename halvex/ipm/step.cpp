// The arithmetic of one predictor-corrector step, between the factorisation
// and the update.  Slack and dual steps follow from (dx, dy) by diagonal
// formulas, so nothing here touches the matrix.
#include <math.h>

#include "ipm/ipm.h"

namespace {

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }

// The two sides of the ratio test.  The first of equal ratios keeps its
// place, hence the strict compare.
struct RatioTest {
  double primal = 1e+10, dual = 1e+10;
  int32_t blockPrimal = -1, blockDual = -1;

  void testPrimal(double v, double d, int32_t idx) {
    if (d < -1e-15) {
      const double ratio = -v / d;
      if (ratio < primal) {
        primal = ratio;
        blockPrimal = idx;
      }
    }
  }
  void testDual(double v, double d, int32_t idx) {
    if (d < -1e-15) {
      const double ratio = -v / d;
      if (ratio < dual) {
        dual = ratio;
        blockDual = idx;
      }
    }
  }
  void apply(Ipm* ipm) const {
    ipm->blockPrimal = blockPrimal;
    ipm->blockDual = blockDual;
    double ap = blockPrimal < 0 ? 1.0 : primal;
    double ad = blockDual < 0 ? 1.0 : dual;
    if (ap > 1.0) ap = 1.0;
    if (ad > 1.0) ad = 1.0;
    // One length for a QP: the dual step of x enters Qx.
    if (ipm->modelType == IPM_MODEL_QP) ap = ad = ap < ad ? ap : ad;
    ipm->alphaPrimal = ap;
    ipm->alphaDual = ad;
  }
};

inline bool walkAllRows(const Ipm* ipm) { return ipm->numRow * ipm->densityRatio < ipm->numIneqn; }

}  // namespace

void computePredictor(Ipm* ipm) {
  RatioTest test;
  const int32_t n = ipm->numCol;
  const double* dx = ipm->vecRhs;
  const double* dy = ipm->vecRhs + n;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    const double x = ipm->solPrimal[j];
    if (hasUpper(type)) {
      const double su = ipm->upperSlack[j], zu = ipm->upperDual[j];
      const double t = (ipm->upper[j] - x) - dx[j];
      ipm->upperSlackDelta[j] = t - su;
      ipm->upperDualDelta[j] = -t * zu / su;
      test.testPrimal(su, ipm->upperSlackDelta[j], j);
      test.testDual(zu, ipm->upperDualDelta[j], j);
    }
    if (hasLower(type)) {
      const double sl = ipm->lowerSlack[j], zl = ipm->lowerDual[j];
      const double t = (x - ipm->lower[j]) + dx[j];
      ipm->lowerSlackDelta[j] = t - sl;
      ipm->lowerDualDelta[j] = -t * zl / sl;
      test.testPrimal(sl, ipm->lowerSlackDelta[j], j);
      test.testDual(zl, ipm->lowerDualDelta[j], j);
    }
  }
  auto row = [&](int32_t i) {
    const double s = ipm->ineqnSlack[i], y = ipm->solDual[i];
    ipm->ineqnSlackDelta[i] = -s * (dy[i] / y + 1.0);
    test.testPrimal(s, ipm->ineqnSlackDelta[i], i);
    test.testDual(y, dy[i], i);
  };
  if (walkAllRows(ipm)) {
    for (int32_t i = 0; i < ipm->numRow; i++)
      if (ipm->rowSense[i] == 'G') row(i);
  } else {
    for (int32_t k = 0; k < ipm->numIneqn; k++) row(ipm->ineqnIndex[k]);
  }
  test.apply(ipm);
}

void computeMuAffine(Ipm* ipm) {
  const double ap = ipm->alphaPrimal, ad = ipm->alphaDual;
  const double* dy = ipm->vecRhs + ipm->numCol;
  double sum = 0.0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type))
      sum += (ipm->upperSlack[j] + ap * ipm->upperSlackDelta[j]) *
             (ipm->upperDual[j] + ad * ipm->upperDualDelta[j]);
    if (hasLower(type))
      sum += (ipm->lowerSlack[j] + ap * ipm->lowerSlackDelta[j]) *
             (ipm->lowerDual[j] + ad * ipm->lowerDualDelta[j]);
  }
  auto row = [&](int32_t i) {
    sum += (ipm->ineqnSlack[i] + ap * ipm->ineqnSlackDelta[i]) * (ipm->solDual[i] + ad * dy[i]);
  };
  if (walkAllRows(ipm)) {
    for (int32_t i = 0; i < ipm->numRow; i++)
      if (ipm->rowSense[i] == 'G') row(i);
  } else {
    for (int32_t k = 0; k < ipm->numIneqn; k++) row(ipm->ineqnIndex[k]);
  }
  ipm->muAffine = ipm->numComplement > 0 ? sum / ipm->numComplement : 0.0;
}

void computeSigma(Ipm* ipm) {
  const double ratio = ipm->muAffine / ipm->mu;
  ipm->sigma = ratio * ratio * ratio;
}

void computeRhsCorrector(Ipm* ipm) {
  const double c = ipm->sigma * ipm->mu;
  const int32_t n = ipm->numCol;
  const double* dy = ipm->vecRhs + n;
  double* e = ipm->correctorPrimal;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t type = ipm->varBndType[j];
    double r = 0.0;
    if (hasUpper(type))
      r = (ipm->upperSlackDelta[j] * ipm->upperDualDelta[j] - c) / ipm->upperSlack[j];
    if (hasLower(type))
      r += (c - ipm->lowerSlackDelta[j] * ipm->lowerDualDelta[j]) / ipm->lowerSlack[j];
    e[j] = r;
  }
  for (int32_t i = 0; i < ipm->numRow; i++)
    e[n + i] = ipm->rowSense[i] == 'G'
                   ? (ipm->ineqnSlackDelta[i] * dy[i] - c) / ipm->solDual[i]
                   : 0.0;
}

void computeStepCombined(Ipm* ipm) {
  RatioTest test;
  const double c = ipm->sigma * ipm->mu;
  const int32_t n = ipm->numCol;
  double* dx = ipm->vecRhs;
  double* dy = ipm->vecRhs + n;
  const double* e = ipm->correctorPrimal;
  const double* f = ipm->correctorPrimal + n;
  for (int32_t j = 0; j < n; j++) {
    dx[j] += e[j];
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type)) {
      const double dU = ipm->upperSlackDelta[j], dV = ipm->upperDualDelta[j];
      ipm->upperSlackDelta[j] = dU - e[j];
      ipm->upperDualDelta[j] = dV + (c - dU * dV + ipm->upperDual[j] * e[j]) / ipm->upperSlack[j];
      test.testPrimal(ipm->upperSlack[j], ipm->upperSlackDelta[j], j);
      test.testDual(ipm->upperDual[j], ipm->upperDualDelta[j], j);
    }
    if (hasLower(type)) {
      const double dL = ipm->lowerSlackDelta[j], dW = ipm->lowerDualDelta[j];
      ipm->lowerSlackDelta[j] = dL + e[j];
      ipm->lowerDualDelta[j] = dW + (c - dL * dW - ipm->lowerDual[j] * e[j]) / ipm->lowerSlack[j];
      test.testPrimal(ipm->lowerSlack[j], ipm->lowerSlackDelta[j], j);
      test.testDual(ipm->lowerDual[j], ipm->lowerDualDelta[j], j);
    }
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    const double p = dy[i];
    dy[i] = p + f[i];
    if (ipm->rowSense[i] != 'G') continue;
    const double s = ipm->ineqnSlack[i], y = ipm->solDual[i], dS = ipm->ineqnSlackDelta[i];
    ipm->ineqnSlackDelta[i] = dS + (c - p * dS - s * f[i]) / y;
    test.testPrimal(s, ipm->ineqnSlackDelta[i], i);
    test.testDual(y, dy[i], i);
  }
  test.apply(ipm);
}

namespace {

// The quantities the next diagonal and corrector divide by.
double smallestDivisor(const Ipm* ipm) {
  double least = ipm->infinity;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type) && ipm->upperSlack[j] < least) least = ipm->upperSlack[j];
    if (hasLower(type) && ipm->lowerSlack[j] < least) least = ipm->lowerSlack[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++)
    if (ipm->rowSense[i] == 'G' && ipm->solDual[i] < least) least = ipm->solDual[i];
  return least;
}

void applyStep(Ipm* ipm, double ap, double ad, double pAdd, double dAdd) {
  const int32_t n = ipm->numCol;
  const double* dx = ipm->vecRhs;
  const double* dy = ipm->vecRhs + n;
  for (int32_t j = 0; j < n; j++) {
    ipm->solPrimal[j] += ap * dx[j] + pAdd;
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type)) {
      ipm->upperSlack[j] += ap * ipm->upperSlackDelta[j] + pAdd;
      ipm->upperDual[j] += ad * ipm->upperDualDelta[j] + dAdd;
    }
    if (hasLower(type)) {
      ipm->lowerSlack[j] += ap * ipm->lowerSlackDelta[j] + pAdd;
      ipm->lowerDual[j] += ad * ipm->lowerDualDelta[j] + dAdd;
    }
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->solDual[i] += ad * dy[i] + dAdd;
    if (ipm->rowSense[i] == 'G') ipm->ineqnSlack[i] += ap * ipm->ineqnSlackDelta[i] + pAdd;
  }
}

// Smallest positive k * delta at the blocking index, ceiling infinity.
double pushRoom(const Ipm* ipm, int32_t idx, double alpha, const double* upperDelta,
                const double* lowerDelta, const double* rowDelta) {
  double room = ipm->infinity;
  if (idx < 0) return room;
  const double k = -(1.0 - ipm->stepFactor) * alpha;
  auto consider = [&](double v) {
    if (v > 0.0 && v < room) room = v;
  };
  if (idx < ipm->numCol) {
    const uint8_t type = ipm->varBndType[idx];
    if (hasUpper(type)) consider(k * upperDelta[idx]);
    if (hasLower(type)) consider(k * lowerDelta[idx]);
  }
  if (idx < ipm->numRow && ipm->rowSense[idx] == 'G') consider(k * rowDelta[idx]);
  return room;
}

}  // namespace

void updateSolution(Ipm* ipm) {
  applyStep(ipm, ipm->alphaPrimal * ipm->stepFactor, ipm->alphaDual * ipm->stepFactor, 0.0, 0.0);
  ipm->divisor = smallestDivisor(ipm);
}

void updateSolution2(Ipm* ipm) {
  const double deltaPrimal =
      pushRoom(ipm, ipm->blockPrimal, ipm->alphaPrimal, ipm->upperSlackDelta,
               ipm->lowerSlackDelta, ipm->ineqnSlackDelta);
  const double deltaDual = pushRoom(ipm, ipm->blockDual, ipm->alphaDual, ipm->upperDualDelta,
                                    ipm->lowerDualDelta, ipm->vecRhs + ipm->numCol);
  if (deltaPrimal < 1e-08 || deltaDual < 1e-08) {
    applyStep(ipm, ipm->alphaPrimal * ipm->stepFactor, ipm->alphaDual * ipm->stepFactor, 0.0,
              0.0);
  } else {
    applyStep(ipm, ipm->alphaPrimal, ipm->alphaDual, ipm->blockPrimal >= 0 ? 1e-08 : 0.0,
              ipm->blockDual >= 0 ? 1e-08 : 0.0);
  }
  ipm->divisor = smallestDivisor(ipm);
  if (ipm->env && ipm->env->textLog)
    ipm->env->textLog("divisor=%15.7g   deltaPrimal=%15.7g   deltaDual=%15.7g", ipm->divisor,
                      deltaPrimal, deltaDual);
}

void adjustSolution(Ipm* ipm) {
  if (ipm->divisor > 1e-15) return;
  if (ipm->env && ipm->env->textLog) ipm->env->textLog("%1zadjust solution toward interior.");
  const double shift = 1e-15 - ipm->divisor;
  ipm->divisor = 1e-15;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    ipm->solPrimal[j] += shift;
    const uint8_t type = ipm->varBndType[j];
    if (hasUpper(type)) {
      ipm->upperSlack[j] += shift;
      ipm->upperDual[j] += shift;
    }
    if (hasLower(type)) {
      ipm->lowerSlack[j] += shift;
      ipm->lowerDual[j] += shift;
    }
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    ipm->solDual[i] += shift;
    if (ipm->rowSense[i] == 'G') ipm->ineqnSlack[i] += shift;
  }
}

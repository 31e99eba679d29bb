// Self-checks of the iteration.  Each recomputes from the model and the point
// what a stage has just produced and compares, with a relative tolerance
// whose scale never drops below 1.0, so that values near zero are judged
// absolutely.  A check reads only, apart from scratchA and scratchB, which it
// hands back cleared; and it goes through all elements before it answers, so
// that one run logs everything that is wrong.
#include "verify/verify.h"

#include <math.h>
#include <stdio.h>

#include "frame/qv.h"
#include "ipm/submodel.h"
#include "util/random.h"
#include "util/sparse.h"

namespace {

const int32_t kStructure = 1;
const int32_t kIteration = 5;
const int32_t kTrace = 7;
const double kMeasureTol = 1e-8;
const double kNewtonTol = 1e-6;
const double kSignTol = -1e-8;

inline bool hasLower(uint8_t t) { return (t & (VARBND_LOWER | VARBND_LOWER_ZERO)) != 0; }
inline bool hasUpper(uint8_t t) { return (t & VARBND_UPPER) != 0; }
inline bool isIneqn(const Ipm* ipm, int32_t i) { return ipm->rowSense[i] == 'G'; }

TextLogFn logOf(const Ipm* ipm) { return ipm->env ? ipm->env->textLog : nullptr; }

void running(const Ipm* ipm) {
  if (TextLogFn log = logOf(ipm)) log("running debug code......");
}

void trace(const Ipm* ipm, int32_t level, const char* format, double value) {
  TextLogFn log = logOf(ipm);
  if (level >= kTrace && log) log(format, value);
}

// The common test: |actual - stored| against tol * max(|actual|, 1).
inline bool differs(double stored, double actual, double tol) {
  const double scale = fabs(actual) > 1.0 ? fabs(actual) : 1.0;
  return !(fabs(actual - stored) <= scale * tol);
}

// A stored measure against its recomputed value, reported as
// "Error <check>: iteration=..  <field>=..  actual=..".
int32_t checkMeasure(const Ipm* ipm, const char* check, const char* field, double stored,
                     double actual) {
  if (!differs(stored, actual, kMeasureTol)) return 0;
  if (TextLogFn log = logOf(ipm))
    log("Error %s: iteration=%d  %s=%15.7g  actual=%15.7g", check, ipm->iteration, field, stored,
        actual);
  return IPM_STATUS_FAILED;
}

// Adds -Q x to g, for a QP.
void subtractQx(const Ipm* ipm, const double* x, double* g) {
  if (ipm->modelType != IPM_MODEL_QP || !ipm->quadDiag) return;
  const bool offDiag = ipm->numQuadCoef > 0;
  symmatrixTimesVector(ipm->numCol, offDiag ? ipm->quadColBegin : nullptr,
                       offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                       ipm->quadMatValue, ipm->quadDiag, x, g, -1.0);
}

// Dual residual A'y - Qx - c + zl - zu into g (numCol).
void dualResidual(const Ipm* ipm, double* g) {
  AtranTimesVector(ipm, ipm->solDual, g);
  subtractQx(ipm, ipm->solPrimal, g);
  for (int32_t j = 0; j < ipm->numCol; j++) {
    g[j] -= ipm->obj[j];
    const uint8_t t = ipm->varBndType[j];
    if (hasLower(t)) g[j] += ipm->lowerDual[j];
    if (hasUpper(t)) g[j] -= ipm->upperDual[j];
  }
}

// Primal residual Ax - s - b into r (numRow).
void primalResidual(const Ipm* ipm, double* r) {
  ATimesVector(ipm, ipm->solPrimal, r);
  for (int32_t i = 0; i < ipm->numRow; i++) r[i] -= ipm->ineqnSlack[i] + ipm->rhs[i];
}

double quadForm(const Ipm* ipm) {
  if (ipm->modelType != IPM_MODEL_QP || !ipm->quadDiag) return 0.0;
  const bool offDiag = ipm->numQuadCoef > 0;
  return calcQuadForm(ipm->numCol, offDiag ? ipm->quadColBegin : nullptr,
                      offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                      ipm->quadMatValue, ipm->quadDiag, ipm->solPrimal);
}

double complementaritySum(const Ipm* ipm) {
  double sum = 0.0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (hasLower(t)) sum += fabs(ipm->lowerSlack[j] * ipm->lowerDual[j]);
    if (hasUpper(t)) sum += fabs(ipm->upperSlack[j] * ipm->upperDual[j]);
  }
  for (int32_t i = 0; i < ipm->numRow; i++)
    if (isIneqn(ipm, i)) sum += fabs(ipm->ineqnSlack[i] * ipm->solDual[i]);
  return sum;
}

// Newton residuals of a step (dx, dy) with the slack and dual steps in the
// record's delta arrays:  A dx - ds + rp  and  A'dy - Q dx + dzl - dzu + rd,
// where rp, rd are the current point's residuals.  Both come back relative
// to the largest term of either block, the diagonal products included,
// floored at 1: that is the backward error of the one augmented system the
// step came from, and a solve promises no more than that.
void newtonResiduals(Ipm* ipm, const double* dx, const double* dy, double* primal,
                     double* dual) {
  const int32_t n = ipm->numCol, m = ipm->numRow, big = n > m ? n : m;
  double* r = ipm->scratchA;
  double* t = ipm->scratchB;
  primalResidual(ipm, r);
  ATimesVector(ipm, dx, t);
  // ||A|| ||dx||, not ||A dx||: what the product may lose to cancellation.
  double scale = fmax(1.0, fmax(norm2(m, r), ipm->normA * norm2(n, dx)));
  double dsSq = 0.0;
  for (int32_t i = 0; i < m; i++) {
    const bool ineqn = isIneqn(ipm, i);
    const double ds = ineqn ? ipm->ineqnSlackDelta[i] : 0.0;
    // The slack step carries s/y dy, the row's diagonal in the augmented
    // system, which may be far larger than what is left after it cancels.
    const double size = fabs(ds) + (ineqn ? ipm->ineqnSlack[i] / ipm->solDual[i] * fabs(dy[i]) : 0.0);
    dsSq += size * size;
    r[i] += t[i] - ds;
  }
  const double scaleP = fmax(scale, sqrt(dsSq));
  const double primalNorm = norm2(m, r);
  clearBuffer(big, r);
  clearBuffer(big, t);

  double* g = ipm->scratchB;
  dualResidual(ipm, g);
  AtranTimesVector(ipm, dy, r);
  subtractQx(ipm, dx, r);
  scale = fmax(fmax(scaleP, norm2(n, r)), fmax(norm2(n, g), ipm->normA * norm2(m, dy)));
  double dzSq = 0.0;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t ty = ipm->varBndType[j];
    double dz = 0.0, size = 0.0;
    // Likewise the bound duals carry z/s dx, the column's diagonal.
    if (hasLower(ty)) {
      dz += ipm->lowerDualDelta[j];
      size += fabs(ipm->lowerDualDelta[j]) + ipm->lowerDual[j] / ipm->lowerSlack[j] * fabs(dx[j]);
    }
    if (hasUpper(ty)) {
      dz -= ipm->upperDualDelta[j];
      size += fabs(ipm->upperDualDelta[j]) + ipm->upperDual[j] / ipm->upperSlack[j] * fabs(dx[j]);
    }
    dzSq += size * size;
    g[j] += r[j] + dz;
  }
  scale = fmax(scale, sqrt(dzSq));
  *primal = primalNorm / scale;
  *dual = norm2(n, g) / scale;
  clearBuffer(big, r);
  clearBuffer(big, g);
}

// Fields that must be zero where the side or the row has nothing to hold.
int32_t zeroFields(Ipm* ipm, const char* name) {
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  auto zero = [&](const double* v, int32_t k, const char* field, const char* why) {
    if (v[k] == 0.0) return;
    if (log) log("Error %s: iteration=%d  %s(%d)=%15.7g should be zero %s", name, ipm->iteration,
                 field, k, v[k], why);
    status = IPM_STATUS_FAILED;
  };
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (!hasUpper(t)) {
      zero(ipm->upperSlack, j, "upperSlack", "if upper unbounded");
      zero(ipm->upperSlackDelta, j, "upperSlackDelta", "if upper unbounded");
      zero(ipm->upperDual, j, "upperDual", "if upper unbounded");
      zero(ipm->upperDualDelta, j, "upperDualDelta", "if upper unbounded");
    }
    if (!hasLower(t)) {
      zero(ipm->lowerSlack, j, "lowerSlack", "if lower unbounded");
      zero(ipm->lowerSlackDelta, j, "lowerSlackDelta", "if lower unbounded");
      zero(ipm->lowerDual, j, "lowerDual", "if lower unbounded");
      zero(ipm->lowerDualDelta, j, "lowerDualDelta", "if lower unbounded");
    }
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (isIneqn(ipm, i)) continue;
    zero(ipm->ineqnSlack, i, "ineqnSlack", "for equation");
    zero(ipm->ineqnSlackDelta, i, "ineqnSlackDelta", "for equation");
  }
  return status;
}

// A complementarity row's right side and the size of the terms it was
// made of, which is what its rounding is relative to.
struct Rhs {
  double value, size;
};

// Complementarity rows  s dz + z ds = rhs  for every pair; the callables
// give the right side of the bound pairs and of the inequality rows.
template <class Upper, class Lower, class Row>
int32_t complementarityRows(Ipm* ipm, const char* name, const double* dy, Upper upperRhs,
                            Lower lowerRhs, Row rowRhs) {
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  auto off = [](double s, double dz, double z, double ds, Rhs rhs) {
    const double a = s * dz, b = z * ds;
    const double scale = fmax(fmax(1.0, rhs.size), fmax(fabs(a), fabs(b)));
    return !(fabs(a + b - rhs.value) <= kNewtonTol * scale);
  };
  auto report = [&](const char* who, const char* which, int32_t k, double lhs, double rhs) {
    if (log) log("Error %s: iteration=%d  %s(%d)  lhs=%15.7g  rhs=%15.7g", who, ipm->iteration,
                 which, k, lhs, rhs);
    status = IPM_STATUS_FAILED;
  };
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (hasUpper(t)) {
      const double s = ipm->upperSlack[j], dz = ipm->upperDualDelta[j];
      const double z = ipm->upperDual[j], ds = ipm->upperSlackDelta[j];
      const Rhs rhs = upperRhs(j);
      if (off(s, dz, z, ds, rhs)) report(name, "upper_complementarity", j, s * dz + z * ds, rhs.value);
    }
    if (hasLower(t)) {
      const double s = ipm->lowerSlack[j], dz = ipm->lowerDualDelta[j];
      const double z = ipm->lowerDual[j], ds = ipm->lowerSlackDelta[j];
      const Rhs rhs = lowerRhs(j);
      if (off(s, dz, z, ds, rhs)) report(name, "lower_complementarity", j, s * dz + z * ds, rhs.value);
    }
  }
  // Both step checks report an inequality row under the predictor's name.
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (!isIneqn(ipm, i)) continue;
    const double s = ipm->ineqnSlack[i], y = ipm->solDual[i], ds = ipm->ineqnSlackDelta[i];
    const Rhs rhs = rowRhs(i);
    if (off(s, dy[i], y, ds, rhs)) report("VerifyKktPredictor", "ineqn", i, s * dy[i] + y * ds, rhs.value);
  }
  return status;
}

}  // namespace

double norm2(int32_t length, const double* vector) {
  double s = 0.0;
  for (int32_t k = 0; k < length; k++) s += vector[k] * vector[k];
  return sqrt(s);
}

void clearBuffer(int32_t length, double* vector) {
  for (int32_t k = 0; k < length; k++) vector[k] = 0.0;
}

void ATimesVector(const Ipm* ipm, const double* x, double* y) {
  matrixTimesVector(ipm->numRow, ipm->numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex,
                    ipm->matValue, x, y);
}

void AtranTimesVector(const Ipm* ipm, const double* x, double* y) {
  vectorTimesMatrix(ipm->numCol, ipm->colBegin, ipm->colLength, ipm->rowIndex, ipm->matValue, x,
                    y);
}

int32_t VerifyPrimalInfeas(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  double* r = ipm->scratchA;
  primalResidual(ipm, r);
  const double actual = norm2(ipm->numRow, r) / (ipm->normRhs + 1.0);
  clearBuffer(ipm->numRow, r);
  const int32_t status = checkMeasure(ipm, "VerifyPrimalInfeas", "primalInfeas", ipm->primalInfeas, actual);
  trace(ipm, level, "%7hTRACE: %mPrimal infeasibility = %15.7g", actual);
  return status;
}

int32_t VerifyBoundInfeas(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  double sum = 0.0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    const double x = ipm->solPrimal[j];
    if (hasLower(t)) {
      const double e = x - ipm->lowerSlack[j] - ipm->lower[j];
      sum += e * e;
    }
    if (hasUpper(t)) {
      const double e = x + ipm->upperSlack[j] - ipm->upper[j];
      sum += e * e;
    }
  }
  const double actual = sqrt(sum) / (ipm->normLower + 1.0 + ipm->normUpper);
  const int32_t status = checkMeasure(ipm, "VerifyBoundInfeas", "boundInfeas", ipm->boundInfeas, actual);
  trace(ipm, level, "%7hTRACE: %mBound  infeasibility = %15.7g", actual);
  return status;
}

int32_t VerifyDualInfeas(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  double* g = ipm->scratchB;
  dualResidual(ipm, g);
  const double actual = norm2(ipm->numCol, g) / (ipm->normObj + 1.0);
  clearBuffer(ipm->numCol, g);
  const int32_t status = checkMeasure(ipm, "VerifyDualInfeas", "dualInfeas", ipm->dualInfeas, actual);
  trace(ipm, level, "%7hTRACE: %mDual   infeasibility = %15.7g", actual);
  return status;
}

int32_t VerifyDualityGap(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  const double quad = quadForm(ipm);
  double primal = quad, dual = -quad;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    primal += ipm->obj[j] * ipm->solPrimal[j];
    const uint8_t t = ipm->varBndType[j];
    if (hasLower(t)) dual += ipm->lower[j] * ipm->lowerDual[j];
    if (hasUpper(t)) dual -= ipm->upper[j] * ipm->upperDual[j];
  }
  for (int32_t i = 0; i < ipm->numRow; i++) dual += ipm->rhs[i] * ipm->solDual[i];
  const double gap = fabs(primal - dual) / (fabs(primal) + 1.0);
  int32_t status = 0;
  // Every field is reported, not only the first that is off.
  const double stored[3] = {ipm->objValuePrimal, ipm->objValueDual, ipm->dualityGap};
  const double actual[3] = {primal, dual, gap};
  const char* field[3] = {"objValuePrimal", "objValueDual", "dualityGap"};
  for (int k = 0; k < 3; k++)
    if (checkMeasure(ipm, "VerifyDualityGap", field[k], stored[k], actual[k]))
      status = IPM_STATUS_FAILED;
  trace(ipm, level, "%7hTRACE: %mDuality gap          = %15.7g", gap);
  return status;
}

int32_t VerifyComplementarity(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  const double actual = complementaritySum(ipm);
  const double mu = ipm->numComplement > 0 ? actual / ipm->numComplement : 0.0;
  int32_t status = 0;
  if (checkMeasure(ipm, "VerifyComplementarity", "complementarity", ipm->complementarity, actual))
    status = IPM_STATUS_FAILED;
  if (checkMeasure(ipm, "VerifyComplementarity", "mu", ipm->mu, mu)) status = IPM_STATUS_FAILED;
  trace(ipm, level, "%7hTRACE: %mComplementarity      = %15.7g", actual);
  return status;
}

// The predictor's right side: Ax - b for the rows, and for the columns the
// dual residual with each bound dual replaced by what the bound equation
// and its complementarity row leave of it.
int32_t VerifyPredictorRhs(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  const int32_t n = ipm->numCol, m = ipm->numRow;
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  double* r = ipm->scratchA;
  ATimesVector(ipm, ipm->solPrimal, r);
  for (int32_t i = 0; i < m; i++) {
    const double actual = r[i] - ipm->rhs[i];
    if (differs(ipm->vecRhs[n + i], actual, kMeasureTol)) {
      if (log) log("Error VerifyPredictorRhs: iteration=%d  rhsPrimal(%d)=%15.7g  actual=%15.7g",
                   ipm->iteration, i, ipm->vecRhs[n + i], actual);
      status = IPM_STATUS_FAILED;
    }
  }
  clearBuffer(m, r);
  double* g = ipm->scratchB;
  AtranTimesVector(ipm, ipm->solDual, g);
  subtractQx(ipm, ipm->solPrimal, g);
  for (int32_t j = 0; j < n; j++) {
    double actual = g[j] - ipm->obj[j];
    const uint8_t t = ipm->varBndType[j];
    const double x = ipm->solPrimal[j];
    if (hasUpper(t))
      actual -= (1.0 - (ipm->upper[j] - x) / ipm->upperSlack[j]) * ipm->upperDual[j];
    if (hasLower(t))
      actual += (1.0 - (x - ipm->lower[j]) / ipm->lowerSlack[j]) * ipm->lowerDual[j];
    if (differs(ipm->vecRhs[j], actual, kMeasureTol)) {
      if (log) log("Error VerifyPredictorRhs: iteration=%d  rhsDual(%d)=%15.7g  actual=%15.7g",
                   ipm->iteration, j, ipm->vecRhs[j], actual);
      status = IPM_STATUS_FAILED;
    }
  }
  clearBuffer(n, g);
  return status;
}

int32_t VerifyKktCommon(Ipm* ipm, int32_t level, double* primal, double* dual) {
  *primal = *dual = 0.0;
  if (level < kIteration) return 0;
  newtonResiduals(ipm, ipm->vecRhs, ipm->vecRhs + ipm->numCol, primal, dual);
  TextLogFn log = logOf(ipm);
  int32_t status = zeroFields(ipm, "VerifyKktCommon");
  if (!(*primal <= kNewtonTol)) {
    if (log) log("Error VerifyKktCommon: iteration=%d  primal residual = %15.7g", ipm->iteration,
                 *primal);
    status = IPM_STATUS_FAILED;
  }
  if (!(*dual <= kNewtonTol)) {
    if (log) log("Error VerifyKktCommon: iteration=%d  dual residual = %15.7g", ipm->iteration,
                 *dual);
    status = IPM_STATUS_FAILED;
  }
  return status;
}

int32_t VerifyKktPredictor(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  double primal, dual;
  int32_t status = VerifyKktCommon(ipm, level, &primal, &dual);
  const double* dy = ipm->vecRhs + ipm->numCol;
  // The affine step drives every product to zero.
  int32_t rows = complementarityRows(
      ipm, "VerifyKktPredictor", dy,
      [&](int32_t j) {
        const double p = ipm->upperSlack[j] * ipm->upperDual[j];
        return Rhs{-p, fabs(p)};
      },
      [&](int32_t j) {
        const double p = ipm->lowerSlack[j] * ipm->lowerDual[j];
        return Rhs{-p, fabs(p)};
      },
      [&](int32_t i) {
        const double p = ipm->ineqnSlack[i] * ipm->solDual[i];
        return Rhs{-p, fabs(p)};
      });
  if (rows) status = rows;
  trace(ipm, level, "%7hTRACE: %mPredictor KKT primal residual    = %15.7g", primal);
  trace(ipm, level, "%7hTRACE: %mPredictor KKT dual residual      = %15.7g", dual);
  return status;
}

// The combined step's products aim at sigma mu less the affine products.
// The affine deltas are gone by now; they come back from the corrector part,
// still in correctorPrimal, and the predictor's complementarity rows.
int32_t VerifyKktOverall(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  double primal, dual;
  int32_t status = VerifyKktCommon(ipm, level, &primal, &dual);
  const int32_t n = ipm->numCol;
  const double c = ipm->sigma * ipm->mu;
  const double* dy = ipm->vecRhs + n;
  const double* e = ipm->correctorPrimal;
  const double* f = ipm->correctorPrimal + n;
  int32_t rows = complementarityRows(
      ipm, "VerifyKktOverall", dy,
      [&](int32_t j) {
        const double s = ipm->upperSlack[j], z = ipm->upperDual[j];
        const double ds = ipm->upperSlackDelta[j] + e[j], dz = -z * (s + ds) / s;
        return Rhs{c - s * z - ds * dz, fabs(c) + fabs(s * z) + fabs(ds * dz)};
      },
      [&](int32_t j) {
        const double s = ipm->lowerSlack[j], z = ipm->lowerDual[j];
        const double ds = ipm->lowerSlackDelta[j] - e[j], dz = -z * (s + ds) / s;
        return Rhs{c - s * z - ds * dz, fabs(c) + fabs(s * z) + fabs(ds * dz)};
      },
      [&](int32_t i) {
        const double s = ipm->ineqnSlack[i], y = ipm->solDual[i];
        const double p = dy[i] - f[i], ds = -s * (p / y + 1.0);
        return Rhs{c - s * y - p * ds, fabs(c) + fabs(s * y) + fabs(p * ds)};
      });
  if (rows) status = rows;
  trace(ipm, level, "%7hTRACE: %mOverall KKT primal residual      = %15.7g", primal);
  trace(ipm, level, "%7hTRACE: %mOverall KKT dual residual        = %15.7g", dual);
  return status;
}

// The corrector (e, f) solves the Newton system with no residual on the
// point; its slack and dual parts are those that computeStepCombined will
// add, recomputed here from the predictor's deltas.  Residuals are relative
// to the largest term, as for the predictor.
int32_t VerifyCorrector(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  const int32_t n = ipm->numCol, m = ipm->numRow;
  const double c = ipm->sigma * ipm->mu;
  const double* e = ipm->correctorPrimal;
  const double* f = ipm->correctorPrimal + n;
  const double* dy = ipm->vecRhs + n;
  double* r = ipm->scratchA;
  ATimesVector(ipm, e, r);
  double scaleP = fmax(1.0, ipm->normA * norm2(n, e)), dsSq = 0.0;
  for (int32_t i = 0; i < m; i++) {
    if (!isIneqn(ipm, i)) continue;
    const double dS = ipm->ineqnSlackDelta[i];
    const double a = dy[i] * dS, b = ipm->ineqnSlack[i] * f[i], y = ipm->solDual[i];
    const double size = (fabs(c) + fabs(a) + fabs(b)) / y;
    dsSq += size * size;
    r[i] -= (c - a - b) / y;
  }
  scaleP = fmax(scaleP, sqrt(dsSq));
  const double primalNorm = norm2(m, r);
  clearBuffer(m, r);
  double* g = ipm->scratchB;
  AtranTimesVector(ipm, f, g);
  subtractQx(ipm, e, g);
  double scaleD = fmax(fmax(1.0, norm2(n, g)), ipm->normA * norm2(m, f)), dzSq = 0.0;
  for (int32_t j = 0; j < n; j++) {
    const uint8_t t = ipm->varBndType[j];
    // The terms' sizes, not their sum: near the end they cancel in large
    // quotients by small slacks, and the solve is only as exact as they are.
    double dz = 0.0, size = 0.0;
    if (hasLower(t)) {
      const double a = ipm->lowerSlackDelta[j] * ipm->lowerDualDelta[j], b = ipm->lowerDual[j] * e[j];
      dz += (c - a - b) / ipm->lowerSlack[j];
      size += (fabs(c) + fabs(a) + fabs(b)) / ipm->lowerSlack[j];
    }
    if (hasUpper(t)) {
      const double a = ipm->upperSlackDelta[j] * ipm->upperDualDelta[j], b = ipm->upperDual[j] * e[j];
      dz -= (c - a + b) / ipm->upperSlack[j];
      size += (fabs(c) + fabs(a) + fabs(b)) / ipm->upperSlack[j];
    }
    dzSq += size * size;
    g[j] += dz;
  }
  scaleD = fmax(fmax(scaleD, scaleP), sqrt(dzSq));
  const double primal = primalNorm / scaleD;
  const double dual = norm2(n, g) / scaleD;
  clearBuffer(n, g);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  if (!(primal <= kNewtonTol)) {
    if (log) log("Error VerifyCorrector: iteration=%d  primal residual = %15.7g", ipm->iteration,
                 primal);
    status = IPM_STATUS_FAILED;
  }
  if (!(dual <= kNewtonTol)) {
    if (log) log("Error VerifyCorrector: iteration=%d  dual residual = %15.7g", ipm->iteration,
                 dual);
    status = IPM_STATUS_FAILED;
  }
  trace(ipm, level, "%7hTRACE: %mCorrector step primal residual   = %15.7g", primal);
  trace(ipm, level, "%7hTRACE: %mCorrector step dual residual     = %15.7g", dual);
  return status;
}

int32_t VerifyStepsize(Ipm* ipm, int32_t /*unused, always 0*/, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  const int32_t n = ipm->numCol, m = ipm->numRow;
  const double ap = ipm->alphaPrimal, ad = ipm->alphaDual;
  const double* dy = ipm->vecRhs + n;
  auto stays = [&](const char* field, int32_t k, double v) {
    if (v >= kSignTol) return;
    if (log) log("Error VerifyStepsize: iteration=%d  %s(%d)=%15.7g should be positive",
                 ipm->iteration, field, k, v);
    status = IPM_STATUS_FAILED;
  };
  for (int32_t j = 0; j < n; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (hasUpper(t)) {
      stays("upperSlack", j, ipm->upperSlack[j] + ap * ipm->upperSlackDelta[j]);
      stays("upperDual", j, ipm->upperDual[j] + ad * ipm->upperDualDelta[j]);
    }
    if (hasLower(t)) {
      stays("lowerSlack", j, ipm->lowerSlack[j] + ap * ipm->lowerSlackDelta[j]);
      stays("lowerDual", j, ipm->lowerDual[j] + ad * ipm->lowerDualDelta[j]);
    }
  }
  for (int32_t i = 0; i < m; i++) {
    if (!isIneqn(ipm, i)) continue;
    stays("ineqnSlack", i, ipm->ineqnSlack[i] + ap * ipm->ineqnSlackDelta[i]);
    stays("solDual", i, ipm->solDual[i] + ad * dy[i]);
  }

  // A step shorter than 1 must have run into something.  A QP takes one
  // length for both sides, the shorter, so there it is enough that one of
  // the two blocking quantities has reached zero.
  struct Side {
    bool unblockedShort = false, notTight = false, blocked = false;
    double row = 100.0, lower = 100.0, upper = 100.0;
  };
  auto judge = [&](bool primalSide) {
    Side sd;
    const int32_t block = primalSide ? ipm->blockPrimal : ipm->blockDual;
    const double alpha = primalSide ? ap : ad;
    if (block == -1) {
      sd.unblockedShort = alpha != 1.0;
      return sd;
    }
    if (block < 0) return sd;
    sd.blocked = true;
    if (!(alpha < 0.99999999)) return sd;
    if (block < m && isIneqn(ipm, block))
      sd.row = primalSide ? ipm->ineqnSlack[block] + alpha * ipm->ineqnSlackDelta[block]
                          : ipm->solDual[block] + alpha * dy[block];
    if (block < n) {
      const uint8_t t = ipm->varBndType[block];
      if (hasLower(t))
        sd.lower = primalSide ? ipm->lowerSlack[block] + alpha * ipm->lowerSlackDelta[block]
                              : ipm->lowerDual[block] + alpha * ipm->lowerDualDelta[block];
      if (hasUpper(t))
        sd.upper = primalSide ? ipm->upperSlack[block] + alpha * ipm->upperSlackDelta[block]
                              : ipm->upperDual[block] + alpha * ipm->upperDualDelta[block];
    }
    sd.notTight = fabs(sd.row) > 1e-8 && fabs(sd.lower) > 1e-8 && fabs(sd.upper) > 1e-8;
    return sd;
  };
  Side primal = judge(true), dual = judge(false);
  if (ipm->modelType == IPM_MODEL_QP) {
    const bool anyTight = (primal.blocked && !primal.notTight) || (dual.blocked && !dual.notTight);
    if (primal.blocked || dual.blocked) primal.unblockedShort = dual.unblockedShort = false;
    if (anyTight) primal.notTight = dual.notTight = false;
  }
  if (primal.unblockedShort) {
    if (log) log("Error VerifyStepsize: iteration=%d  primal move not blocked, but alphaPrimal=%15.7g",
                 ipm->iteration, ap);
    status = IPM_STATUS_FAILED;
  }
  if (dual.unblockedShort) {
    if (log) log("Error VerifyStepsize: iteration=%d  dual move not blocked, but alphaDual=%15.7g",
                 ipm->iteration, ad);
    status = IPM_STATUS_FAILED;
  }
  auto notTight = [&](const Side& sd, int32_t block, const char* format) {
    if (!sd.notTight) return;
    if (log) {
      log(format, ipm->iteration, block);
      log("                                ineqn=%15.7g   lower=%15.7g   upper=%15.7g", sd.row,
          sd.lower, sd.upper);
    }
    status = IPM_STATUS_FAILED;
  };
  notTight(primal, ipm->blockPrimal,
           "Error VerifyStepsize: iteration=%d  index=%d  primal step size is not tight");
  notTight(dual, ipm->blockDual,
           "Error VerifyStepsize: iteration=%d  index=%d  dual step size is not tight");
  trace(ipm, level, "%7hTRACE: %malpha primal   = %15.7g", ap);
  trace(ipm, level, "%7hTRACE: %malpha dual     = %15.7g", ad);
  return status;
}

int32_t VerifySolution(Ipm* ipm, int32_t level) {
  if (level < kIteration) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  auto positive = [&](const char* what, int32_t k, double v) {
    if (v >= kSignTol) return;
    if (log) log("Error VerifySolution: iteration=%d  %s(%d)=%15.7g should be positive",
                 ipm->iteration, what, k, v);
    status = IPM_STATUS_FAILED;
  };
  auto zero = [&](const char* what, int32_t k, double v) {
    if (v == 0.0) return;
    if (log) log("Error VerifySolution: iteration=%d  %s(%d)=%15.7g should be zero",
                 ipm->iteration, what, k, v);
    status = IPM_STATUS_FAILED;
  };
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (hasLower(t)) {
      positive("lower bounded slack", j, ipm->lowerSlack[j]);
      positive("lower bounded dual", j, ipm->lowerDual[j]);
    } else {
      zero("lower unbounded slack", j, ipm->lowerSlack[j]);
      zero("lower unbounded slack delta", j, ipm->lowerSlackDelta[j]);
      zero("lower unbounded dual", j, ipm->lowerDual[j]);
      zero("lower unbounded dual delta", j, ipm->lowerDualDelta[j]);
    }
    if (hasUpper(t)) {
      positive("upper bounded slack", j, ipm->upperSlack[j]);
      positive("upper bounded dual", j, ipm->upperDual[j]);
    } else {
      zero("upper unbounded slack", j, ipm->upperSlack[j]);
      zero("upper unbounded slack delta", j, ipm->upperSlackDelta[j]);
      zero("upper unbounded dual", j, ipm->upperDual[j]);
      zero("upper unbounded dual delta", j, ipm->upperDualDelta[j]);
    }
  }
  for (int32_t i = 0; i < ipm->numRow; i++) {
    if (isIneqn(ipm, i)) {
      positive("ineqn slack", i, ipm->ineqnSlack[i]);
      positive("ineqn dual", i, ipm->solDual[i]);
    } else {
      zero("eqn slack", i, ipm->ineqnSlack[i]);
      zero("eqn slack delta", i, ipm->ineqnSlackDelta[i]);
    }
  }
  return status;
}

void VerifySummaryReport(Ipm* ipm, int32_t level) {
  if (level < kTrace) return;
  trace(ipm, level, "%7hTRACE: %mmu               = %15.7g", ipm->mu);
  trace(ipm, level, "%7hTRACE: %mobj primal       = %15.7g", ipm->objValuePrimal);
  trace(ipm, level, "%7hTRACE: %mobj dual         = %15.7g", ipm->objValueDual);
  trace(ipm, level, "%7hTRACE: %mdivisor          = %15.7g", ipm->divisor);
}

void VerifyPredictorReport(Ipm* ipm, int32_t level) {
  if (level < kTrace) return;
  trace(ipm, level, "%7hTRACE: %mmuAffine         = %15.7g", ipm->muAffine);
  trace(ipm, level, "%7hTRACE: %msigma            = %15.7g", ipm->sigma);
}

void VerifyStatistics(Ipm* ipm, int32_t level) {
  if (level < kStructure) return;
  TextLogFn log = logOf(ipm);
  if (!log) return;
  log("%7hTRACE: %m         numRow = %d", ipm->numRow);
  log("%7hTRACE: %m         numCol = %d", ipm->numCol);
  log("%7hTRACE: %m        numCoef = %d", ipm->numCoef);
  log("%7hTRACE: %m       numIneqn = %d", ipm->numIneqn);
  log("%7hTRACE: %m numVarLowerBnd = %d", ipm->numVarLowerBnd);
  log("%7hTRACE: %m numVarUpperBnd = %d", ipm->numVarUpperBnd);
  log("%7hTRACE: %m          normA = %15.7g", ipm->normA);
  log("%7hTRACE: %m        normObj = %15.7g", ipm->normObj);
  log("%7hTRACE: %m        normRhs = %15.7g", ipm->normRhs);
  log("%7hTRACE: %m      normLower = %15.7g", ipm->normLower);
  log("%7hTRACE: %m      normUpper = %15.7g", ipm->normUpper);
  log("%7hTRACE: %m   freeVarLimit = %15.7g", ipm->freeVarLimit);
  log("%7hTRACE: %m ");
}

// The off-diagonal part of an augmented matrix, whole or with rows and
// columns left out, against the model's A (and Q when it is in) by one
// random product.  Diagonals are left to their setters and not compared.
int32_t VerifyAugValue(Ipm* ipm, int32_t level, const int32_t* begin, const int32_t* index,
                       const double* value, const int32_t* colMap, int32_t numColMapped,
                       const int32_t* rowMap, int32_t numRowMapped) {
  if (level < kStructure) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  const int32_t n = ipm->numCol, m = ipm->numRow;
  int32_t cols = 0, rows = 0;
  for (int32_t j = 0; j < n; j++) cols += !colMap || colMap[j] >= 0;
  for (int32_t i = 0; i < m; i++) rows += !rowMap || rowMap[i] >= 0;
  if (cols != numColMapped) {
    if (log) log("Error VerifyAugValue: numColMapped=%d, but counted as %d", numColMapped, cols);
    status = IPM_STATUS_FAILED;
  }
  if (rows != numRowMapped) {
    if (log) log("Error VerifyAugValue: numRowMapped=%d, but counted as %d", numRowMapped, rows);
    status = IPM_STATUS_FAILED;
  }
  if (status) return status;
  const int32_t dim = cols + rows;
  QVPool* pool = ipm->env->pool;
  double* z = poolNew<double>(pool, 3 * (int64_t)dim + 1, true);
  if (!z) return IPM_STATUS_OUT_OF_MEMORY;
  double* result = z + dim;
  double* augResult = result + dim;
  int64_t seed = 4711;
  for (int32_t k = 0; k < dim; k++) z[k] = 2.0 * zranuni(&seed) - 1.0;
  for (int32_t c = 0; c < dim; c++)
    for (int32_t p = begin[c]; p < begin[c + 1]; p++)
      if (index[p] != c) result[index[p]] += value[p] * z[c];
  // Q is in the matrix when its entries are counted in.
  int64_t aCount = 0;
  for (int32_t j = 0; j < n; j++) {
    if (colMap && colMap[j] < 0) continue;
    for (int32_t k = ipm->colBegin[j]; k < ipm->colBegin[j] + ipm->colLength[j]; k++)
      aCount += !rowMap || rowMap[ipm->rowIndex[k]] >= 0;
  }
  const bool quad = !colMap && ipm->modelType == IPM_MODEL_QP && ipm->numQuadCoef > 0 &&
                    begin[dim] == dim + 2 * (aCount + ipm->numQuadCoef);
  for (int32_t j = 0; j < n; j++) {
    const int32_t c = colMap ? colMap[j] : j;
    if (c < 0) continue;
    for (int32_t k = ipm->colBegin[j]; k < ipm->colBegin[j] + ipm->colLength[j]; k++) {
      const int32_t r = rowMap ? rowMap[ipm->rowIndex[k]] : ipm->rowIndex[k];
      if (r < 0) continue;
      augResult[cols + r] -= ipm->matValue[k] * z[c];
      augResult[c] -= ipm->matValue[k] * z[cols + r];
    }
    if (!quad) continue;
    for (int32_t k = ipm->quadColBegin[j]; k < ipm->quadColBegin[j] + ipm->quadColLength[j]; k++) {
      const int32_t i = ipm->quadRowIndex[k];
      augResult[i] += ipm->quadMatValue[k] * z[j];
      augResult[j] += ipm->quadMatValue[k] * z[i];
    }
  }
  for (int32_t k = 0; k < dim; k++) {
    const double diff = result[k] - augResult[k];
    if (fabs(diff) <= 1e-12 * fmax(1.0, fabs(augResult[k]))) continue;
    if (log)
      log("Error VerifyAugValue: result(%d)=%15.7g  augResult(%d)=%15.7g  diff=%15.7g", k,
          result[k], k, augResult[k], diff);
    status = IPM_STATUS_FAILED;
  }
  poolFree(pool, z);
  return status;
}

namespace {

// A map of the starting point, compacted to the rows or columns the model
// still has, against the sub-model's map it came from.
int32_t checkInitMap(HalvexEnv* env, const char* check, const char* bigName, int32_t numBig,
                     const char* skipName, int32_t numSkip, const char* mapName,
                     const char* subName, const int32_t* subMap, int32_t subCount,
                     const int32_t* map, int32_t count) {
  TextLogFn log = env ? env->textLog : nullptr;
  char text[128];
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    char line[192];
    snprintf(line, sizeof line, "Error %s: %s", check, format);
    if (log) log(line, values...);
    status = IPM_STATUS_FAILED;
  };
  if (numBig <= 0) {
    snprintf(text, sizeof text, "%s=%%d  control should not come here", bigName);
    fail(text, numBig);
    return status;
  }
  if (!subMap) return status;
  int32_t pos = 0, normal = 0, skip = 0, counter = 0;
  for (int32_t i = 0; i < subCount; i++) {
    const int32_t v = subMap[i];
    if (v >= subCount) {
      snprintf(text, sizeof text, "unknown mapping type %s(%%d)=%%d", subName);
      fail(text, i, v);
      continue;
    }
    if (v < -1) {  // left out of the numbering altogether
      counter++;
      continue;
    }
    if (v >= 0 && v != normal) fail("pos=%d  skip=%d  i=%d", normal, skip, i);
    if (v >= 0)
      normal++;
    else
      skip++;
    if (pos < count && map[pos] != v) {
      snprintf(text, sizeof text, "%s(%%d)=%%d  %s(%%d)=%%d", mapName, subName);
      fail(text, pos, map[pos], i, v);
    }
    pos++;
  }
  if (pos != count) fail("pos=%d  numRow=%d", pos, count);
  if (counter != numSkip) {
    snprintf(text, sizeof text, "counter=%%d  %s=%%d", skipName);
    fail(text, counter, numSkip);
  }
  return status;
}

}  // namespace

int32_t VerifyInitRowMap(HalvexEnv* env, int32_t level, const subModel* sub, const int32_t* rowMap,
                         int32_t numRow) {
  if (level < kStructure) return 0;
  if (env && env->textLog) env->textLog("running debug code......");
  return checkInitMap(env, "VerifyInitRowMap", "numRhsBigAll", sub->numRhsBigAll, "numRhsBigIneqn",
                      sub->numRhsBigIneqn, "rowMap", "rhsMapSub", sub->rhsMapSub, sub->numRow,
                      rowMap, numRow);
}

int32_t VerifyInitColMap(HalvexEnv* env, int32_t level, const subModel* sub, const int32_t* colMap,
                         int32_t numCol) {
  if (level < kStructure) return 0;
  if (env && env->textLog) env->textLog("running debug code......");
  return checkInitMap(env, "VerifyInitColMap", "numObjBigAll", sub->numObjBigAll,
                      "numObjBigBounded", sub->numObjBigBounded, "colMap", "objMapSub",
                      sub->objMapSub, sub->numCol, colMap, numCol);
}

// A debugging aid with no caller: how far the point may move along random
// directions before a column bound stops it, the rows left aside.
int32_t VerifyDomainShape(Ipm* ipm, int32_t level) {
  if (level < 9) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  if (!log) return 0;
  const int32_t n = ipm->numCol, kDirections = 16;
  double* d = ipm->scratchA;
  int64_t seed = 1013;
  double normMin = HUGE_VAL, normMax = 0.0, normSum = 0.0;
  log("nomrObj=%15.7g", norm2(n, ipm->obj));
  for (int32_t t = 0; t < kDirections; t++) {
    for (int32_t j = 0; j < n; j++) d[j] = 2.0 * zranuni(&seed) - 1.0;
    const double length = norm2(n, d);
    double step = HUGE_VAL;
    for (int32_t j = 0; j < n && length > 0.0; j++) {
      const double dj = d[j] / length, x = ipm->solPrimal[j];
      const uint8_t ty = ipm->varBndType[j];
      if (dj > 0.0 && hasUpper(ty)) step = fmin(step, (ipm->upper[j] - x) / dj);
      if (dj < 0.0 && hasLower(ty)) step = fmin(step, (ipm->lower[j] - x) / dj);
    }
    normMin = fmin(normMin, step);
    normMax = fmax(normMax, step);
    normSum += step;
  }
  clearBuffer(n, d);
  log("DomainShape: normMin=%15.7g  normMax=%15.7g  normAvg=%15.7g", normMin, normMax,
      normSum / kDirections);
  return 0;
}

namespace {

// The texts of one symmetric-matrix check; the augmented matrix and the
// equation solver's matrices are held to the same rules under their names.
struct SymTexts {
  const char* colLength;
  const char* rowRange;
  const char* duplicate;
  const char* missing;  // may be null
  const char* notSymAt;
  const char* invalid;
  const char* countActual;
  const char* countBegin;  // numCoef, numDim, begin[numDim]; or (count, begin) for the KKT form
  const char* notSymValue;
  bool kktForm;
};

const SymTexts kSymTexts = {
    "Error VerifySymMatrix: colLength(%d)=%d should between (0, %d)",
    "Error VerifySymMatrix: in column %d, rowIndex(%d)=%d should between (0, %d)",
    "Error VerifySymMatrix: in column %d, rowIndex(%d)=rowIndex(%d)=%d",
    "Error VerifySymMatrix: in column %d, rowIndex(%d)=%d doesn't exist",
    "Error VerifySymMatrix: not symmetric at element col=%d row=%d",
    "Error VerifySymMatrix: invalid matrix component matValue(%d,%d)=%g",
    "Error VerifySymMatrix: numCoef=%d <> actual=%d",
    "Error VerifySymMatrix: numCoef=%d <> colBegin(%d)=%d",
    "Error VerifySymMatrix: not symmetric matValue(%d,%d)=%g  matValue(%d,%d)=%g",
    false};

const SymTexts kKktTexts = {
    "Error KKT matrix: colLength(%d)=%d should between (0, %d)",
    "Error KKT matrix: in column %d, rowIndex(%d)=%d should between (0, %d)",
    "Error KKT matrix: in column %d, rowIndex(%d)=rowIndex(%d)=%d",
    nullptr,
    "Error KKT matrix: not symmetric at element col=%d row=%d",
    "Error KKT matrix: invalid matrix component KKT(%d,%d)=%g",
    "Error KKT matrix: input number of nonzero coefficients = %d, actually value = %d",
    "Error KKT matrix: number of nonzero coefficients = %d, colBegin(numDim) = %d",
    "Error KKT matrix: not symmetric KKT(%d,%d)=%g  KKT(%d,%d)=%g",
    true};

int32_t checkSymmetric(HalvexEnv* env, const SymTexts& t, int32_t numDim, int32_t numCoef,
                       const int32_t* skip, const int32_t* begin, const int32_t* length,
                       const int32_t* index, const double* value) {
  TextLogFn log = env ? env->textLog : nullptr;
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  auto endOf = [&](int32_t j) { return length ? begin[j] + length[j] : begin[j + 1]; };
  auto live = [&](int32_t j) { return !skip || skip[j] >= 0; };
  // The shape first: the mirror search below trusts it.
  int64_t total = 0;
  bool shapeOk = true;
  for (int32_t j = 0; j < numDim; j++) {
    if (!live(j)) continue;
    const int32_t len = endOf(j) - begin[j];
    if (len < 0 || len > numDim) {
      fail(t.colLength, j, len, numDim);
      shapeOk = false;
      continue;
    }
    total += len;
    for (int32_t k = begin[j]; k < begin[j] + len; k++) {
      const int32_t i = index[k];
      if (i < 0 || i >= numDim) {
        fail(t.rowRange, j, k, i, numDim);
        shapeOk = false;
        continue;
      }
      const double v = fabs(value[k]);
      // Left to the implementer: the limits of 1e-16 and 1e20 hold off the
      // diagonal only.  A diagonal is the iteration's z/s or s/y, or the
      // tiny regularisation that follows them, which near the end spans far
      // beyond both without being wrong; there only a value that is not
      // finite is.  The augmented matrix holds its diagonal as zeros until
      // the first iteration fills it, so only size makes its other entries
      // invalid.
      const bool bad = i == j ? !(v < HUGE_VAL) : (v >= 1e20 || v != v || (!t.kktForm && v < 1e-16));
      if (bad) fail(t.invalid, i, j, value[k]);
    }
  }
  if (total != numCoef) fail(t.countActual, numCoef, (int32_t)total);
  if (!length && !skip && begin[numDim] != numCoef) {
    if (t.kktForm)
      fail(t.countBegin, numCoef, begin[numDim]);
    else
      fail(t.countBegin, numCoef, numDim, begin[numDim]);
  }
  if (!shapeOk || numDim <= 0) return status;

  // Mirrors through a transposed copy and a marker of the column at hand,
  // linear in the entries: dense columns must not make the check quadratic.
  QVPool* pool = env->pool;
  int32_t* tBegin = poolNew<int32_t>(pool, (int64_t)numDim + 1, true);
  int32_t* mark = poolNew<int32_t>(pool, numDim, false);
  int32_t* tIndex = poolNew<int32_t>(pool, total > 0 ? total : 1, false);
  double* tValue = poolNew<double>(pool, total > 0 ? total : 1, false);
  if (!tBegin || !mark || !tIndex || !tValue) {
    status = IPM_STATUS_OUT_OF_MEMORY;
  } else {
    for (int32_t j = 0; j < numDim; j++)
      if (live(j))
        for (int32_t k = begin[j]; k < endOf(j); k++) tBegin[index[k] + 1]++;
    for (int32_t i = 0; i < numDim; i++) tBegin[i + 1] += tBegin[i];
    for (int32_t j = 0; j < numDim; j++) {
      mark[j] = -1;
      if (!live(j)) continue;
      for (int32_t k = begin[j]; k < endOf(j); k++) {
        const int32_t p = tBegin[index[k]]++;
        tIndex[p] = j;
        tValue[p] = value[k];
      }
    }
    for (int32_t i = numDim; i > 0; i--) tBegin[i] = tBegin[i - 1];
    tBegin[0] = 0;
    for (int32_t j = 0; j < numDim; j++) {
      if (!live(j)) continue;
      for (int32_t k = begin[j]; k < endOf(j); k++) {
        const int32_t i = index[k];
        if (mark[i] >= 0)
          fail(t.duplicate, j, mark[i], k, i);
        else
          mark[i] = k;
      }
      // Row j of the matrix, entry by entry: column c holds (j, c).
      for (int32_t p = tBegin[j]; p < tBegin[j + 1]; p++) {
        const int32_t c = tIndex[p];
        if (c == j) continue;
        if (mark[c] < 0) {
          if (t.missing) fail(t.missing, j, p, c);
          fail(t.notSymAt, c, j);
          continue;
        }
        if (c < j) continue;  // the pair was compared from column c
        const double a = value[mark[c]], b = tValue[p];
        const double scale = fabs(a) > fabs(b) ? fabs(a) : fabs(b);
        // The augmented matrix is built by two routes and may differ in the
        // last bits; the equation solver's copies are mirrored exactly.
        const double tol = t.kktForm ? (scale * 1e-8 > 1e-10 ? scale * 1e-8 : (scale > 1e-15 ? 1e-10 : 1e-15))
                                     : 1e-15 * scale;
        if (!(fabs(a - b) <= tol)) fail(t.notSymValue, c, j, a, j, c, b);
      }
      for (int32_t k = begin[j]; k < endOf(j); k++) mark[index[k]] = -1;
    }
  }
  if (tBegin) poolFree(pool, tBegin);
  if (mark) poolFree(pool, mark);
  if (tIndex) poolFree(pool, tIndex);
  if (tValue) poolFree(pool, tValue);
  return status;
}

}  // namespace

int32_t VerifySymMatrix(HalvexEnv* env, int32_t level, int32_t numDim, int32_t numCoef,
                        const int32_t* skip, const int32_t* begin, const int32_t* length,
                        const int32_t* index, const double* value) {
  if (level < kStructure) return 0;
  if (env && env->textLog) env->textLog("running debug code......");
  return checkSymmetric(env, kSymTexts, numDim, numCoef, skip, begin, length, index, value);
}

int32_t VerifyVector(HalvexEnv* env, int32_t level, int32_t length, const double* vector) {
  if (level < kStructure) return 0;
  TextLogFn log = env ? env->textLog : nullptr;
  if (log) log("running debug code......");
  int32_t status = 0;
  for (int32_t k = 0; k < length; k++) {
    const double v = fabs(vector[k]);
    if (v < 1e20 && (v == 0.0 || v >= 1e-16)) continue;  // NaN fails both
    if (log) log("Error VerifyVector: invalid vector element vector(%d)=%g", k, vector[k]);
    status = IPM_STATUS_FAILED;
  }
  return status;
}

int32_t VerifySubmodel(HalvexEnv* env, int32_t level, ipmModel* model, subModel* sub) {
  if (level < kStructure) return 0;
  TextLogFn log = env ? env->textLog : nullptr;
  if (log) log("running debug code......");
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  const int32_t m = model->numRow, n = model->numCol;
  if (sub->numRow != m)
    fail("Error VerifySubmodel: submodel->numRow=%d <> model->numRow=%d", sub->numRow, m);
  if (sub->numCol != n)
    fail("Error VerifySubmodel: submodel->numCol=%d <> model->numCol=%d", sub->numCol, n);
  if (sub->numObjBigBounded > sub->numObjBigAll)
    fail("Error VerifySubmodel: numObjBigBounded=%d should not be greater than numObjBigAll=%d",
         sub->numObjBigBounded, sub->numObjBigAll);
  if (sub->numRhsBigIneqn > sub->numRhsBigAll)
    fail("Error VerifySubmodel: numRhsBigIneqn=%d should not be greater than numRhsBigAll=%d",
         sub->numRhsBigIneqn, sub->numRhsBigAll);
  if (sub->numObjBigAll < 0 || sub->numObjBigAll > n)
    fail("Error VerifySubmodel: numObjBigAll=%d  numCol=%d", sub->numObjBigAll, n);
  if (sub->numRhsBigAll < 0 || sub->numRhsBigAll > m)
    fail("Error VerifySubmodel: numRhsBigAll=%d  numCol=%d", sub->numRhsBigAll, m);
  if (sub->numBoundBig < 0 || sub->numBoundBig > n)
    fail("Error VerifySubmodel: numBoundBig=%d  numCol=%d", sub->numBoundBig, n);
  // Nothing below can be read with sizes that do not fit.
  if (status) return status;

  const double big = sub->thresholdBig, bigBound = sub->thresholdBigBound;
  // The module's own "no bound": the option's infinity is not at hand here.
  const double inf = 1e20;
  auto bigRow = [&](int32_t i) {
    return !(model->rhs[i] > -big && model->rhs[i] < big) && model->rowSense[i] != 'E';
  };
  auto bigCol = [&](int32_t j) {
    const bool free = model->lower[j] <= -inf && model->upper[j] >= inf;
    return !(model->obj[j] > -big && model->obj[j] < big) && !free;
  };
  auto boundStatus = [&](int32_t j) {
    return (model->lower[j] > -inf && model->lower[j] <= -bigBound ? SUB_BIG_LOWER : 0) |
           (model->upper[j] < inf && model->upper[j] >= bigBound ? SUB_BIG_UPPER : 0);
  };
  if (log) {
    log("%2zsubmodel->thresholdBig     = %15.7g", big);
    log("%2zsubmodel->numObjBigBounded = %d", sub->numObjBigBounded);
    log("%2zsubmodel->numObjBigAll     = %d", sub->numObjBigAll);
    log("%2zsubmodel->numRhsBigIneqn   = %d", sub->numRhsBigIneqn);
    log("%2zsubmodel->numRhsBigAll     = %d", sub->numRhsBigAll);
    log("%2zsubmodel->numBoundBig      = %d", sub->numBoundBig);
    for (int32_t i = 0; i < m; i++)
      if (bigRow(i)) log("    markBigRhs(%d) %c = %15.7g", i, model->rowSense[i], model->rhs[i]);
    for (int32_t j = 0; j < n; j++)
      if (bigCol(j))
        log("    markBigObj(%d) = %15.7g  lb=%15.7g  ub=%15.7g", j, model->obj[j], model->lower[j],
            model->upper[j]);
    for (int32_t j = 0; j < n; j++)
      if (boundStatus(j))
        log("    markBigBound(%d)  lb=%15.7g  ub=%15.7g", j, model->lower[j], model->upper[j]);
  }

  struct Part {
    int32_t count;
    const char* name;
    const void* arrays[8];
    const char* names[8];
  };
  const Part parts[] = {
      {sub->numRhsBigAll,
       "row-wise",
       {sub->rhsMapSub, sub->idxRowSub, sub->rowBeginSub, sub->rowLengthSub, sub->colIndexSub,
        sub->rowMatValueSub, sub->rhsSub, sub->rowSenseSub},
       {"rhsMapSub", "idxRowSub", "rowBeginSub", "rowLengthSub", "colIndexSub", "rowMatValueSub",
        "rhsSub", "rowSenseSub"}},
      {sub->numObjBigAll,
       "column-wise",
       {sub->objMapSub, sub->idxColSub, sub->colBeginSub, sub->colLengthSub, sub->rowIndexSub,
        sub->matValueSub, sub->objSub, nullptr},
       {"objMapSub", "idxColSub", "colBeginSub", "colLengthSub", "rowIndexSub", "matValueSub",
        "objSub", nullptr}},
      {sub->numBoundBig,
       "bound",
       {sub->idxBoundSub, sub->lowerSub, sub->upperSub},
       {"idxBoundSub", "lowerSub", "upperSub"}},
  };
  for (const Part& part : parts) {
    if (part.count != 0) continue;
    for (int k = 0; k < 8 && part.names[k]; k++)
      if (part.arrays[k])
        fail("Error VerifySubmodel: no %s sub-matrix, %s should be null", part.name, part.names[k]);
  }
  if (sub->numRhsBigAll == 0 && sub->numRhsBigIneqn)
    fail("Error VerifySubmodel: no row-wise sub-matrix, numRhsBigIneqn=%d", sub->numRhsBigIneqn);
  if (sub->numRhsBigAll == 0 && sub->numCoefRowSub)
    fail("Error VerifySubmodel: no row-wise sub-matrix, numCoefRowSub=%d", sub->numCoefRowSub);
  if (sub->numObjBigAll == 0 && sub->numObjBigBounded)
    fail("Error VerifySubmodel: no column-wise sub-matrix, numObjBigBounded=%d",
         sub->numObjBigBounded);
  if (sub->numObjBigAll == 0 && sub->numCoefColSub)
    fail("Error VerifySubmodel: no column-wise sub-matrix, numCoefColSub=%d", sub->numCoefColSub);
  if (status) return status;

  // A map numbers the normal items in order and holds -1, or a code of its
  // own below that, on the marked ones.
  auto checkMap = [&](const int32_t* map, int32_t count, auto isBig, const char* normal,
                      const char* skipped, const char* counter) {
    if (!map) return;
    int32_t next = 0, marked = 0;
    for (int32_t k = 0; k < count; k++) {
      if (isBig(k)) {
        marked++;
        if (map[k] >= 0) fail(skipped, k, map[k], -1);
      } else if (map[k] != next++) {
        fail(normal, k, map[k], next - 1);
      }
    }
    if (next + marked != count) fail(counter);
  };
  checkMap(sub->rhsMapSub, m, bigRow,
           "Error VerifySubmodel: normal row mapping(%d)=%d should be %d",
           "Error VerifySubmodel: skipped row mapping(%d)=%d should be %d",
           "Error VerifySubmodel: wrong row mapping counter");
  checkMap(sub->objMapSub, n, bigCol,
           "Error VerifySubmodel: normal column mapping(%d)=%d should be %d",
           "Error VerifySubmodel: skipped column mapping(%d)=%d should be %d",
           "Error VerifySubmodel: wrong column mapping counter");
  if (sub->rowMapSub && sub->numRhsBigIneqn == 0)
    fail("Error VerifySubmodel: rowMap is not NULL, numRhsBigIneqn=%d", sub->numRhsBigIneqn);
  if (!sub->rowMapSub && sub->numRhsBigIneqn != 0)
    fail("Error VerifySubmodel: rowMap is NULL, numRhsBigIneqn=%d should be zero",
         sub->numRhsBigIneqn);
  if (sub->colMapSub && sub->numObjBigBounded == 0)
    fail("Error VerifySubmodel: colMap is not NULL, numObjBigBounded=%d", sub->numObjBigBounded);
  if (!sub->colMapSub && sub->numObjBigBounded != 0)
    fail("Error VerifySubmodel: colMap is NULL, numObjBigBounded=%d should be zero",
         sub->numObjBigBounded);

  auto checkList = [&](const int32_t* idx, int32_t count, int32_t limit, auto isBig,
                       const char* unmarked, const char* twice) {
    for (int32_t k = 0; k < count; k++) {
      const int32_t v = idx[k];
      if (v < 0 || v >= limit || !isBig(v)) fail(unmarked, k, v);
      if (k > 0 && idx[k - 1] >= v) fail(twice, k - 1, k, v);
    }
  };
  if (sub->idxRowSub)
    checkList(sub->idxRowSub, sub->numRhsBigAll, m, bigRow,
              "Error VerifySubmodel: idxRowSub(%d) = %d is not marked",
              "Error VerifySubmodel: idxRowSub(%d) = idxRowSub(%d) = %d");
  if (sub->idxColSub)
    checkList(sub->idxColSub, sub->numObjBigAll, n, bigCol,
              "Error VerifySubmodel: idxColSub(%d) = %d is not marked",
              "Error VerifySubmodel: idxColSub(%d) = idxColSub(%d) = %d");
  if (status) return status;  // the copies below are indexed through the lists

  QVPool* pool = env->pool;
  double* work = poolNew<double>(pool, 2 * ((int64_t)m + n) + 1, true);
  if (!work) return IPM_STATUS_OUT_OF_MEMORY;
  double* x = work;
  double* ax = x + n;
  double* y = ax + m;
  double* aty = y + m;
  for (int32_t k = 0; k < sub->numBoundBig && sub->idxBoundSub; k++) {
    const int32_t j = sub->idxBoundSub[k];
    if (j < 0 || j >= n || boundStatus(j) == 0) {
      fail("Error VerifySubmodel: idxBoundSub(%d) = %d should not be marked", k, j);
      continue;
    }
    if (k > 0 && sub->idxBoundSub[k - 1] >= j)
      fail("Error VerifySubmodel: idxBoundSub(%d) = idxBoundSub(%d) = %d", k - 1, k, j);
    x[j] = 1.0;
    const int32_t st = sub->statusBoundSub ? sub->statusBoundSub[k] : 0;
    if (st < 1 || st > 3) fail("Error VerifySubmodel: unknown statusBoundSub(%d) = %d", k, st);
    if ((st & SUB_BIG_LOWER) && !(boundStatus(j) & SUB_BIG_LOWER))
      fail("Error VerifySubmodel: lower(%d)=%15.7g should not be marked", j, model->lower[j]);
    if ((st & SUB_BIG_UPPER) && !(boundStatus(j) & SUB_BIG_UPPER))
      fail("Error VerifySubmodel: upper(%d)=%15.7g should not be marked", j, model->upper[j]);
    if (sub->lowerSub && sub->lowerSub[k] != model->lower[j])
      fail("Error VerifySubmodel: lowerSub(%d)=%15.7g   model->lower(%d)=%15.7g", k,
           sub->lowerSub[k], j, model->lower[j]);
    if (sub->upperSub && sub->upperSub[k] != model->upper[j])
      fail("Error VerifySubmodel: upperSub(%d)=%15.7g   model->upper(%d)=%15.7g", k,
           sub->upperSub[k], j, model->upper[j]);
  }
  for (int32_t j = 0; j < n; j++) {
    if (boundStatus(j) && x[j] == 0.0)
      fail("Error VerifySubmodel: %d  lower=%15.7g upper=%15.7g is not marked", j, model->lower[j],
           model->upper[j]);
    x[j] = 0.0;
  }

  for (int32_t k = 0; k < sub->numRhsBigAll; k++) {
    const int32_t i = sub->idxRowSub[k];
    if (sub->rhsSub[k] != model->rhs[i])
      fail("Error VerifySubmodel: rhsSub(%d)=%15.7g   rhs(%d)=%15.7g", k, sub->rhsSub[k], i,
           model->rhs[i]);
    if (sub->rowSenseSub[k] != model->rowSense[i])
      fail("Error VerifySubmodel: rowSenseSub(%d)=%c   rowSense(%d)=%c", k, sub->rowSenseSub[k], i,
           model->rowSense[i]);
  }
  for (int32_t k = 0; k < sub->numObjBigAll; k++) {
    const int32_t j = sub->idxColSub[k];
    if (sub->objSub[k] != model->obj[j])
      fail("Error VerifySubmodel: objSub(%d)=%15.7g   obj(%d)=%15.7g", k, sub->objSub[k], j,
           model->obj[j]);
  }

  // The copies of the big rows and columns against the model's matrix, by
  // one random product each way.
  int64_t seed = 1999;
  for (int32_t j = 0; j < n; j++) x[j] = 2.0 * zranuni(&seed) - 1.0;
  for (int32_t i = 0; i < m; i++) y[i] = 2.0 * zranuni(&seed) - 1.0;
  matrixTimesVector(m, n, model->colBegin, model->colLength, model->rowIndex, model->matValue, x,
                    ax);
  vectorTimesMatrix(n, model->colBegin, model->colLength, model->rowIndex, model->matValue, y, aty);
  for (int32_t k = 0; k < sub->numRhsBigAll; k++) {
    const int32_t i = sub->idxRowSub[k];
    double act = 0.0, size = 0.0;
    const int32_t b = sub->rowBeginSub[k], e = b + sub->rowLengthSub[k];
    for (int32_t p = b; p < e; p++) {
      act += sub->rowMatValueSub[p] * x[sub->colIndexSub[p]];
      size += fabs(sub->rowMatValueSub[p] * x[sub->colIndexSub[p]]);
    }
    if (fabs(act - ax[i]) <= 1e-12 * fmax(1.0, size)) continue;
    fail("Error VerifySubmodel: row activity sub(%d)=%15.7g  model(%d)=%15.7g", k, act, i, ax[i]);
    if (!log) continue;
    log("=================== sub(%d) ===================", k);
    for (int32_t p = b; p < e; p++)
      log("%d: coef=%15.7g  sol=%15.7g", sub->colIndexSub[p], sub->rowMatValueSub[p],
          x[sub->colIndexSub[p]]);
    log("=================== model(%d) ===================", i);
    for (int32_t j = 0; j < n; j++)
      for (int32_t p = model->colBegin[j]; p < model->colBegin[j] + model->colLength[j]; p++)
        if (model->rowIndex[p] == i)
          log("%d: coef=%15.7g  sol=%15.7g", j, model->matValue[p], x[j]);
  }
  for (int32_t k = 0; k < sub->numObjBigAll; k++) {
    const int32_t j = sub->idxColSub[k];
    double act = 0.0, size = 0.0;
    for (int32_t p = sub->colBeginSub[k]; p < sub->colBeginSub[k] + sub->colLengthSub[k]; p++) {
      act += sub->matValueSub[p] * y[sub->rowIndexSub[p]];
      size += fabs(sub->matValueSub[p] * y[sub->rowIndexSub[p]]);
    }
    if (!(fabs(act - aty[j]) <= 1e-12 * fmax(1.0, size)))
      fail("Error VerifySubmodel: column activity sub(%d)=%15.7g  model(%d)=%15.7g", k, act, j,
           aty[j]);
  }
  poolFree(pool, work);
  return status;
}

// The augmented matrix as built: [Q A'; A 0] with A negated, both
// triangles, the diagonal in place.  Q's off-diagonal part is there only
// when the builder was asked for it; the count tells which.
int32_t VerifyKKTmatrix(Ipm* ipm, int32_t level) {
  if (level < kStructure) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  auto fail = [&](const char* format, auto... values) {
    if (log) log(format, values...);
    status = IPM_STATUS_FAILED;
  };
  const int32_t n = ipm->numCol, m = ipm->numRow, dim = ipm->numDim;
  if (dim != n + m) {
    fail("Error KKT matrix: numDim=%d <> ( numRow=%d + numCol=%d = %d)", dim, m, n, n + m);
    return status;
  }
  const int64_t full = (int64_t)dim + 2 * ((int64_t)ipm->numCoef + ipm->numQuadCoef);
  const int64_t noQuad = (int64_t)dim + 2 * (int64_t)ipm->numCoef;
  if (ipm->numIpmCoef != full) fail("Error KKT matrix: numIpmCoef=%d should be %d", ipm->numIpmCoef, (int32_t)full);
  const int32_t count = ipm->kktBegin[dim];
  if (count != full && count != noQuad) {
    fail(kKktTexts.countBegin, ipm->numIpmCoef, count);
    return status;
  }
  const bool quadIn = count != noQuad;
  int32_t st = checkSymmetric(ipm->env, kKktTexts, dim, count, nullptr, ipm->kktBegin, nullptr,
                              ipm->kktIndex, ipm->kktValue);
  if (st == IPM_STATUS_OUT_OF_MEMORY) return st;
  if (st) status = st;

  int32_t* rowMark = ipm->scratchInt;
  for (int32_t i = 0; i < m; i++) rowMark[i] = -1;
  for (int32_t j = 0; j < n; j++) {
    const int32_t aEnd = ipm->colBegin[j] + ipm->colLength[j];
    for (int32_t k = ipm->colBegin[j]; k < aEnd; k++) rowMark[ipm->rowIndex[k]] = k;
    for (int32_t p = ipm->kktBegin[j]; p < ipm->kktBegin[j + 1]; p++) {
      const int32_t r = ipm->kktIndex[p];
      const double v = ipm->kktValue[p];
      if (r == j || r < 0 || r >= dim) continue;
      if (r >= n) {
        const int32_t i = r - n, k = rowMark[i];
        if (k < 0)
          fail("Error KKT matrix: wrong row index mat(%d,%d) should refer to A(%d,%d) + numCol=%d ",
               r, j, i, j, n);
        else if (v != -ipm->matValue[k])
          fail("Error KKT matrix: wrong matValue(%d,%d)=%g should refer to A(%d,%d)=%g", r, j, v, i,
               j, ipm->matValue[k]);
        continue;
      }
      // Q keeps its strict lower triangle: (r, j) lives in column min(r, j).
      const int32_t lo = r < j ? r : j, hi = r < j ? j : r;
      int32_t found = -1;
      if (quadIn && ipm->quadColBegin && ipm->quadColLength) {
        const int32_t qEnd = ipm->quadColBegin[lo] + ipm->quadColLength[lo];
        for (int32_t k = ipm->quadColBegin[lo]; k < qEnd; k++)
          if (ipm->quadRowIndex[k] == hi) found = k;
      }
      if (found < 0)
        fail("Error KKT matrix: wrong row index mat(%d,%d) should refer to Q(%d,%d)", r, j, hi, lo);
      else if (v != ipm->quadMatValue[found])
        fail("Error KKT matrix: wrong matValue(%d,%d)=%g should refer to Q(%d,%d)=%g", r, j, v, hi,
             lo, ipm->quadMatValue[found]);
    }
    for (int32_t k = ipm->colBegin[j]; k < aEnd; k++) rowMark[ipm->rowIndex[k]] = -1;
  }
  for (int32_t i = 0; i < m; i++) rowMark[i] = 0;
  return status;
}

namespace {

// A diagonal index array: entry k must point at the diagonal of column
// first + k of the augmented matrix, each diagonal once.
int32_t checkDiagIndex(Ipm* ipm, const int32_t* diag, int32_t length, int32_t first,
                       const char* name, const char* prefix) {
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  const int32_t dim = ipm->numDim, total = ipm->kktBegin[dim];
  int32_t* seen = ipm->scratchInt;
  for (int32_t k = 0; k < length; k++) seen[k] = 0;
  for (int32_t k = 0; k < length; k++) {
    const int32_t p = diag[k];
    if (p < 0 || p >= total) {
      if (log) log("Error %s: %s(%d)=%d is out of range", prefix, name, k, p);
      status = IPM_STATUS_FAILED;
      continue;
    }
    // The column that holds position p.
    int32_t lo = 0, hi = dim - 1;
    while (lo < hi) {
      const int32_t mid = lo + (hi - lo + 1) / 2;
      if (ipm->kktBegin[mid] <= p) lo = mid; else hi = mid - 1;
    }
    const int32_t col = lo, row = ipm->kktIndex[p];
    if (row != col || col != first + k) {
      if (log) log("Error %s: %s(%d)=%d doesn't refer to diagonal row=%d  col=%d", prefix, name, k,
                   p, row, col);
      status = IPM_STATUS_FAILED;
      if (row != col || col < first || col >= first + length) continue;
    }
    if (seen[col - first]++) {
      if (log) log("Error %s: %s(%d)=%d is duplicate", prefix, name, k, p);
      status = IPM_STATUS_FAILED;
    }
  }
  for (int32_t k = 0; k < length; k++) {
    if (!seen[k]) {
      if (log) log("Error %s: row %d is not defined in %s", prefix, k, name);
      status = IPM_STATUS_FAILED;
    }
    seen[k] = 0;
  }
  return status;
}

}  // namespace

int32_t VerifyIneqnEnv(Ipm* ipm, int32_t level) {
  if (level < kStructure) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  int32_t counter = 0;
  for (int32_t i = 0; i < ipm->numRow; i++) counter += isIneqn(ipm, i);
  for (int32_t k = 0; k < ipm->numIneqn; k++) {
    const int32_t i = ipm->ineqnIndex[k];
    if (i < 0 || i >= ipm->numRow) {
      if (log) log("Error IneqnEnv: wrong index ineqnIndex(%d)=%d", k, i);
      status = IPM_STATUS_FAILED;
    } else if (!isIneqn(ipm, i)) {
      if (log) log("Error IneqnEnv: rowSense(%d)=%c should be 'G'", i, ipm->rowSense[i]);
      status = IPM_STATUS_FAILED;
    }
  }
  if (counter != ipm->numIneqn) {
    if (log) log("Error IneqnEnv: numIneqn=%d, actual counter is %d", ipm->numIneqn, counter);
    status = IPM_STATUS_FAILED;
  }
  if (checkDiagIndex(ipm, ipm->ineqnDiagIndex, ipm->numRow, ipm->numCol, "ineqnDiagIndex",
                     "IneqnEnv"))
    status = IPM_STATUS_FAILED;
  return status;
}

int32_t VerifyBoundEnv(Ipm* ipm, int32_t level) {
  if (level < kStructure) return 0;
  running(ipm);
  return checkDiagIndex(ipm, ipm->varBndDiagIndex, ipm->numCol, 0, "varBndDiagIndex", "BoundEnv");
}

int32_t VerifyBoundFeasible(Ipm* ipm, int32_t level, const double* x) {
  if (level < kIteration) return 0;
  running(ipm);
  TextLogFn log = logOf(ipm);
  const double tol = (ipm->normLower + 1.0 + ipm->normUpper) * 1e-10;
  int32_t status = 0;
  for (int32_t j = 0; j < ipm->numCol; j++) {
    const uint8_t t = ipm->varBndType[j];
    if (hasLower(t) && ipm->lower[j] > x[j] + tol) {
      if (log) log("Error VerifyBoundFeasible: lower(%d) = %15.7g > %15.7g", j, ipm->lower[j], x[j]);
      status = IPM_STATUS_FAILED;
    }
    if (hasUpper(t) && ipm->upper[j] < x[j] - tol) {
      if (log) log("Error VerifyBoundFeasible: upper(%d) = %15.7g < %15.7g", j, ipm->upper[j], x[j]);
      status = IPM_STATUS_FAILED;
    }
  }
  return status;
}

namespace {

// The starting points solve one augmented system each, the solution left in
// vecRhs.  The right side is rebuilt here from the model, the diagonal read
// from the matrix as set, and one block of K z - r compared with zero,
// element by element, against the size of the terms of that element.
enum class StartSystem { Primal, Dual };
enum class Block { Rows, Columns };

double startRight(const Ipm* ipm, StartSystem which, int32_t k) {
  const int32_t n = ipm->numCol;
  if (k >= n) return which == StartSystem::Primal ? -ipm->rhs[k - n] : 0.0;
  const uint8_t t = ipm->varBndType[k];
  const bool qp = ipm->modelType == IPM_MODEL_QP;
  if (which == StartSystem::Primal) {
    double r = qp ? ipm->obj[k] : 0.0;
    if (hasLower(t)) r -= ipm->lower[k];
    if (hasUpper(t)) r -= ipm->upper[k];
    return r;
  }
  return -ipm->obj[k];  // a QP's -Qx is added by the caller
}

int32_t startBlock(Ipm* ipm, int32_t level, StartSystem which, Block block, double tol,
                   bool relative, const char* format) {
  if (level < kIteration) return 0;
  running(ipm);
  const int32_t n = ipm->numCol, m = ipm->numRow, big = n > m ? n : m;
  const bool rows = block == Block::Rows;
  const int32_t first = rows ? n : 0, count = rows ? m : n;
  double* kz = ipm->scratchA;
  double* size = ipm->scratchB;
  const double* z = ipm->vecRhs;
  for (int32_t c = 0; c < ipm->numDim; c++)
    for (int32_t p = ipm->kktBegin[c]; p < ipm->kktBegin[c + 1]; p++) {
      const int32_t r = ipm->kktIndex[p] - first;
      if (r < 0 || r >= count) continue;
      const double term = ipm->kktValue[p] * z[c];
      kz[r] += term;
      size[r] += fabs(term);
    }
  if (which == StartSystem::Dual && !rows && ipm->modelType == IPM_MODEL_QP && ipm->quadDiag) {
    // The dual start's right side carries -Qx at the primal start; it moves
    // to the left here as +Qx.
    const bool offDiag = ipm->numQuadCoef > 0;
    symmatrixTimesVector(n, offDiag ? ipm->quadColBegin : nullptr,
                         offDiag ? ipm->quadColLength : nullptr, ipm->quadRowIndex,
                         ipm->quadMatValue, ipm->quadDiag, ipm->solPrimal, kz, 1.0);
  }
  TextLogFn log = logOf(ipm);
  int32_t status = 0;
  for (int32_t k = 0; k < count; k++) {
    const double right = startRight(ipm, which, first + k);
    const double res = kz[k] - right;
    const double scale = relative ? fmax(1.0, fmax(fabs(right), size[k])) : 1.0;
    if (!(fabs(res) <= tol * scale)) {
      if (log) log(format, k, res);
      status = IPM_STATUS_FAILED;
    }
  }
  clearBuffer(big, kz);
  clearBuffer(big, size);
  return status;
}

}  // namespace

int32_t VerifyPrimalFeasible(Ipm* ipm, int32_t level) {
  return startBlock(ipm, level, StartSystem::Primal, Block::Rows, kMeasureTol, true,
                    "Error VerifyPrimalFeasible: primal residual (%d) = %15.7g");
}

int32_t VerifyInitDerivPrimal(Ipm* ipm, int32_t level) {
  return startBlock(ipm, level, StartSystem::Primal, Block::Columns, kMeasureTol, true,
                    "Error VerifyInitDerivPrimal: deriv residual (%d) = %15.7g");
}

int32_t VerifyDualFeasible(Ipm* ipm, int32_t level) {
  return startBlock(ipm, level, StartSystem::Dual, Block::Columns, kMeasureTol, true,
                    "Error VerifyDualFeasible: dual residual (%d) = %15.7g");
}

int32_t VerifyInitDerivDual(Ipm* ipm, int32_t level) {
  return startBlock(ipm, level, StartSystem::Dual, Block::Rows, kMeasureTol, false,
                    "Error VerifyInitDerivDual: deriv residual (%d) = %15.7g");
}

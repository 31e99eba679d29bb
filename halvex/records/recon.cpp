// Path-following solver for the separable one-row QP of ReconRecord.
//
// With a diagonal Hessian and a single all-ones row, eliminating the bound
// slacks and duals leaves a diagonal system bordered by one row, so every
// Newton step is two O(n) sweeps and one scalar division.  There is no
// predictor: a pass costs so little that plain centring is the cheaper bet.
#include "records/recon.h"

#include <math.h>

namespace {

constexpr double kCentring = 0.5;
constexpr double kStepDamping = 0.9999;
constexpr double kPositiveFloor = 1e-15;
constexpr double kStart = 100.0;
constexpr double kStartDual = 10.0;
constexpr double kTinySumInv = 1e-17;
constexpr double kSumInvFallback = 1e-11;

inline bool hasLower(uint8_t f) { return (f & RECON_HAS_LOWER) != 0; }
inline bool hasUpper(uint8_t f) { return (f & RECON_HAS_UPPER) != 0; }

// A record the solver can walk without reading outside the caller's arrays.
// With n == 0 nothing is read, so the arrays may then be absent.
bool wellFormed(const ReconRecord* r) {
  if (!r || r->n < 0) return false;
  if (r->n == 0) return true;
  return r->q && r->c && r->lower && r->upper && r->flags && r->x && r->lowerSlack &&
         r->upperSlack && r->lowerDual && r->upperDual && r->step && r->inverse;
}

}  // namespace

void qpPositiveness(double floor, int32_t n, const uint8_t* flags, double* lowerSlack,
                    double* upperSlack, double* lowerDual, double* upperDual) {
  if (n <= 0 || !flags || !lowerSlack || !upperSlack || !lowerDual || !upperDual) return;
  for (int32_t i = 0; i < n; ++i) {
    if (hasLower(flags[i])) {
      if (lowerSlack[i] < floor) lowerSlack[i] = floor;
      if (lowerDual[i] < floor) lowerDual[i] = floor;
    }
    if (hasUpper(flags[i])) {
      if (upperSlack[i] < floor) upperSlack[i] = floor;
      if (upperDual[i] < floor) upperDual[i] = floor;
    }
  }
}

int32_t qpReconQP(ReconRecord* record) {
  // A malformed record counts as infeasible: the host gets a clear "no
  // solution" and nothing is touched.
  if (!wellFormed(record)) return RECON_INFEASIBLE;

  const int32_t n = record->n;
  const double* q = record->q;
  const double* c = record->c;
  const double* lower = record->lower;
  const double* upper = record->upper;
  const uint8_t* flags = record->flags;
  const double b = record->b;
  double* x = record->x;
  double* s = record->lowerSlack;
  double* t = record->upperSlack;
  double* z = record->lowerDual;
  double* w = record->upperDual;
  double* step = record->step;
  double* inverse = record->inverse;

  // NaN on the diagonal is rejected with the negatives.  A free variable
  // (no flags) with q_i = 0 is rejected too: nothing in the Newton system
  // would hold it, its pivot is 0, and the iterates would turn to NaN.
  bool anyFree = false;
  for (int32_t i = 0; i < n; ++i) {
    if (!(q[i] >= 0.0)) return RECON_BAD_DIAGONAL;
    if ((flags[i] & (RECON_HAS_LOWER | RECON_HAS_UPPER)) == 0) {
      anyFree = true;
      if (q[i] == 0.0) return RECON_BAD_DIAGONAL;
    }
  }
  for (int32_t i = 0; i < n; ++i) {
    if (hasLower(flags[i]) && hasUpper(flags[i]) && lower[i] > upper[i]) return RECON_INFEASIBLE;
  }

  // When every variable is held on some side, the sums of the bounds decide
  // at once whether b is out of reach or pins the whole vector to one side.
  if (!anyFree) {
    double minSum = 0.0, maxSum = 0.0;
    bool lowerMissing = false, upperMissing = false;
    for (int32_t i = 0; i < n; ++i) {
      if (hasLower(flags[i])) minSum += lower[i];
      else lowerMissing = true;
      if (hasUpper(flags[i])) maxSum += upper[i];
      else upperMissing = true;
    }
    if (lowerMissing) minSum = -record->big;
    if (upperMissing) maxSum = record->big;

    const double tol = record->primalTol;
    double lo, hi;
    if (b > 1.0) {
      lo = (1.0 - tol) * b;
      hi = (1.0 + tol) * b;
    } else if (b < -1.0) {
      lo = (1.0 + tol) * b;
      hi = (1.0 - tol) * b;
    } else {
      lo = b - tol;
      hi = b + tol;
    }
    if (hi < minSum || maxSum < lo) return RECON_INFEASIBLE;
    if (lo <= minSum) {
      for (int32_t i = 0; i < n; ++i) x[i] = lower[i];
      return RECON_SOLVED;
    }
    if (maxSum <= hi) {
      for (int32_t i = 0; i < n; ++i) x[i] = upper[i];
      return RECON_SOLVED;
    }
  }

  double cMax = 0.0;
  int64_t m = 0;
  for (int32_t i = 0; i < n; ++i) {
    const double a = fabs(c[i]);
    if (a > cMax) cMax = a;
    m += hasLower(flags[i]) + hasUpper(flags[i]);
  }

  double y = kStartDual;
  for (int32_t i = 0; i < n; ++i) {
    x[i] = kStart;
    s[i] = kStart;
    t[i] = kStart;
    z[i] = kStart;
    w[i] = kStart;
  }

  // Stay zero when no pass runs, so that maxIter 0 reports zeros.
  int32_t iterations = 0;
  double primalResidual = 0.0, dualResidual = 0.0, gap = 0.0, objective = 0.0;
  int32_t status = RECON_SOLVED;

  for (;;) {
    if (iterations >= record->maxIter) {
      status = RECON_ITERATION_LIMIT;
      break;
    }
    ++iterations;

    double muT = 0.0;
    if (m > 0) {
      double comp = 0.0;
      for (int32_t i = 0; i < n; ++i) {
        if (hasLower(flags[i])) comp += z[i] * s[i];
        if (hasUpper(flags[i])) comp += w[i] * t[i];
      }
      muT = kCentring * comp / (double)m;
    }

    double sumInv = 0.0;
    for (int32_t i = 0; i < n; ++i) {
      double d = q[i];
      if (hasLower(flags[i])) d += z[i] / s[i];
      if (hasUpper(flags[i])) d += w[i] / t[i];
      inverse[i] = 1.0 / d;
      sumInv += inverse[i];
    }
    if (sumInv < kTinySumInv || n == 0) sumInv = kSumInvFallback;

    double rest = b;
    for (int32_t i = 0; i < n; ++i) {
      double r = -q[i] * x[i] + y - c[i];
      if (hasLower(flags[i])) r += z[i] + (muT - z[i] * (x[i] - lower[i])) / s[i];
      if (hasUpper(flags[i])) r += ((upper[i] - x[i]) * w[i] - muT) / t[i] - w[i];
      step[i] = r * inverse[i];
      rest -= x[i] + step[i];
    }

    // The row's multiplier absorbs what the diagonal steps leave of b.
    const double dy = rest / sumInv;
    for (int32_t i = 0; i < n; ++i) step[i] += inverse[i] * dy;

    double top = 0.0;
    for (int32_t i = 0; i < n; ++i) {
      if (hasLower(flags[i])) {
        const double v = x[i] + step[i] - lower[i];
        top = fmax(top, fmax(1.0 - v / s[i], (v - muT / z[i]) / s[i]));
      }
      if (hasUpper(flags[i])) {
        const double v = upper[i] - x[i] - step[i];
        top = fmax(top, fmax(1.0 - v / t[i], (v - muT / w[i]) / t[i]));
      }
    }
    double alpha = 1.0 / fmax(1.0, top);
    if (!(alpha >= 0.0 && alpha <= 1.0)) alpha = 1.0;
    alpha *= kStepDamping;

    y += dy * alpha;
    for (int32_t i = 0; i < n; ++i) {
      if (hasLower(flags[i])) {
        const double v = x[i] + step[i] - lower[i];
        const double sOld = s[i];
        s[i] = sOld + (v - sOld) * alpha;
        z[i] += (muT - v * z[i]) * alpha / sOld;
      }
      if (hasUpper(flags[i])) {
        const double v = upper[i] - x[i] - step[i];
        const double tOld = t[i];
        t[i] = tOld + (v - tOld) * alpha;
        w[i] += (muT - v * w[i]) * alpha / tOld;
      }
      x[i] += step[i] * alpha;
    }

    qpPositiveness(kPositiveFloor, n, flags, s, t, z, w);

    double primal = 0.0, dual = b * y, sumX = 0.0, dualSq = 0.0;
    for (int32_t i = 0; i < n; ++i) {
      const double xi = x[i];
      primal += (0.5 * q[i] * xi + c[i]) * xi;
      dual -= 0.5 * q[i] * xi * xi;
      sumX += xi;
      double g = q[i] * xi - y + c[i];
      if (hasLower(flags[i])) {
        dual += z[i] * lower[i];
        g -= z[i];
      }
      if (hasUpper(flags[i])) {
        dual -= w[i] * upper[i];
        g += w[i];
      }
      dualSq += g * g;
    }
    primalResidual = fabs(b - sumX) / (fabs(b) + 1.0);
    dualResidual = sqrt(dualSq) / (cMax + 1.0);
    gap = fabs(primal - dual) / (fabs(primal) + 1.0);
    objective = primal;

    // Written so that a NaN measure keeps iterating (and ends at the limit)
    // instead of passing for converged.
    if (primalResidual <= record->primalTol && dualResidual <= record->dualTol &&
        gap <= record->gapTol)
      break;
  }

  // The slacks, not x, carry the bounds during the iteration, so x may sit a
  // hair outside them.  Clipped on the limit route as well: a caller that
  // takes the last iterate still gets a point inside its bounds.
  for (int32_t i = 0; i < n; ++i) {
    if (hasLower(flags[i]) && x[i] < lower[i]) x[i] = lower[i];
    if (hasUpper(flags[i]) && x[i] > upper[i]) x[i] = upper[i];
  }

  record->iterations = iterations;
  record->primalResidual = primalResidual;
  record->dualResidual = dualResidual;
  record->gap = gap;
  record->objective = objective;
  return status;
}

// bramlet's row and column scaling: a few geometric-mean passes that shrink
// the spread of magnitudes, then equilibration so that the largest magnitude
// of every row and column is one.  All factors are powers of two, so scaling
// and unscaling are exact in floating point.
#include <cmath>
#include <cstdint>
#include <vector>

#include "siblings/bramlet/bramlet.h"
#include "siblings/bramlet/internal.h"

namespace bramlet {
namespace {

constexpr int kMaxGeometricPass = 12;

// Nearest power of two, in the exponent range where doubles stay exact.
double powerOfTwo(double f) {
  if (!(f > 0.0) || !std::isfinite(f)) return 1.0;
  int e = (int)std::lround(std::log2(f));
  if (e > 512) e = 512;
  if (e < -512) e = -512;
  return std::ldexp(1.0, e);
}

bool finiteValue(double v) { return std::fabs(v) < kInfinity; }

struct MatrixView {
  int32_t numRow, numCol;
  const int32_t* colBegin;
  const int32_t* colLength;
  const int32_t* rowIndex;
  const double* matValue;
  int32_t end(int32_t j) const { return colLength ? colBegin[j] + colLength[j] : colBegin[j + 1]; }
};

// Spread of the scaled magnitudes, max / min over non-zero entries.
double spread(const MatrixView& a, const std::vector<double>& r, const std::vector<double>& c) {
  double mx = 0.0, mn = HUGE_VAL;
  for (int32_t j = 0; j < a.numCol; j++)
    for (int32_t p = a.colBegin[j]; p < a.end(j); p++) {
      const double v = std::fabs(a.matValue[p]) * r[a.rowIndex[p]] * c[j];
      if (v == 0.0) continue;
      if (v > mx) mx = v;
      if (v < mn) mn = v;
    }
  return mx > 0.0 ? mx / mn : 1.0;
}

void computeFactors(const MatrixView& a, std::vector<double>& r, std::vector<double>& c) {
  const int32_t m = a.numRow, n = a.numCol;
  std::vector<double> mx(m), mn(m);
  double current = spread(a, r, c);
  for (int pass = 0; pass < kMaxGeometricPass && current > 1.0; pass++) {
    std::vector<double> oldR = r, oldC = c;
    // Rows.
    std::fill(mx.begin(), mx.end(), 0.0);
    std::fill(mn.begin(), mn.end(), HUGE_VAL);
    for (int32_t j = 0; j < n; j++)
      for (int32_t p = a.colBegin[j]; p < a.end(j); p++) {
        const double v = std::fabs(a.matValue[p]) * c[j];
        if (v == 0.0) continue;
        const int32_t i = a.rowIndex[p];
        if (v > mx[i]) mx[i] = v;
        if (v < mn[i]) mn[i] = v;
      }
    for (int32_t i = 0; i < m; i++)
      if (mx[i] > 0.0) r[i] = powerOfTwo(1.0 / std::sqrt(mx[i] * mn[i]));
    // Columns.
    for (int32_t j = 0; j < n; j++) {
      double cmx = 0.0, cmn = HUGE_VAL;
      for (int32_t p = a.colBegin[j]; p < a.end(j); p++) {
        const double v = std::fabs(a.matValue[p]) * r[a.rowIndex[p]];
        if (v == 0.0) continue;
        if (v > cmx) cmx = v;
        if (v < cmn) cmn = v;
      }
      if (cmx > 0.0) c[j] = powerOfTwo(1.0 / std::sqrt(cmx * cmn));
    }
    const double next = spread(a, r, c);
    if (next > current) {
      r = oldR;
      c = oldC;
      break;
    }
    // A pass that gains less than a tenth is the last one.
    const bool little = next > 0.9 * current;
    current = next;
    if (little) break;
  }
  // Equilibration, rows and then columns, so that each column peaks at one.
  std::fill(mx.begin(), mx.end(), 0.0);
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = a.colBegin[j]; p < a.end(j); p++) {
      const double v = std::fabs(a.matValue[p]) * c[j] * r[a.rowIndex[p]];
      if (v > mx[a.rowIndex[p]]) mx[a.rowIndex[p]] = v;
    }
  for (int32_t i = 0; i < m; i++)
    if (mx[i] > 0.0) r[i] *= powerOfTwo(1.0 / mx[i]);
  for (int32_t j = 0; j < n; j++) {
    double cmx = 0.0;
    for (int32_t p = a.colBegin[j]; p < a.end(j); p++) {
      const double v = std::fabs(a.matValue[p]) * c[j] * r[a.rowIndex[p]];
      if (v > cmx) cmx = v;
    }
    if (cmx > 0.0) c[j] *= powerOfTwo(1.0 / cmx);
  }
}

}  // namespace

int64_t scale(double /*tolerance*/, Instance* /*instance*/, int64_t direction, int64_t numRow,
              int64_t numCol, int64_t /*numCoef*/, int32_t* colBegin, int32_t* colLength,
              int32_t* rowIndex, double* matValue, double* obj, double* lower, double* upper,
              double* rowScale, double* colScale, void*, void*, double* rhs, char* /*rowSense*/,
              double* range, void*, void*, void*, void*) {
  // The tolerance has no use here: the factors are exact powers of two, so
  // nothing that scaling does can cost accuracy.
  if (numRow < 0 || numCol < 0 || numRow > INT32_MAX || numCol > INT32_MAX)
    return IPM_STATUS_FAILED;
  if (!rowScale || !colScale || (numCol > 0 && (!colBegin || !obj || !lower || !upper)) ||
      (numRow > 0 && !rhs))
    return IPM_STATUS_FAILED;
  MatrixView a{(int32_t)numRow, (int32_t)numCol, colBegin, colLength, rowIndex, matValue};
  for (int32_t j = 0; j < a.numCol; j++) {
    if (a.end(j) > colBegin[j] && (!rowIndex || !matValue)) return IPM_STATUS_FAILED;
    for (int32_t p = colBegin[j]; p < a.end(j); p++)
      if (rowIndex[p] < 0 || rowIndex[p] >= numRow) return IPM_STATUS_FAILED;
  }
  std::vector<double> r(a.numRow, 1.0), c(a.numCol, 1.0);
  computeFactors(a, r, c);

  // The objective keeps its size: the solver sizes it by its own rule, and a
  // second normalisation here shrank small objectives until their dual
  // residuals stalled under the solver's stopping test (eight Netlib LPs
  // ended dual infeasible).  The factor entry is still written, as 1, so
  // that the contract of the extra row entry holds.  The crossover's run
  // (direction -1) has no such entry at all.
  const double objFactor = 1.0;

  for (int32_t j = 0; j < a.numCol; j++) {
    for (int32_t p = colBegin[j]; p < a.end(j); p++) matValue[p] *= r[rowIndex[p]] * c[j];
    obj[j] *= objFactor * c[j];
    if (finiteValue(lower[j])) lower[j] /= c[j];
    if (finiteValue(upper[j])) upper[j] /= c[j];
    colScale[j] = c[j];
  }
  for (int32_t i = 0; i < a.numRow; i++) {
    if (finiteValue(rhs[i])) rhs[i] *= r[i];
    // Rows other than ranges carry a zero width, which any factor keeps.
    if (range && finiteValue(range[i])) range[i] *= r[i];
    rowScale[i] = r[i];
  }
  if (direction == 1) {
    rowScale[numRow] = objFactor;
    colScale[numCol] = 1.0;
  }
  return 0;
}

int64_t unscale(int64_t direction, int64_t numRow, int64_t numCol, int32_t* colBegin,
                int32_t* colLength, int32_t* rowIndex, double* matValue, double* rhs,
                double* range, double* obj, double* lower, double* upper, void*, void*,
                double* rowScale, double* colScale, double* solPrimal, double* solDual,
                double* reducedCost, double* rowActivity) {
  if (numRow < 0 || numCol < 0 || numRow > INT32_MAX || numCol > INT32_MAX)
    return IPM_STATUS_FAILED;
  if (!rowScale || !colScale || (numCol > 0 && !colBegin)) return IPM_STATUS_FAILED;
  const int32_t m = (int32_t)numRow, n = (int32_t)numCol;
  const double objFactor = direction == 1 ? rowScale[m] : 1.0;
  for (int32_t j = 0; j < n; j++) {
    const double c = colScale[j];
    const int32_t end = colLength ? colBegin[j] + colLength[j] : colBegin[j + 1];
    if (matValue && rowIndex)
      for (int32_t p = colBegin[j]; p < end; p++) matValue[p] /= rowScale[rowIndex[p]] * c;
    if (obj) obj[j] /= objFactor * c;
    if (lower && finiteValue(lower[j])) lower[j] *= c;
    if (upper && finiteValue(upper[j])) upper[j] *= c;
    if (solPrimal) solPrimal[j] *= c;
    if (reducedCost) reducedCost[j] /= objFactor * c;
  }
  for (int32_t i = 0; i < m; i++) {
    const double r = rowScale[i];
    if (rhs && finiteValue(rhs[i])) rhs[i] /= r;
    if (range && finiteValue(range[i])) range[i] /= r;
    if (solDual) solDual[i] *= r / objFactor;
    if (rowActivity) rowActivity[i] /= r;
  }
  return 0;
}

}  // namespace bramlet

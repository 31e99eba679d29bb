#include "claim.h"

#include <cmath>
#include <cstdio>

#include "records/host_records.h"

namespace hxcli {

namespace {

using Real = long double;

// The reader's "no bound".
bool finite(double v) { return std::fabs(v) < 1e20; }

std::string figure(const char* what, double value, double limit) {
  char text[128];
  std::snprintf(text, sizeof text, "%s %.2e > %.1e", what, value, limit);
  return text;
}

}  // namespace

ClaimCheck checkClaim(const MpsProblem& p, const std::vector<double>& x,
                      const std::vector<double>& rowDual, int32_t returnCode, double primalTol,
                      double dualTol, double gapTol) {
  ClaimCheck c;
  double factor;
  if (returnCode == QP_RETURN_OPTIMAL)
    factor = 10.0;
  else if (returnCode == QP_RETURN_ACCEPTABLE)
    factor = 1000.0;
  else
    return c;  // infeasible and limit statuses claim no optimum
  const int32_t n = p.numCol(), m = p.numRow();
  if ((int32_t)x.size() != n || (int32_t)rowDual.size() != m) return c;
  c.checked = true;

  // A maximisation is checked as the minimisation of the negated objective,
  // whose row duals are the reported ones negated.
  const Real sense = p.objSense < 0 ? -1.0L : 1.0L;

  // Row activities and Qx, in long double.
  std::vector<Real> activity(m, 0.0L), qx(n, 0.0L);
  for (int32_t j = 0; j < n; ++j)
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k)
      activity[p.rowIndex[k]] += (Real)p.value[k] * x[j];
  if (!p.quadDiag.empty()) {
    for (int32_t j = 0; j < n; ++j) {
      qx[j] += (Real)p.quadDiag[j] * x[j];
      for (int32_t k = p.quadColBegin[j]; k < p.quadColBegin[j + 1]; ++k) {
        const int32_t i = p.quadRowIndex[k];
        qx[i] += (Real)p.quadValue[k] * x[j];
        qx[j] += (Real)p.quadValue[k] * x[i];
      }
    }
  }

  Real primal = 0.0L, quad = 0.0L, objective = p.objConstant;
  for (int32_t j = 0; j < n; ++j) {
    objective += (Real)p.obj[j] * x[j];
    quad += qx[j] * x[j];
    const double lo = p.colLower[j], up = p.colUpper[j];
    Real v = 0.0L;
    if (finite(lo) && x[j] < lo) v = (lo - (Real)x[j]) / (1.0L + std::fabs(lo));
    if (finite(up) && x[j] > up) v = ((Real)x[j] - up) / (1.0L + std::fabs(up));
    if (v > primal) primal = v;
  }
  objective += quad / 2;
  for (int32_t i = 0; i < m; ++i) {
    if (p.rowSense[i] == 'N') continue;
    const double lo = p.rowLower[i], up = p.rowUpper[i];
    Real v = 0.0L;
    if (finite(lo) && activity[i] < lo) v = (lo - activity[i]) / (1.0L + std::fabs(lo));
    if (finite(up) && activity[i] > up) v = (activity[i] - up) / (1.0L + std::fabs(up));
    if (v > primal) primal = v;
  }

  // Reduced costs z = c + Qx - A'y of the minimisation.  A dual of either
  // sign is fine where its bound exists; where it does not, it is a dual
  // infeasibility.  The dual objective takes each dual at the end it prices.
  Real dual = 0.0L, dualObjective = sense * (Real)p.objConstant - sense * quad / 2;
  std::vector<Real> z(n);
  for (int32_t j = 0; j < n; ++j) z[j] = sense * ((Real)p.obj[j] + qx[j]);
  for (int32_t i = 0; i < m; ++i) {
    if (p.rowSense[i] == 'N') continue;
    const Real y = sense * (Real)rowDual[i];
    const double lo = p.rowLower[i], up = p.rowUpper[i];
    if (y > 0) {
      if (finite(lo)) dualObjective += y * lo;
      else dual = std::fmax(dual, y);
    } else if (y < 0) {
      if (finite(up)) dualObjective += y * up;
      else dual = std::fmax(dual, -y);
    }
  }
  for (int32_t j = 0; j < n; ++j)
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k)
      if (p.rowSense[p.rowIndex[k]] != 'N') z[j] -= (Real)p.value[k] * sense * rowDual[p.rowIndex[k]];
  for (int32_t j = 0; j < n; ++j) {
    const double lo = p.colLower[j], up = p.colUpper[j];
    const Real scale = 1.0L + std::fabs((Real)p.obj[j]);
    if (z[j] > 0) {
      if (finite(lo)) dualObjective += z[j] * lo;
      else dual = std::fmax(dual, z[j] / scale);
    } else if (z[j] < 0) {
      if (finite(up)) dualObjective += z[j] * up;
      else dual = std::fmax(dual, -z[j] / scale);
    }
  }

  c.primalResidual = (double)primal;
  c.dualResidual = (double)dual;
  c.primalObjective = (double)objective;
  c.dualObjective = (double)(sense * dualObjective);
  c.relativeGap = (double)(std::fabs(objective - sense * dualObjective) /
                           (1.0L + std::fabs(objective)));
  if (c.primalResidual > factor * primalTol)
    c.failure = figure("primal residual", c.primalResidual, factor * primalTol);
  else if (c.dualResidual > factor * dualTol)
    c.failure = figure("dual residual", c.dualResidual, factor * dualTol);
  else if (c.relativeGap > factor * gapTol)
    c.failure = figure("relative gap", c.relativeGap, factor * gapTol);
  c.verified = c.failure.empty();
  return c;
}

ClaimCheck checkClaim(const MpsProblem& p, const QPModel& m, int32_t returnCode,
                      double primalTol, double dualTol, double gapTol) {
  const QPRecord& r = m.record;
  if (!r.solPrimal || !r.solDual) return ClaimCheck{};
  std::vector<double> x(r.solPrimal, r.solPrimal + p.numCol());
  std::vector<double> rowDual(p.numRow(), 0.0);
  for (size_t k = 0; k < m.recordRow.size(); ++k) rowDual[m.recordRow[k]] = r.solDual[k];
  return checkClaim(p, x, rowDual, returnCode, primalTol, dualTol, gapTol);
}

}  // namespace hxcli

// An independent check of what the solver claims, in the caller's terms: the
// point it returned against the problem as read from the file, in long
// double, before the command prints a status.
#ifndef HALVEX_CLI_CLAIM_H
#define HALVEX_CLI_CLAIM_H

#include <cstdint>
#include <string>
#include <vector>

#include "mps.h"
#include "qprecord.h"

namespace hxcli {

struct ClaimCheck {
  bool checked = false;   // the status makes a claim that a point can show
  bool verified = false;  // the point bears the claim out
  double primalResidual = 0.0;  // worst row or bound violation, relative
  double dualResidual = 0.0;    // worst dual sign violation, relative
  double relativeGap = 0.0;     // |primal - dual objective| / (1 + |primal|)
  double primalObjective = 0.0, dualObjective = 0.0;
  std::string failure;  // the figure that failed, with its value and limit
};

// Tolerances of the claim: "optimal" must hold to ten times the solve's
// tolerances, "acceptable" to a thousand times.  x has one value per column
// and rowDual one per row of p (free rows 0), both in file order.
ClaimCheck checkClaim(const MpsProblem& p, const std::vector<double>& x,
                      const std::vector<double>& rowDual, int32_t returnCode, double primalTol,
                      double dualTol, double gapTol);

// The same on a finished record: the point and row duals of the record,
// free rows given no dual.
ClaimCheck checkClaim(const MpsProblem& p, const QPModel& m, int32_t returnCode,
                      double primalTol, double dualTol, double gapTol);

}  // namespace hxcli

#endif

// The host's LPRecord built from a problem read from a file, the LP
// options the module would choose itself, and the LP host's context.
#ifndef HALVEX_CLI_LPRECORD_H
#define HALVEX_CLI_LPRECORD_H

#include <cstdint>
#include <string>
#include <vector>

#include "mps.h"
#include "output.h"
#include "qprecord.h"
#include "records/host_records.h"

namespace hxcli {

// Owns every array the record points to.  The arrays are those of the QP
// form, free rows left out and room for the range slacks behind the columns
// and entries; the LP form adds the column lengths and the reduced costs.
// Not copyable: the record holds pointers into the vectors.
struct LPModel {
  QPModel qp;
  LPRecord record{};
  std::vector<int32_t> colLength;
  std::vector<double> reducedCost;
  // The objective constant of the file: the entry overwrites the record's
  // with the objective value.
  double objConstant = 0.0;

  LPModel() = default;
  LPModel(const LPModel&) = delete;
  LPModel& operator=(const LPModel&) = delete;
};

// Fills model from p.  Fails, with a reason, for a problem with a quadratic
// part or one too big for 32-bit counts.
bool buildLPRecord(const MpsProblem& p, LPModel* model, std::string* error);

// Puts the record's objective constant and results back to their state
// before a solve, so that the same record can be solved again.
void resetLPRecord(LPModel* model);

// Copies the results of a finished LP call out of the record.
SolveSummary summaryFromLPRecord(const LPRecord& record);

// The LP entry takes a context of the host, not an instance: a pool and
// the host's two log call-backs in the env slots, every other slot empty
// for the entry to fill.
LPContext makeLpContext(QVPool* pool, TextLogFn textLog, MessageLog* messageLog);

}  // namespace hxcli

#endif

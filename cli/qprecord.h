// The host's QPRecord built from a problem read from a file, with the arrays
// behind it.
#ifndef HALVEX_CLI_QPRECORD_H
#define HALVEX_CLI_QPRECORD_H

#include <cstdint>
#include <string>
#include <vector>

#include "mps.h"
#include "records/host_records.h"

namespace hxcli {

// Owns every array the record points to.  Not copyable: the record holds
// pointers into the vectors.
struct QPModel {
  QPRecord record{};

  // Record row k is row recordRow[k] of the problem.  Free rows (sense N)
  // are not passed: the solve has nothing to do with them, and a run with
  // the presolver off would have to cope with them.  Their activity is
  // worked out from the primal values afterwards.
  std::vector<int32_t> recordRow;
  std::vector<int32_t> freeRows;
  int32_t numRange = 0;  // rows passed with sense R

  // Column arrays have numRange spare places at the end, and A numRange
  // spare entries, for the slack columns that the solver adds in place.
  std::vector<int32_t> colBegin, rowIndex, quadColBegin, quadRowIndex;
  std::vector<double> matValue, quadDiag, quadMatValue;
  std::vector<double> obj, lower, upper, rhs, range;
  std::vector<char> rowSense;
  std::vector<double> solPrimal, solDual, rowActivity;

  QPModel() = default;
  QPModel(const QPModel&) = delete;
  QPModel& operator=(const QPModel&) = delete;
};

// Fills model from p.  Fails, with a reason, only when the problem is too
// big for the record's 32-bit counts.
bool buildQPRecord(const MpsProblem& p, QPModel* model, std::string* error);

}  // namespace hxcli

#endif

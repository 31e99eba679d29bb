// What the command tells about a solve: the summary on the terminal, the
// JSON record and the solution file.
#ifndef HALVEX_CLI_OUTPUT_H
#define HALVEX_CLI_OUTPUT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "claim.h"
#include "mps.h"
#include "qprecord.h"
#include "records/siblings.h"

namespace hxcli {

// One line of the iteration log, at full precision.
struct IterationRow {
  int32_t iteration = 0;
  double complementarity = 0.0, dualityGap = 0.0;
  double primalInfeas = 0.0, boundInfeas = 0.0, dualInfeas = 0.0;
};

struct SolveSummary {
  std::string file;
  std::string entry;  // the module's entry that solved: ipqpmain or iplpmain
  int32_t returnCode = 8;  // the host return code of ipqpmain
  double objective = 0.0;
  int32_t iterations = 0;
  double primalInfeas = 0.0, dualInfeas = 0.0, boundInfeas = 0.0;
  double dualityGap = 0.0, complementarity = 0.0;
  double readTime = 0.0;    // reading and building the record, wall clock
  double solverTime = 0.0;  // as the solver reports it
  double solveTime = 0.0;   // the call, wall clock
  double totalTime = 0.0;
  // Crossover of an LP: whether it ran, what it did, and the basis it left
  // (one status per record column, then per record row), empty without one.
  bool crossover = false;
  FennickStats crossoverStats{};
  std::vector<uint8_t> basis;
  bool hasBasis() const { return !basis.empty(); }
  ClaimCheck claim;  // the command's own check of the status
  std::vector<IterationRow> history;  // every iteration the solver logged
};

// Copies the results of a finished call out of the record.
SolveSummary summaryFromRecord(const QPRecord& record, int32_t returnCode);

// "optimal", "primal infeasible", ...; "unknown" for a code no solver gives.
const char* statusName(int32_t returnCode);

// Whether the record holds a point after a call with this code: the solver
// clears it on every ending but success and the two limits.
bool hasPoint(int32_t returnCode);

void printProblem(FILE* out, const MpsProblem& p, const QPModel& model, const std::string& file);
void printSummary(FILE* out, const SolveSummary& s);

// Both write to an open stream and return false if the writes failed.
bool writeJson(FILE* out, const MpsProblem& p, const SolveSummary& s);
bool writeSolution(FILE* out, const MpsProblem& p, const QPModel& model, const SolveSummary& s);

// The basis as an MPS basis file (XU, XL, UL records; LL is the default and
// left out).  Needs s.hasBasis().
bool writeBasis(FILE* out, const MpsProblem& p, const QPModel& model, const SolveSummary& s);

// "BS", "LB", "UB", "FR", "FX" for the basis statuses, "--" for none.
const char* basisName(uint8_t status);

}  // namespace hxcli

#endif

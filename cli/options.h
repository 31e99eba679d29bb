// The options of `halvex solve`, parsed apart from main so that the tests
// reach them.
#ifndef HALVEX_CLI_OPTIONS_H
#define HALVEX_CLI_OPTIONS_H

#include <cstdint>
#include <string>

#include "mps.h"
#include "records/host_records.h"

namespace hxcli {

// The presolve level when --presolve is not given: the module's own default.
constexpr int kPresolveUnset = -2;

// The command's tolerances when none is given.  The module's own 1e-6 lets
// answers end a few 1e-6 from the optimum (a relative gap does not bound the
// objective's error); users compare with solvers that answer to about 1e-8,
// so the command asks for that.  Front ends over the command (the Python
// package) take the same.  The check of a claim still holds an answer to the
// module's own tolerances unless the user gave some: the tighter target is
// the command's choice, not a promise that the user asked for.
constexpr double kCommandTol = 1e-8;
inline double solveTol(double given) { return given > 0 ? given : kCommandTol; }
inline double claimTol(double given) { return given > 0 ? given : OPT_DEFAULT_TOL; }

struct SolveOptions {
  std::string file;
  MpsFormat format = MpsFormat::Auto;
  double primalTol = -1, dualTol = -1, gapTol = -1;  // -1: not given
  int64_t maxIteration = -1;
  double maxTime = -1;
  int timerType = -1;
  int threads = -1;
  // -1 automatic, 0 off, 1 to 3 the LP presolver's levels; a QP knows only
  // off and on, and takes every level but 0 as on.
  int presolve = kPresolveUnset;
  bool lpAsQp = false;  // an LP goes through the QP entry
  // An LP crosses over to a vertex and a basis unless told otherwise; a QP
  // never does.
  bool crossover = true;
  int printLevel = 2;
  int printFreq = -1;
  // The LP entry's self-checks, 0 to 9; -1 not given.  A QP always runs
  // with 0.
  int verifyLevel = -1;
  std::string jsonFile, solutionFile, basisFile, library;
};

// Parses argv[first] to argv[argc - 1].  On a usage error returns false with
// the message (no "halvex:" in front) in error.
bool parseSolveArgs(int argc, const char* const* argv, int first, SolveOptions* o,
                    std::string* error);

}  // namespace hxcli

#endif

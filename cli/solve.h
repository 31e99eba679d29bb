// One problem through the module, as the command solves it: the record for
// the right entry, the options, the crossover's basis, the iteration history
// and the check of the claim.  The command and the Python package share it.
#ifndef HALVEX_CLI_SOLVE_H
#define HALVEX_CLI_SOLVE_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/host.h"
#include "lprecord.h"
#include "mps.h"
#include "options.h"
#include "output.h"

namespace hxcli {

// Stands between the module and the host's message log.  The solver is run
// with a line per iteration so that the history is whole; only the lines the
// user asked for (every shownFreq-th, none for 0) reach the host.
struct HistoryLog {
  MessageLog slots;  // first: the module calls through it
  MessageLog* inner = nullptr;
  int shownFreq = 1;
  std::vector<IterationRow> rows;
  // The last row held back by shownFreq: the solver always shows its final
  // iteration, so the row goes out when the table turns out to have ended.
  bool pending = false;
  int lastShown = -1;

  HistoryLog(MessageLog* inner, int shownFreq);
  HistoryLog(const HistoryLog&) = delete;
  HistoryLog& operator=(const HistoryLog&) = delete;
  // Shows a held-back last row, if any; called when the solve returns.
  void flush();
  // Whether messages of a value signature ('i', 'd' in call order) reach
  // the host with their values; every code of the catalogue must.
  static bool forwards(const char* signature);
};

// A problem made ready for its entry, and what the solve gave.
struct SolveJob {
  bool lpEntry = false;
  LPModel lp;  // lp.qp is the QP form, which the LP form shares
  SolveSummary summary;
  QPModel& model() { return lp.qp; }
  const QPModel& model() const { return lp.qp; }
};

// The entry an LP goes to (unless o.lpAsQp) and its record.  Fails, with a
// reason, for a problem too big for the record.
bool prepareJob(const MpsProblem& p, const SolveOptions& o, SolveJob* job, std::string* reason);

// Solves a prepared job on a loaded module, then checks the claim.  The
// break call-back and its data go into the record; log, if not null, is
// the message log to wrap (else the host's).  Fails, with a reason, only
// when the module cannot make an instance or a pool.
bool runJob(hxhost::Host& host, hxhost::HalvexModule& module, const hxhost::HalvexEntries& entries,
            const MpsProblem& p, const SolveOptions& o, SolverBreakFn checkBreak,
            void* breakData, SolveJob* job, std::string* reason);

// Per problem row (free rows included, their dual 0), from a finished job.
std::vector<double> rowActivities(const MpsProblem& p, const SolveJob& job);
std::vector<double> rowDuals(const MpsProblem& p, const SolveJob& job);

}  // namespace hxcli

#endif

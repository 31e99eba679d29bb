#include "solve.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <thread>

#include "claim.h"

namespace hxcli {

namespace {

// The iteration table's heading, rule and line, as the solver logs them.
constexpr int64_t kTableLine = (int64_t)(int32_t)0x827FD804;

// The value signatures of the catalogue, each passed on as it came.
const char* const kForwarded[] = {"", "i", "ii", "d", "iddddd"};

void forward(MessageLog* inner, int32_t severity, int64_t code, const char* signature,
             const int64_t* i, const double* d) {
  if (!inner || !inner->log) return;
  const std::string s = signature ? signature : "";
  if (s == "i")
    inner->log(inner, severity, code, (int)i[0]);
  else if (s == "ii")
    inner->log(inner, severity, code, (int)i[0], (int)i[1]);
  else if (s == "d")
    inner->log(inner, severity, code, d[0]);
  else if (s == "iddddd")
    inner->log(inner, severity, code, (int)i[0], d[0], d[1], d[2], d[3], d[4]);
  else
    inner->log(inner, severity, code);
}

void showRow(HistoryLog* h, const IterationRow& r) {
  const int64_t ints[1] = {r.iteration};
  const double reals[5] = {r.complementarity, r.dualityGap, r.primalInfeas, r.boundInfeas,
                           r.dualInfeas};
  forward(h->inner, MSG_TABLE_LINE, kTableLine, "iddddd", ints, reals);
  h->lastShown = r.iteration;
  h->pending = false;
}

void historyEntry(MessageLog* self, int32_t severity, int64_t code, ...) {
  HistoryLog* h = reinterpret_cast<HistoryLog*>(self);
  const char* signature = hxhost::messageSignature(code);
  int64_t ints[8] = {0};
  double reals[8] = {0};
  int ni = 0, nr = 0;
  va_list ap;
  va_start(ap, code);
  for (const char* s = signature ? signature : ""; *s; ++s) {
    if (*s == 'i' && ni < 8)
      ints[ni++] = va_arg(ap, int);
    else if (*s == 'd' && nr < 8)
      reals[nr++] = va_arg(ap, double);
  }
  va_end(ap);
  if (code == kTableLine && ni == 1 && nr == 5) {
    IterationRow r{(int32_t)ints[0], reals[0], reals[1], reals[2], reals[3], reals[4]};
    // An iteration that the solver took back and logs again replaces the
    // old row, so the history runs forward.
    while (!h->rows.empty() && h->rows.back().iteration >= r.iteration) h->rows.pop_back();
    h->rows.push_back(r);
    if (h->shownFreq > 0) {
      if (r.iteration % h->shownFreq == 0)
        showRow(h, r);
      else
        h->pending = true;
    }
    return;
  }
  if (severity == MSG_TABLE_HEADING && h->shownFreq <= 0) return;
  h->flush();
  forward(h->inner, severity, code, signature, ints, reals);
}

// Unset, the factorisation may use every core: the module decides per
// matrix whether threads pay, and one thread is its own choice for small ones.
int32_t threadsToUse(const SolveOptions& o) {
  if (o.threads > 0) return o.threads;
  unsigned cores = std::thread::hardware_concurrency();
  return cores > 0 ? (int32_t)cores : 1;
}

// The solver logs every iteration for the history; HistoryLog shows what
// the user asked for.
int shownFrequency(const SolveOptions& o) {
  if (o.printLevel < 2) return 0;
  return o.printFreq >= 0 ? o.printFreq : OPT_DEFAULT_PRINT_FREQ;
}

// The QP entry's options from the command's; unset ones keep the instance's.
void setScripterOptions(const SolveOptions& o, ScripterOptions* so) {
  so->primalTol = solveTol(o.primalTol);
  so->dualTol = solveTol(o.dualTol);
  so->gapTol = solveTol(o.gapTol);
  if (o.maxIteration >= 0) so->maxIteration = (int32_t)o.maxIteration;
  if (o.maxTime > 0) so->maxTime = o.maxTime;
  if (o.timerType >= 0) so->timerType = o.timerType;
  so->numThreads = threadsToUse(o);
  if (o.presolve != kPresolveUnset) so->presolver = o.presolve;
  so->printFreq = 1;
}

void setLpOptions(const SolveOptions& o, LPOptions* lo) {
  setLpOptionDefaults(lo);
  lo->primalTol = solveTol(o.primalTol);
  lo->dualTol = solveTol(o.dualTol);
  lo->gapTol = solveTol(o.gapTol);
  if (o.maxIteration >= 0) lo->maxIteration = (int32_t)o.maxIteration;
  if (o.maxTime > 0) lo->maxTime = o.maxTime;
  if (o.timerType >= 0) lo->timerType = o.timerType;
  lo->numThreads = threadsToUse(o);
  if (o.presolve != kPresolveUnset) lo->presolver = o.presolve;
  if (o.verifyLevel >= 0) lo->verifyLevel = o.verifyLevel;
  // The table that the history needs comes with level 2 only; what a lower
  // level would not print, the caller's sink leaves out.
  lo->printLevel = 2;
  lo->printFreq = 1;
  lo->crossover = o.crossover ? 1 : 0;
}

}  // namespace

HistoryLog::HistoryLog(MessageLog* innerLog, int freq) : inner(innerLog), shownFreq(freq) {
  slots.log = historyEntry;
}

bool HistoryLog::forwards(const char* signature) {
  const std::string s = signature ? signature : "";
  for (const char* f : kForwarded)
    if (s == f) return true;
  return false;
}

void HistoryLog::flush() {
  if (pending && !rows.empty() && rows.back().iteration != lastShown) showRow(this, rows.back());
  pending = false;
}

bool prepareJob(const MpsProblem& p, const SolveOptions& o, SolveJob* job, std::string* reason) {
  job->lpEntry = !p.isQP() && !o.lpAsQp;
  return job->lpEntry ? buildLPRecord(p, &job->lp, reason) : buildQPRecord(p, &job->lp.qp, reason);
}

bool runJob(hxhost::Host& host, hxhost::HalvexModule& module, const hxhost::HalvexEntries& entries,
            const MpsProblem& p, const SolveOptions& o, SolverBreakFn checkBreak,
            void* breakData, SolveJob* job, std::string* reason) {
  HalvexInstance* instance = nullptr;
  QVPool* lpPool = nullptr;
  if (module.ok()) {
    if (job->lpEntry)
      lpPool = host.createPool("HALVEX LP");
    else
      instance = module.createInstance();
  }
  if (!instance && !lpPool) {
    *reason = "the module could not make an instance";
    return false;
  }
  HistoryLog history(host.messageLog(), shownFrequency(o));
  const auto s0 = std::chrono::steady_clock::now();
  SolveSummary& summary = job->summary;
  if (job->lpEntry) {
    LPRecord& record = job->lp.record;
    record.checkSolverBreak = checkBreak;
    record.scripterDataStruct = breakData;
    LPOptions lpOptions;
    setLpOptions(o, &lpOptions);
    // The crossover leaves its basis and its counters where these two
    // sibling words point.
    std::vector<uint8_t> basis((size_t)record.numCol + record.numRow, BASIS_NONE);
    FennickStats stats{};
    if (o.crossover) {
      record.siblingWord[LPRECORD_BASIS_WORD] = reinterpret_cast<int64_t>(basis.data());
      record.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] = reinterpret_cast<int64_t>(&stats);
    }
    LPContext context = makeLpContext(lpPool, host.textLog(), &history.slots);
    entries.iplpmain(&context, &record, &lpOptions);
    record.siblingWord[LPRECORD_BASIS_WORD] = 0;
    record.siblingWord[LPRECORD_CROSSOVER_STATS_WORD] = 0;
    summary = summaryFromLPRecord(record);
    summary.entry = "iplpmain";
    summary.crossover = o.crossover;
    summary.crossoverStats = stats;
    if (o.crossover && std::find(basis.begin(), basis.end(), BASIS_NONE) == basis.end()) {
      // fennick counts on the presolved LP; the caller's LP has its own.
      FennickStats& c = summary.crossoverStats;
      c.numBasic = c.numAtLower = c.numAtUpper = c.numFreeZero = c.numFixed = 0;
      for (uint8_t b : basis) {
        if (b == BASIS_BASIC) c.numBasic++;
        else if (b == BASIS_AT_LOWER) c.numAtLower++;
        else if (b == BASIS_AT_UPPER) c.numAtUpper++;
        else if (b == BASIS_FREE_ZERO) c.numFreeZero++;
        else c.numFixed++;
      }
      summary.basis = std::move(basis);
    }
  } else {
    ScripterOptions& so = instance->scripter;
    setScripterOptions(o, &so);
    instance->env.messageLog = &history.slots;
    QPRecord& record = job->lp.qp.record;
    record.checkSolverBreak = checkBreak;
    record.scripterDataStruct = breakData;
    int32_t rc = instance->ipqpmain(&instance->env, &record, &so);
    summary = summaryFromRecord(record, rc);
    summary.entry = "ipqpmain";
  }
  history.flush();
  summary.solveTime =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - s0).count();
  summary.history = std::move(history.rows);
  if (instance) module.destroyInstance(instance);
  if (lpPool) lpPool->poolDestroy(lpPool);
  summary.claim = checkClaim(p, job->lp.qp, summary.returnCode, claimTol(o.primalTol),
                             claimTol(o.dualTol), claimTol(o.gapTol));
  return true;
}

std::vector<double> rowActivities(const MpsProblem& p, const SolveJob& job) {
  const QPModel& m = job.model();
  std::vector<double> out(p.numRow(), 0.0);
  for (size_t k = 0; k < m.recordRow.size(); ++k) out[m.recordRow[k]] = m.record.rowActivity[k];
  // Free rows were not in the solve: their activity comes from the point.
  if (!m.freeRows.empty()) {
    std::vector<uint8_t> free(p.numRow(), 0);
    for (int32_t i : m.freeRows) free[i] = 1;
    for (int32_t j = 0; j < p.numCol(); ++j)
      for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; ++k)
        if (free[p.rowIndex[k]]) out[p.rowIndex[k]] += p.value[k] * m.record.solPrimal[j];
  }
  return out;
}

std::vector<double> rowDuals(const MpsProblem& p, const SolveJob& job) {
  const QPModel& m = job.model();
  std::vector<double> out(p.numRow(), 0.0);
  for (size_t k = 0; k < m.recordRow.size(); ++k) out[m.recordRow[k]] = m.record.solDual[k];
  return out;
}

}  // namespace hxcli

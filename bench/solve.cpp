// Solve benchmark: the triangular solves and the refined solves of the
// factorisation library on the augmented matrices that the interior-point
// iteration really factors.  Each problem is solved through the QP entry on
// one thread; every call of the library's solve is intercepted (the link
// wraps LA_SolveMatrixLDL) and measured on the spot, with the factor that
// the iteration has just made:
//
//   tri      one extra triangular solve of the call's right-hand side;
//   steps    the refinement of the call replayed on a copy, counting the
//            triangular solves that FGMRES asks for (the first solve not
//            counted);
//   refined  the call itself, as the iteration makes it.
//
// Native runs give times; under valgrind's callgrind (started with
// --instr-atstart=no) `--count tri` or `--count refined` instruments only
// that section and dumps the counts once per problem, so that the
// instructions per solve are totals over the run divided by the solves.
//
//   bench_solve [--count tri|refined] DATA_DIR OUT_CSV [SET/NAME ...]
//
// HALVEX_BENCH_ORDERING=M makes every analysis use ordering method M in
// place of the automatic choice.  Two versions whose automatic choices
// differ then factor alike, and their solves compare on equal factors: the
// refinement takes as many steps as the factor's accuracy asks for, so a
// different ordering changes the steps and not the speed of a step.
#include <algorithm>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name) (void)(name)
#endif

#include "cli/mps.h"
#include "cli/qprecord.h"
#include "frame/entry.h"
#include "frame/instance.h"
#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric_internal.h"

extern "C" int32_t __real_LA_AnalyzeMatrixLDL(int32_t n, const int32_t* colBegin,
                                               const int32_t* rowIndex, const double* value,
                                               LAEnv* env, LASymbolic** symbolic,
                                               LANumeric** numeric);

extern "C" int32_t __wrap_LA_AnalyzeMatrixLDL(int32_t n, const int32_t* colBegin,
                                               const int32_t* rowIndex, const double* value,
                                               LAEnv* env, LASymbolic** symbolic,
                                               LANumeric** numeric) {
  static const char* forced = std::getenv("HALVEX_BENCH_ORDERING");
  if (forced && *forced && env) env->orderingMethod = std::atoi(forced);
  return __real_LA_AnalyzeMatrixLDL(n, colBegin, rowIndex, value, env, symbolic, numeric);
}

extern "C" int32_t __real_LA_SolveMatrixLDL(int32_t mode, const int32_t* colBegin,
                                              const int32_t* rowIndex, const double* value,
                                              double* x, LAEnv* env, LASymbolic* symbolic,
                                              LANumeric* numeric);

namespace {

enum class Count { None, Tri, Refined };

struct Totals {
  int64_t solves = 0;
  int64_t refinedSolves = 0;  // calls that refined at all
  int64_t steps = 0;
  int32_t maxSteps = 0;
  double triSeconds = 0.0;
  double refinedSeconds = 0.0;
  int32_t n = 0;
  int64_t matrixEntries = 0;
  int64_t factorEntries = 0;
  int32_t numSNodes = 0;
  int32_t maxCols = 0;
};

Count gCount = Count::None;
Totals gTotals;
LATriangularSolveFn gInner = nullptr;
int64_t gInnerCalls = 0;
std::vector<double> gCopy, gSaved;

// CPU time of the calling thread: the machine is shared, and waiting for a
// core is not the solve's time.
double seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

int32_t countingSolve(int32_t mode, double* a, LASymbolic* sym, double* b) {
  gInnerCalls++;
  return gInner(mode, a, sym, b);
}

// The refinement of LA_SolveMatrixLDL, replayed on a copy with a counting
// preconditioner; returns the triangular solves that FGMRES made.
int64_t replaySteps(int32_t mode, const int32_t* colBegin, const int32_t* rowIndex,
                    const double* value, const double* x, LAEnv* env, LASymbolic* sym,
                    LANumeric* num) {
  int32_t n = sym->n;
  int32_t limit = env->maxRefine;
  if (limit == 0 && sym->numPerturbed > 0) limit = env->useFgmres == 1 ? 64 : 2;
  if (limit > n) limit = n;
  if (limit == 0) return 0;
  if (env->useFgmres != 1) return limit;
  gInner = sym->threaded ? ldl_psolve : ldl_solve;
  double* scratch = static_cast<double*>(num->scratch);
  gCopy.assign(x, x + n);
  gSaved.assign(x, x + n);
  int32_t status = mode == 0 ? gInner(0, gCopy.data(), sym, scratch)
                             : gInner(1, scratch, sym, gCopy.data());
  if (status) return 0;
  double result = 0.0;
  int32_t m = std::min(env->fgmresRestart, n), mMax = std::min(env->fgmresMaxRestart, n);
  gInnerCalls = 0;
  FGMRES(env->refineTol, 0.3, n, colBegin, rowIndex, value, gSaved.data(), mode, limit, m, mMax,
         0, env->orthoScheme, env, sym, countingSolve, &result, gCopy.data(), scratch);
  return gInnerCalls;
}

}  // namespace

extern "C" int32_t __wrap_LA_SolveMatrixLDL(int32_t mode, const int32_t* colBegin,
                                              const int32_t* rowIndex, const double* value,
                                              double* x, LAEnv* env, LASymbolic* sym,
                                              LANumeric* num) {
  if (!env || !sym || !num || !x || sym->n <= 0 || !sym->factor || !num->scratch)
    return __real_LA_SolveMatrixLDL(mode, colBegin, rowIndex, value, x, env, sym, num);
  int32_t n = sym->n;
  Totals& t = gTotals;
  t.n = n;
  t.matrixEntries = colBegin ? colBegin[n] : 0;
  t.factorEntries = sym->numFactorEntries;
  t.numSNodes = sym->numSNodes;
  t.maxCols = 0;
  for (int32_t s = 0; s < sym->numSNodes; s++) t.maxCols = std::max(t.maxCols, laSNodeCols(sym, s));
  t.solves++;

  if (gCount != Count::Refined) {
    LATriangularSolveFn solve = sym->threaded ? ldl_psolve : ldl_solve;
    gCopy.assign(x, x + n);
    double* scratch = static_cast<double*>(num->scratch);
    if (gCount == Count::Tri) CALLGRIND_START_INSTRUMENTATION;
    double t0 = seconds();
    if (mode == 0)
      solve(0, gCopy.data(), sym, scratch);
    else
      solve(1, scratch, sym, gCopy.data());
    t.triSeconds += seconds() - t0;
    if (gCount == Count::Tri) CALLGRIND_STOP_INSTRUMENTATION;
  }
  if (gCount == Count::None) {
    int64_t steps = replaySteps(mode, colBegin, rowIndex, value, x, env, sym, num);
    t.steps += steps;
    t.maxSteps = std::max<int32_t>(t.maxSteps, (int32_t)steps);
    if (steps > 0) t.refinedSolves++;
  }
  if (gCount == Count::Refined) CALLGRIND_START_INSTRUMENTATION;
  double t0 = seconds();
  int32_t status = __real_LA_SolveMatrixLDL(mode, colBegin, rowIndex, value, x, env, sym, num);
  t.refinedSeconds += seconds() - t0;
  if (gCount == Count::Refined) CALLGRIND_STOP_INSTRUMENTATION;
  return status;
}

int main(int argc, char** argv) {
  int arg = 1;
  if (argc > 2 && std::strcmp(argv[1], "--count") == 0) {
    gCount = std::strcmp(argv[2], "tri") == 0 ? Count::Tri : Count::Refined;
    arg = 3;
  }
  if (argc - arg < 2) {
    std::fprintf(stderr, "usage: %s [--count tri|refined] DATA_DIR OUT_CSV [SET/NAME ...]\n",
                 argv[0]);
    return 2;
  }
  std::string data = argv[arg], out = argv[arg + 1];
  std::vector<std::string> names(argv + arg + 2, argv + argc);
  if (names.empty())
    names = {"maros/QGROW7",   "maros/QGROW22",  "maros/STADAT2", "maros/STADAT3",
             "maros/QSCFXM2",  "maros/QSHIP08L", "maros/POWELL20", "maros/LISWET3",
             "maros/QFORPLAN", "maros/AUG3DQP",  "netlib/dfl001", "netlib/pilot"};

  FILE* csv = std::fopen(out.c_str(), "w");
  if (!csv) {
    std::fprintf(stderr, "cannot write %s\n", out.c_str());
    return 2;
  }
  std::fprintf(csv,
               "problem,n,matrix_entries,factor_entries,supernodes,max_cols,status,iterations,"
               "solves,refined_solves,fgmres_steps_per_solve,max_steps,tri_seconds_per_solve,"
               "refined_seconds_per_solve\n");
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  int failures = 0;
  for (const std::string& name : names) {
    std::string base = data + "/" + name;
    std::string path = base + (name.rfind("netlib/", 0) == 0 ? ".mps.gz" : ".qps.gz");
    hxcli::MpsProblem p;
    hxcli::MpsError error;
    hxcli::QPModel model;
    std::string why;
    if (!hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &p, &error) ||
        !hxcli::buildQPRecord(p, &model, &why)) {
      std::fprintf(stderr, "%s: unreadable: %s%s\n", path.c_str(), error.message().c_str(),
                   why.c_str());
      failures++;
      continue;
    }
    auto* instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
    if (!instance) return 1;
    instance->scripter.primalTol = instance->scripter.dualTol = instance->scripter.gapTol = 1e-8;
    instance->scripter.numThreads = 1;
    gTotals = Totals();
    CALLGRIND_ZERO_STATS;
    int32_t code = instance->ipqpScripter(instance, &model.record);
    std::string label = name.substr(name.find('/') + 1);
    CALLGRIND_DUMP_STATS_AT(label.c_str());
    halvex_destroy_instance(instance);
    const Totals& t = gTotals;
    double per = t.solves ? 1.0 / (double)t.solves : 0.0;
    std::fprintf(csv, "%s,%d,%lld,%lld,%d,%d,%d,%d,%lld,%lld,%.3f,%d,%.6e,%.6e\n", label.c_str(),
                 t.n, (long long)t.matrixEntries, (long long)t.factorEntries, t.numSNodes,
                 t.maxCols, code,
                 model.record.iterations, (long long)t.solves, (long long)t.refinedSolves,
                 (double)t.steps * per, t.maxSteps, t.triSeconds * per,
                 t.refinedSeconds * per);
    std::fflush(csv);
    std::printf("%-10s n %6d  solves %4lld  steps/solve %6.2f  tri %.3e s  refined %.3e s\n",
                label.c_str(), t.n, (long long)t.solves, (double)t.steps * per,
                t.triSeconds * per, t.refinedSeconds * per);
  }
  std::fclose(csv);
  return failures ? 1 : 0;
}

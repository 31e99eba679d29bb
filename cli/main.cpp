// The halvex command: reads an MPS or QPS file, hands it to the module
// through the reference host, and reports what the solver found.
//
// Exit codes: 0 when the solver ran to any status of its own, 2 for bad
// usage or a file that cannot be read, 1 when the module itself could not
// be reached, 3 when an optimum that the solver claimed failed the
// command's own check of the returned point.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "host/host.h"
#include "mps.h"
#include "output.h"
#include "lprecord.h"
#include "options.h"
#include "qprecord.h"
#include "solve.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitInternal = 1;
constexpr int kExitUsage = 2;
// The solver claimed an optimum that the command's own check did not bear out.
constexpr int kExitNotVerified = 3;

const char* const kUsage =
    "usage: halvex solve FILE [options]\n"
    "       halvex plot RESULT.json -o FILE.png\n"
    "       halvex --version\n"
    "       halvex --help\n";

const char* const kHelp =
    "Solves a linear or convex quadratic program read from an MPS or QPS file\n"
    "(fixed or free form, plain or gzip) with the halvex interior-point solver.\n"
    "\n"
    "options of solve:\n"
    "  --format auto|fixed|free  how to read the file (auto: free form, and fixed\n"
    "                            form when that fails, as for names with blanks)\n"
    "  --tol T                   primal, dual and gap tolerance at once\n"
    "  --primal-tol T            primal feasibility tolerance (1e-8)\n"
    "  --dual-tol T              dual feasibility tolerance (1e-8)\n"
    "  --gap-tol T               duality gap tolerance (1e-8)\n"
    "  --max-iter N              iteration limit\n"
    "  --time-limit SECONDS      time limit\n"
    "  --timer cpu|real          what the time limit measures (cpu)\n"
    "  --threads N               threads of the factorisation (the machine's cores)\n"
    "  --presolve LEVEL          the presolver: on (-1, automatic), off (0), or\n"
    "                            a level of the LP presolver from 1 to 3 (on)\n"
    "  --lp-as-qp                solve an LP through the QP entry, as a QP with\n"
    "                            no quadratic part (an LP goes to the LP entry)\n"
    "  --crossover on|off        take an LP on to an optimal vertex and basis\n"
    "                            (on); off ends at the interior point\n"
    "  --print-level 0|1|2       0 errors only, 1 status lines and summary,\n"
    "                            2 with the iteration log (2)\n"
    "  --print-freq N            an iteration line every N iterations (1)\n"
    "  --json FILE               write status, return code, objective,\n"
    "                            iterations, measures and times as JSON\n"
    "  --solution FILE           write primal values, row activities and duals\n"
    "                            by name\n"
    "  --write-basis FILE        write the LP's basis as an MPS basis file\n"
    "  --library PATH            the halvex shared object to load\n"
    "  --verify-level N          self-checks of the LP entry, 0 (off) to 9: 1\n"
    "                            structure, 3 results, 5 every iteration,\n"
    "                            7 traces, 9 listings (a QP runs with 0)\n"
    "\n"
    "exit codes: 0 the solver ran (whatever its status), 2 bad usage or an\n"
    "unreadable file, 1 an internal failure, 3 a claimed optimum that the\n"
    "command's check of the returned point against the file did not confirm.\n";

bool usageError(const std::string& what) {
  std::fprintf(stderr, "halvex: %s\n%s", what.c_str(), kUsage);
  return false;
}

// The library this build made, unless told otherwise; an installed command
// finds it beside itself.
std::string libraryPath(const std::string& given) {
  if (!given.empty()) return given;
  if (access(HALVEX_LIBRARY_PATH, R_OK) == 0) return HALVEX_LIBRARY_PATH;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    size_t slash = dir.rfind('/');
    if (slash != std::string::npos) {
      std::string beside = dir.substr(0, slash) + "/libhalvex.so";
      if (access(beside.c_str(), R_OK) == 0) return beside;
    }
  }
  return HALVEX_LIBRARY_PATH;
}

// Ctrl-C asks the solver to stop at its next check; a second one ends the
// command the usual way.
volatile sig_atomic_t breakRequested = 0;

void onInterrupt(int) {
  breakRequested = 1;
  std::signal(SIGINT, SIG_DFL);
}

int32_t checkBreak(void* flag) { return *static_cast<volatile sig_atomic_t*>(flag) ? 1 : 0; }

double secondsSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

FILE* openOutput(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f)
    std::fprintf(stderr, "halvex: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
  return f;
}

void closeOutputs(FILE* a, FILE* b) {
  if (a) std::fclose(a);
  if (b) std::fclose(b);
}

int solve(const hxcli::SolveOptions& o) {
  const auto t0 = std::chrono::steady_clock::now();
  const bool talk = o.printLevel > 0;

  hxcli::MpsProblem problem;
  hxcli::MpsError error;
  if (!hxcli::readMpsFile(o.file, o.format, &problem, &error)) {
    std::fprintf(stderr, "halvex: %s\n", error.message().c_str());
    return kExitUsage;
  }
  // An LP goes to the LP entry, unless asked otherwise; the QP form's arrays
  // are part of the LP form, so both read and write the same vectors.
  hxcli::SolveJob job;
  const bool lpEntry = !problem.isQP() && !o.lpAsQp;
  hxcli::QPModel& model = job.model();
  std::string reason;
  if (!hxcli::prepareJob(problem, o, &job, &reason)) {
    std::fprintf(stderr, "halvex: %s: %s\n", o.file.c_str(), reason.c_str());
    return kExitUsage;
  }
  const double readTime = secondsSince(t0);

  // Open the outputs before the solve, so that a bad path costs no solve.
  FILE* json = nullptr;
  FILE* solution = nullptr;
  FILE* basisFile = nullptr;
  if (!o.basisFile.empty() && (!lpEntry || !o.crossover)) {
    std::fprintf(stderr, "halvex: --write-basis needs an LP with crossover on\n");
    return kExitUsage;
  }
  if (!o.jsonFile.empty() && !(json = openOutput(o.jsonFile))) return kExitUsage;
  if (!o.solutionFile.empty() && !(solution = openOutput(o.solutionFile))) {
    closeOutputs(json, nullptr);
    return kExitUsage;
  }
  if (!o.basisFile.empty() && !(basisFile = openOutput(o.basisFile))) {
    closeOutputs(json, solution);
    return kExitUsage;
  }

  if (!lpEntry && o.verifyLevel > 0)
    std::fprintf(stderr,
                 "halvex: --verify-level applies to the LP entry only; the QP entry runs "
                 "with the checks off\n");
  if (talk) {
    for (const std::string& w : problem.warnings) std::fprintf(stderr, "halvex: %s\n", w.c_str());
    hxcli::printProblem(stdout, problem, model, o.file);
    std::fflush(stdout);
  }

  hxhost::Host host;
  if (!talk) {
    // Errors still reach the terminal.
    host.setSink([](int kind, const std::string& line) {
      if (kind == 1 || kind == 4) std::fprintf(stderr, "%s\n", line.c_str());
    });
  }
  hxhost::HalvexEntries entries;
  const std::string lib = libraryPath(o.library);
  if (!hxhost::openHalvexLibrary(lib.c_str(), &entries, &reason)) {
    std::fprintf(stderr, "halvex: %s\n", reason.c_str());
    closeOutputs(json, solution);
    if (basisFile) std::fclose(basisFile);
    return kExitInternal;
  }
  int exitCode = kExitOk;
  {
    // Also on the LP road: it hands the module the kernel table, through
    // which the LP entry loads its presolver.
    hxhost::HalvexModule module(host, entries);
    breakRequested = 0;
    std::signal(SIGINT, onInterrupt);
    const bool ran = hxcli::runJob(host, module, entries, problem, o, checkBreak,
                                   (void*)&breakRequested, &job, &reason);
    std::signal(SIGINT, SIG_DFL);
    std::fflush(stdout);
    if (!ran) {
      std::fprintf(stderr, "halvex: %s\n", reason.c_str());
      closeOutputs(json, solution);
      if (basisFile) std::fclose(basisFile);
      hxhost::closeHalvexLibrary(&entries);
      return kExitInternal;
    }
    hxcli::SolveSummary& summary = job.summary;
    summary.file = o.file;
    summary.readTime = readTime;
    if (summary.claim.checked && !summary.claim.verified) exitCode = kExitNotVerified;
    summary.totalTime = secondsSince(t0);
    if (talk) hxcli::printSummary(stdout, summary);
    if (json && !hxcli::writeJson(json, problem, summary)) {
      std::fprintf(stderr, "halvex: writing %s failed\n", o.jsonFile.c_str());
      exitCode = kExitInternal;
    }
    if (solution && !hxcli::writeSolution(solution, problem, model, summary)) {
      std::fprintf(stderr, "halvex: writing %s failed\n", o.solutionFile.c_str());
      exitCode = kExitInternal;
    }
    if (basisFile) {
      if (!summary.hasBasis()) {
        std::fprintf(stderr, "halvex: no basis to write to %s: the crossover did not finish\n",
                     o.basisFile.c_str());
        exitCode = kExitInternal;
      } else if (!hxcli::writeBasis(basisFile, problem, model, summary)) {
        std::fprintf(stderr, "halvex: writing %s failed\n", o.basisFile.c_str());
        exitCode = kExitInternal;
      }
      std::fclose(basisFile);
      basisFile = nullptr;
    }
  }
  closeOutputs(json, solution);
  hxhost::closeHalvexLibrary(&entries);
  return exitCode;
}

// The folder that holds the Python package: the install's, beside the
// command, else the build's.
#ifdef HALVEX_PYTHON
std::string pythonPackageDir() {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir = dir.substr(0, dir.rfind('/') + 1) + HALVEX_PYTHON_FROM_BIN;
    if (access((dir + "/halvex/plot.py").c_str(), R_OK) == 0) return dir;
  }
  return HALVEX_PYTHON_BUILD_DIR;
}
#endif

// The picture is drawn by the Python package, with matplotlib.
int plot(int argc, char** argv) {
#ifndef HALVEX_PYTHON
  (void)argc;
  (void)argv;
  std::fprintf(stderr, "halvex: plot needs the Python package, which this build left out\n");
  return kExitInternal;
#else
  const std::string dir = pythonPackageDir();
  const char* old = std::getenv("PYTHONPATH");
  const std::string path = old && *old ? dir + ":" + old : dir;
  setenv("PYTHONPATH", path.c_str(), 1);
  std::vector<char*> args{const_cast<char*>(HALVEX_PYTHON), const_cast<char*>("-m"),
                          const_cast<char*>("halvex.plot")};
  for (int i = 2; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  std::fflush(stdout);
  execv(HALVEX_PYTHON, args.data());
  std::fprintf(stderr, "halvex: cannot run %s: %s\n", HALVEX_PYTHON, std::strerror(errno));
  return kExitInternal;
#endif
}

int version(const std::string& libraryGiven) {
  std::string reason;
  hxhost::HalvexEntries entries;
  const std::string lib = libraryPath(libraryGiven);
  if (!hxhost::openHalvexLibrary(lib.c_str(), &entries, &reason)) {
    std::fprintf(stderr, "halvex: %s\n", reason.c_str());
    return kExitInternal;
  }
  hxhost::Host host;
  int rc = kExitOk;
  {
    hxhost::HalvexModule module(host, entries);
    if (!module.ok()) {
      std::fprintf(stderr, "halvex: the module could not be started\n");
      rc = kExitInternal;
    } else {
      HalvexVersionInfo v = module.version();
      int64_t major = 0, minor = 0, patch = 0;
      module.extension()->getVersion(module.extension(), &major, &minor, &patch);
      std::printf("%s %s (%s), interface %lld.%lld.%lld, build %lld, %s\n", v.moduleName,
                  v.release, v.productImage, (long long)major, (long long)minor,
                  (long long)patch, (long long)v.buildStamp, v.platform);
      std::printf("library %s\n", lib.c_str());
    }
  }
  hxhost::closeHalvexLibrary(&entries);
  return rc;
}

int run(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "%s", kUsage);
    return kExitUsage;
  }
  std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    std::printf("%s\n%s", kUsage, kHelp);
    return kExitOk;
  }
  if (command == "--version") {
    std::string lib;
    for (int i = 2; i < argc; ++i) {
      std::string a = argv[i];
      if (a.compare(0, 10, "--library=") == 0)
        lib = a.substr(10);
      else if (a == "--library" && i + 1 < argc)
        lib = argv[++i];
      else {
        usageError("--version takes no argument but --library");
        return kExitUsage;
      }
    }
    return version(lib);
  }
  if (command == "plot") return plot(argc, argv);
  if (command != "solve") {
    usageError("unknown command '" + command + "'");
    return kExitUsage;
  }
  for (int i = 2; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::printf("%s\n%s", kUsage, kHelp);
      return kExitOk;
    }
  hxcli::SolveOptions options;
  std::string error;
  if (!hxcli::parseSolveArgs(argc, argv, 2, &options, &error)) {
    usageError(error);
    return kExitUsage;
  }
  return solve(options);
}

}  // namespace

int main(int argc, char** argv) {
  // halvex's BLAS runs on one thread, which the host sets once the library
  // is loaded; by then OpenBLAS has started its own worker threads, and an
  // idle one spins for tens of milliseconds (70 on maros-r7) on the core the
  // factorisation's second thread wants.  Read at load time, this keeps it
  // from starting them at all.
  setenv("OPENBLAS_NUM_THREADS", "1", 1);
  // The reader and the writers use the standard containers; running out of
  // memory there is the command's failure, not the file's.
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "halvex: internal failure: %s\n", e.what());
    return kExitInternal;
  }
}

// The halvex command: reads an MPS or QPS file, hands it to the module
// through the reference host, and reports what the solver found.
//
// Exit codes: 0 when the solver ran to any status of its own, 2 for bad
// usage or a file that cannot be read, 1 when the module itself could not
// be reached.
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "host/host.h"
#include "mps.h"
#include "output.h"
#include "qprecord.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitInternal = 1;
constexpr int kExitUsage = 2;

const char* const kUsage =
    "usage: halvex solve FILE [options]\n"
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
    "  --primal-tol T            primal feasibility tolerance (1e-6)\n"
    "  --dual-tol T              dual feasibility tolerance (1e-6)\n"
    "  --gap-tol T               duality gap tolerance (1e-6)\n"
    "  --max-iter N              iteration limit\n"
    "  --time-limit SECONDS      time limit\n"
    "  --timer cpu|real          what the time limit measures (cpu)\n"
    "  --threads N               threads of the factorisation (1)\n"
    "  --presolve on|off         the presolver (on)\n"
    "  --print-level 0|1|2       0 errors only, 1 status lines and summary,\n"
    "                            2 with the iteration log (2)\n"
    "  --print-freq N            an iteration line every N iterations (1)\n"
    "  --json FILE               write status, return code, objective,\n"
    "                            iterations, measures and times as JSON\n"
    "  --solution FILE           write primal values, row activities and duals\n"
    "                            by name\n"
    "  --library PATH            the halvex shared object to load\n"
    "\n"
    "exit codes: 0 the solver ran (whatever its status), 2 bad usage or an\n"
    "unreadable file, 1 an internal failure.\n";

struct Options {
  std::string file;
  hxcli::MpsFormat format = hxcli::MpsFormat::Auto;
  double primalTol = -1, dualTol = -1, gapTol = -1;  // -1: the module's default
  int64_t maxIteration = -1;
  double maxTime = -1;
  int timerType = -1;
  int threads = -1;
  int presolve = -1;  // -1 default, 0 off, 1 on
  int printLevel = 2;
  int printFreq = -1;
  std::string jsonFile, solutionFile, library;
};

bool usageError(const std::string& what) {
  std::fprintf(stderr, "halvex: %s\n%s", what.c_str(), kUsage);
  return false;
}

bool parseDouble(const std::string& name, const std::string& text, double* out) {
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v <= 0)
    return usageError(name + " needs a positive number, not '" + text + "'");
  *out = v;
  return true;
}

bool parseInt(const std::string& name, const std::string& text, int64_t lo, int64_t hi,
              int64_t* out) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || v < lo || v > hi)
    return usageError(name + " needs a whole number from " + std::to_string(lo) + " to " +
                      std::to_string(hi) + ", not '" + text + "'");
  *out = v;
  return true;
}

bool parseSolveArgs(int argc, char** argv, Options* o) {
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      if (!o->file.empty()) return usageError("more than one file: '" + arg + "'");
      o->file = arg;
      continue;
    }
    std::string name = arg, value;
    bool hasValue = false;
    size_t eq = arg.find('=');
    if (eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      hasValue = true;
    }
    static const char* const known[] = {
        "--format", "--tol", "--primal-tol", "--dual-tol", "--gap-tol", "--max-iter",
        "--time-limit", "--timer", "--threads", "--presolve", "--print-level",
        "--print-freq", "--json", "--solution", "--library"};
    bool isKnown = false;
    for (const char* k : known) isKnown = isKnown || name == k;
    if (!isKnown) return usageError("unknown option '" + name + "'");
    if (!hasValue) {
      if (i + 1 >= argc) return usageError(name + " needs a value");
      value = argv[++i];
    }
    int64_t n = 0;
    if (name == "--format") {
      if (value == "auto")
        o->format = hxcli::MpsFormat::Auto;
      else if (value == "fixed")
        o->format = hxcli::MpsFormat::Fixed;
      else if (value == "free")
        o->format = hxcli::MpsFormat::Free;
      else
        return usageError("--format is auto, fixed or free, not '" + value + "'");
    } else if (name == "--tol") {
      double t;
      if (!parseDouble(name, value, &t)) return false;
      o->primalTol = o->dualTol = o->gapTol = t;
    } else if (name == "--primal-tol") {
      if (!parseDouble(name, value, &o->primalTol)) return false;
    } else if (name == "--dual-tol") {
      if (!parseDouble(name, value, &o->dualTol)) return false;
    } else if (name == "--gap-tol") {
      if (!parseDouble(name, value, &o->gapTol)) return false;
    } else if (name == "--max-iter") {
      if (!parseInt(name, value, 0, INT32_MAX, &n)) return false;
      o->maxIteration = n;
    } else if (name == "--time-limit") {
      if (!parseDouble(name, value, &o->maxTime)) return false;
    } else if (name == "--timer") {
      if (value == "cpu")
        o->timerType = 0;
      else if (value == "real")
        o->timerType = 1;
      else
        return usageError("--timer is cpu or real, not '" + value + "'");
    } else if (name == "--threads") {
      if (!parseInt(name, value, 1, 1024, &n)) return false;
      o->threads = (int)n;
    } else if (name == "--presolve") {
      if (value == "on")
        o->presolve = 1;
      else if (value == "off")
        o->presolve = 0;
      else
        return usageError("--presolve is on or off, not '" + value + "'");
    } else if (name == "--print-level") {
      if (!parseInt(name, value, 0, 2, &n)) return false;
      o->printLevel = (int)n;
    } else if (name == "--print-freq") {
      if (!parseInt(name, value, 0, INT32_MAX, &n)) return false;
      o->printFreq = (int)n;
    } else if (name == "--json") {
      o->jsonFile = value;
    } else if (name == "--solution") {
      o->solutionFile = value;
    } else if (name == "--library") {
      o->library = value;
    }
  }
  if (o->file.empty()) return usageError("solve needs a FILE");
  return true;
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

int solve(const Options& o) {
  const auto t0 = std::chrono::steady_clock::now();
  const bool talk = o.printLevel > 0;

  hxcli::MpsProblem problem;
  hxcli::MpsError error;
  if (!hxcli::readMpsFile(o.file, o.format, &problem, &error)) {
    std::fprintf(stderr, "halvex: %s\n", error.message().c_str());
    return kExitUsage;
  }
  hxcli::QPModel model;
  std::string reason;
  if (!hxcli::buildQPRecord(problem, &model, &reason)) {
    std::fprintf(stderr, "halvex: %s: %s\n", o.file.c_str(), reason.c_str());
    return kExitUsage;
  }
  const double readTime = secondsSince(t0);

  // Open the outputs before the solve, so that a bad path costs no solve.
  FILE* json = nullptr;
  FILE* solution = nullptr;
  if (!o.jsonFile.empty() && !(json = openOutput(o.jsonFile))) return kExitUsage;
  if (!o.solutionFile.empty() && !(solution = openOutput(o.solutionFile))) {
    closeOutputs(json, nullptr);
    return kExitUsage;
  }

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
    return kExitInternal;
  }
  int exitCode = kExitOk;
  {
    hxhost::HalvexModule module(host, entries);
    HalvexInstance* instance = module.ok() ? module.createInstance() : nullptr;
    if (!instance) {
      std::fprintf(stderr, "halvex: the module could not make an instance\n");
      closeOutputs(json, solution);
      hxhost::closeHalvexLibrary(&entries);
      return kExitInternal;
    }
    ScripterOptions& so = instance->scripter;
    if (o.primalTol > 0) so.primalTol = o.primalTol;
    if (o.dualTol > 0) so.dualTol = o.dualTol;
    if (o.gapTol > 0) so.gapTol = o.gapTol;
    if (o.maxIteration >= 0) so.maxIteration = (int32_t)o.maxIteration;
    if (o.maxTime > 0) so.maxTime = o.maxTime;
    if (o.timerType >= 0) so.timerType = o.timerType;
    if (o.threads > 0) so.numThreads = o.threads;
    if (o.presolve == 0) so.presolver = 0;
    if (o.presolve == 1) so.presolver = -1;
    if (o.printFreq >= 0) so.printFreq = o.printFreq;
    // The solver keeps its status lines and drops the iteration table when
    // the frequency is 0.
    if (o.printLevel < 2) so.printFreq = 0;

    QPRecord& record = model.record;
    breakRequested = 0;
    record.checkSolverBreak = checkBreak;
    record.scripterDataStruct = (void*)&breakRequested;
    std::signal(SIGINT, onInterrupt);
    const auto s0 = std::chrono::steady_clock::now();
    int32_t rc = instance->ipqpmain(&instance->env, &record, &so);
    const double solveTime = secondsSince(s0);
    std::signal(SIGINT, SIG_DFL);
    std::fflush(stdout);

    hxcli::SolveSummary summary = hxcli::summaryFromRecord(record, rc);
    summary.file = o.file;
    summary.readTime = readTime;
    summary.solveTime = solveTime;
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
    module.destroyInstance(instance);
  }
  closeOutputs(json, solution);
  hxhost::closeHalvexLibrary(&entries);
  return exitCode;
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
  if (command != "solve") {
    usageError("unknown command '" + command + "'");
    return kExitUsage;
  }
  for (int i = 2; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::printf("%s\n%s", kUsage, kHelp);
      return kExitOk;
    }
  Options options;
  if (!parseSolveArgs(argc, argv, &options)) return kExitUsage;
  return solve(options);
}

}  // namespace

int main(int argc, char** argv) {
  // The reader and the writers use the standard containers; running out of
  // memory there is the command's failure, not the file's.
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "halvex: internal failure: %s\n", e.what());
    return kExitInternal;
  }
}

#include "options.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

namespace hxcli {

namespace {

bool fail(std::string* error, const std::string& what) {
  *error = what;
  return false;
}

bool parseDouble(const std::string& name, const std::string& text, double* out,
                 std::string* error) {
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v) || v <= 0)
    return fail(error, name + " needs a positive number, not '" + text + "'");
  *out = v;
  return true;
}

bool parseInt(const std::string& name, const std::string& text, int64_t lo, int64_t hi,
              int64_t* out, std::string* error) {
  char* end = nullptr;
  errno = 0;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || v < lo || v > hi)
    return fail(error, name + " needs a whole number from " + std::to_string(lo) + " to " +
                           std::to_string(hi) + ", not '" + text + "'");
  *out = v;
  return true;
}

}  // namespace

bool parseSolveArgs(int argc, const char* const* argv, int first, SolveOptions* o,
                    std::string* error) {
  for (int i = first; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      if (!o->file.empty()) return fail(error, "more than one file: '" + arg + "'");
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
    if (name == "--lp-as-qp") {
      if (hasValue) return fail(error, "--lp-as-qp takes no value");
      o->lpAsQp = true;
      continue;
    }
    static const char* const known[] = {
        "--format", "--tol", "--primal-tol", "--dual-tol", "--gap-tol", "--max-iter",
        "--time-limit", "--timer", "--threads", "--presolve", "--print-level",
        "--print-freq", "--json", "--solution", "--library", "--crossover", "--write-basis",
        "--verify-level"};
    bool isKnown = false;
    for (const char* k : known) isKnown = isKnown || name == k;
    if (!isKnown) return fail(error, "unknown option '" + name + "'");
    if (!hasValue) {
      if (i + 1 >= argc) return fail(error, name + " needs a value");
      value = argv[++i];
    }
    int64_t n = 0;
    if (name == "--format") {
      if (value == "auto")
        o->format = MpsFormat::Auto;
      else if (value == "fixed")
        o->format = MpsFormat::Fixed;
      else if (value == "free")
        o->format = MpsFormat::Free;
      else
        return fail(error, "--format is auto, fixed or free, not '" + value + "'");
    } else if (name == "--tol") {
      double t;
      if (!parseDouble(name, value, &t, error)) return false;
      o->primalTol = o->dualTol = o->gapTol = t;
    } else if (name == "--primal-tol") {
      if (!parseDouble(name, value, &o->primalTol, error)) return false;
    } else if (name == "--dual-tol") {
      if (!parseDouble(name, value, &o->dualTol, error)) return false;
    } else if (name == "--gap-tol") {
      if (!parseDouble(name, value, &o->gapTol, error)) return false;
    } else if (name == "--max-iter") {
      if (!parseInt(name, value, 0, INT32_MAX, &n, error)) return false;
      o->maxIteration = n;
    } else if (name == "--time-limit") {
      if (!parseDouble(name, value, &o->maxTime, error)) return false;
    } else if (name == "--timer") {
      if (value == "cpu")
        o->timerType = 0;
      else if (value == "real")
        o->timerType = 1;
      else
        return fail(error, "--timer is cpu or real, not '" + value + "'");
    } else if (name == "--threads") {
      if (!parseInt(name, value, 1, 1024, &n, error)) return false;
      o->threads = (int)n;
    } else if (name == "--presolve") {
      if (value == "on") {
        o->presolve = -1;
      } else if (value == "off") {
        o->presolve = 0;
      } else {
        char* end = nullptr;
        errno = 0;
        long v = std::strtol(value.c_str(), &end, 10);
        if (value.empty() || *end != '\0' || errno == ERANGE || v < -1 || v > 3)
          return fail(error, "--presolve is on, off or a level from -1 to 3, not '" + value + "'");
        o->presolve = (int)v;
      }
    } else if (name == "--print-level") {
      if (!parseInt(name, value, 0, 2, &n, error)) return false;
      o->printLevel = (int)n;
    } else if (name == "--print-freq") {
      if (!parseInt(name, value, 0, INT32_MAX, &n, error)) return false;
      o->printFreq = (int)n;
    } else if (name == "--verify-level") {
      if (!parseInt(name, value, 0, 9, &n, error)) return false;
      o->verifyLevel = (int)n;
    } else if (name == "--json") {
      o->jsonFile = value;
    } else if (name == "--solution") {
      o->solutionFile = value;
    } else if (name == "--crossover") {
      if (value == "on")
        o->crossover = true;
      else if (value == "off")
        o->crossover = false;
      else
        return fail(error, "--crossover is on or off, not '" + value + "'");
    } else if (name == "--write-basis") {
      o->basisFile = value;
    } else if (name == "--library") {
      o->library = value;
    }
  }
  if (o->file.empty()) return fail(error, "solve needs a FILE");
  return true;
}

}  // namespace hxcli

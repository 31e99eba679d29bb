// The host's message catalogue: a text and a value signature per code.
//
// A signature lists the values in call order, 'i' for a 32-bit integer and
// 'd' for a double; the message object reads exactly those from its
// varargs, so a text may use each value once, in that order.
#include <cstdio>
#include <cstring>

#include "host/internal.h"

namespace hxhost {
namespace {

struct Entry {
  uint32_t code;
  const char* signature;
  const char* text;
};

// Iteration table: heading, rule and line share their column widths.
#define ITER_HEAD "  Iter       Compl.          Gap    PrimalInf     BoundInf      DualInf"
#define ITER_RULE "  ---- ------------ ------------ ------------ ------------ ------------"

const Entry kCatalogue[] = {
    {0x827FD001, "", "Optimal solution found."},
    {0x827FD002, "d", "Objective value: %.12g"},
    {0x827FD006, "", "Out of memory."},
    {0x827FD007, "", "The problem is dual infeasible."},
    {0x827FD008, "", "Iteration limit reached."},
    {0x827FD009, "", "Acceptable solution found: tolerances met only approximately."},
    {0x827FD00B, "", "CPU time limit reached."},
    {0x827FD00C, "", "Wall-clock time limit reached."},
    {0x827FD00D, "", "The solver failed."},
    {0x827FD00E, "", "The problem is primal infeasible."},
    {0x827FD00F, "", "The problem is primal and dual infeasible."},
    {0x827FD010, "", "Solve interrupted on request."},
    {0x827FD011, "", "The solver stopped for an unexpected reason."},
    {0x827FD801, "", "Interior-point solver started."},
    {0x827FD802, "", ITER_HEAD},
    {0x827FD803, "", ITER_RULE},
    {0x827FD804, "iddddd", "%6d %12.4e %12.4e %12.4e %12.4e %12.4e"},
    {0x827FD806, "", "Cannot load the presolve module."},
    {0x827FD807, "", "Cannot create a presolve instance."},
    {0x827FD808, "", "Cannot load the simplex module for crossover."},
    {0x827FD809, "", "Cannot create a simplex instance for crossover."},
    {0x827FD80A, "", "Cannot set up the presolve context."},
    {0x827FD80B, "", "Postsolve failed."},
    {0x827FD80D, "i", "Invalid presolve setting %d: allowed values are -1 to 3."},
    {0x827FD80E, "", "Only the interior-point solver is available; solver choice ignored."},
    {0x827FD80F, "", "Unknown timer type; wall-clock time is used."},
    {0x827FD810, "", "Gap tolerance below 1e-15."},
    {0x827FD811, "", "Primal feasibility tolerance below 1e-15."},
    {0x827FD812, "", "Dual feasibility tolerance below 1e-15."},
    {0x827FD813, "", "An unsupported option setting is ignored."},
    {0x827FD864, "", "Presolve phase finished."},
    {0x827FD868, "", "Presolve is off."},
    {0x827FD869, "", "Presolve summary:"},
    {0x827FD86D, "i", "Unknown presolve setting %d; presolve runs as set automatically."},
    {0x827FD86E, "ii", "  removed %d columns and %d rows"},
    {0x827FD86F, "i", "  removed %d matrix entries"},
};

const Entry* find(int64_t code) {
  uint32_t c = (uint32_t)code;
  for (const Entry& e : kCatalogue)
    if (e.code == c) return &e;
  return nullptr;
}

// Formats one entry from values already read.  Each conversion takes the
// next value of its kind; a missing value prints as '?'.
std::string render(const Entry& e, const int64_t* ints, int numInts, const double* reals,
                   int numReals) {
  std::string out;
  int ni = 0, nr = 0;
  const char* f = e.text;
  while (*f) {
    if (*f != '%') {
      out.push_back(*f++);
      continue;
    }
    if (f[1] == '%') {
      out.push_back('%');
      f += 2;
      continue;
    }
    // A conversion: flags, width, precision, then the letter.
    const char* start = f++;
    while (*f && std::strchr("-+ #0123456789.", *f)) ++f;
    char letter = *f ? *f++ : 'd';
    std::string spec(start, f - 1);
    char buf[128];
    if (letter == 'd' || letter == 'i') {
      if (ni < numInts && ints) {
        spec += "lld";
        std::snprintf(buf, sizeof buf, spec.c_str(), (long long)ints[ni]);
      } else {
        std::snprintf(buf, sizeof buf, "?");
      }
      ++ni;
    } else {
      if (nr < numReals && reals) {
        spec.push_back(letter);
        std::snprintf(buf, sizeof buf, spec.c_str(), reals[nr]);
      } else {
        std::snprintf(buf, sizeof buf, "?");
      }
      ++nr;
    }
    out += buf;
  }
  return out;
}

}  // namespace

std::vector<int64_t> catalogueCodes() {
  std::vector<int64_t> codes;
  for (const Entry& e : kCatalogue) codes.push_back((int64_t)(int32_t)e.code);
  return codes;
}

const char* messageSignature(int64_t code) {
  const Entry* e = find(code);
  return e ? e->signature : nullptr;
}

std::string formatMessage(int32_t /*severity*/, int64_t code, const int64_t* ints, int numInts,
                          const double* reals, int numReals) {
  const Entry* e = find(code);
  if (!e) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "Message 0x%08X (no text in the catalogue)",
                  (unsigned)(uint32_t)code);
    return buf;
  }
  return render(*e, ints, numInts, reals, numReals);
}

}  // namespace hxhost

// The first main job: load libhalvex.so through the reference host, print
// the module's version record and solve a one-row separable QP with the
// instance's qpReconQP.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "host/host.h"

namespace {

struct OneRowProblem {
  double b = 0.0;
  std::vector<double> q, c, lower, upper;
  std::vector<uint8_t> flags;
};

bool parseBound(const std::string& text, double* value, bool* present) {
  if (text == "-") {
    *present = false;
    *value = 0.0;
    return true;
  }
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  *present = true;
  return end && *end == '\0';
}

bool readProblem(const char* path, OneRowProblem* p, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = std::string("cannot open ") + path;
    return false;
  }
  std::string line;
  int lineNo = 0;
  bool haveB = false;
  while (std::getline(in, line)) {
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string first;
    if (!(fields >> first)) continue;
    if (first == "b") {
      if (!(fields >> p->b)) {
        *error = "line " + std::to_string(lineNo) + ": b needs a value";
        return false;
      }
      haveB = true;
      continue;
    }
    std::string cText, loText, upText;
    if (!(fields >> cText >> loText >> upText)) {
      *error = "line " + std::to_string(lineNo) + ": expected \"q c lower upper\"";
      return false;
    }
    double q = std::strtod(first.c_str(), nullptr), c = std::strtod(cText.c_str(), nullptr);
    double lo, up;
    bool hasLo, hasUp;
    if (!parseBound(loText, &lo, &hasLo) || !parseBound(upText, &up, &hasUp)) {
      *error = "line " + std::to_string(lineNo) + ": bad bound";
      return false;
    }
    p->q.push_back(q);
    p->c.push_back(c);
    p->lower.push_back(lo);
    p->upper.push_back(up);
    p->flags.push_back((hasLo ? RECON_HAS_LOWER : 0) | (hasUp ? RECON_HAS_UPPER : 0));
  }
  if (!haveB) {
    *error = "no \"b\" line";
    return false;
  }
  return true;
}

const char* reconStatus(int32_t code) {
  switch (code) {
    case 0: return "solved";
    case 1: return "infeasible bounds or sum";
    case 4: return "iteration limit reached";
    case 5: return "a negative q";
    default: return "unknown";
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s PROBLEM\n", argv[0]);
    return 2;
  }
  OneRowProblem p;
  std::string error;
  if (!readProblem(argv[1], &p, &error)) {
    std::fprintf(stderr, "halvex_demo: %s\n", error.c_str());
    return 2;
  }

  hxhost::Host host;
  hxhost::HalvexEntries entries;
  if (!hxhost::openHalvexLibrary(nullptr, &entries, &error)) {
    std::fprintf(stderr, "halvex_demo: %s\n", error.c_str());
    return 1;
  }
  int rc = 0;
  {
    hxhost::HalvexModule module(host, entries);
    if (!module.ok()) {
      std::fprintf(stderr, "halvex_demo: the module could not be started\n");
      hxhost::closeHalvexLibrary(&entries);
      return 1;
    }
    HalvexVersionInfo v = module.version();
    int64_t major = 0, minor = 0, patch = 0;
    module.extension()->getVersion(module.extension(), &major, &minor, &patch);
    std::printf("%s %s (%s), interface %lld.%lld.%lld, build %lld, %s\n", v.moduleName,
                v.release, v.productImage, (long long)major, (long long)minor,
                (long long)patch, (long long)v.buildStamp, v.platform);

    HalvexInstance* instance = module.createInstance();
    if (!instance) {
      std::fprintf(stderr, "halvex_demo: no instance (out of memory)\n");
      hxhost::closeHalvexLibrary(&entries);
      return 1;
    }
    const int32_t n = (int32_t)p.q.size();
    std::vector<double> x(n), ls(n), us(n), ld(n), ud(n), step(n), inv(n);
    ReconRecord r{};
    r.maxIter = 200;
    r.big = 1e30;
    r.primalTol = r.dualTol = r.gapTol = 1e-9;
    r.n = n;
    r.q = p.q.data();
    r.c = p.c.data();
    r.lower = p.lower.data();
    r.upper = p.upper.data();
    r.b = p.b;
    r.flags = p.flags.data();
    r.x = x.data();
    r.lowerSlack = ls.data();
    r.upperSlack = us.data();
    r.lowerDual = ld.data();
    r.upperDual = ud.data();
    r.step = step.data();
    r.inverse = inv.data();
    int32_t code = instance->qpReconQP(&r);
    std::printf("\none-row QP with %d variables, sum = %g: %s after %d iterations\n", n, p.b,
                reconStatus(code), r.iterations);
    if (code == 0) {
      double sum = 0.0;
      for (int32_t i = 0; i < n; ++i) {
        std::printf("  x[%d] = %14.8f\n", i, x[i]);
        sum += x[i];
      }
      std::printf("  sum of x  = %14.8f\n  objective = %14.8f\n", sum, r.objective);
      std::printf("  primal residual %.2e, dual residual %.2e, gap %.2e\n", r.primalResidual,
                  r.dualResidual, r.gap);
    } else {
      rc = 1;
    }
    module.destroyInstance(instance);
  }
  hxhost::closeHalvexLibrary(&entries);
  return rc;
}

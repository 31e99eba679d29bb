// Solves the shared test problems through the instance's QP entry and
// compares the objective with the published optimum.
//
//   halvex_testset DATA_DIR SET [NAME ...]
//
// SET is a folder of DATA_DIR (netlib, maros) with an optimal.csv; with
// names only those problems run.  Prints a line per problem and closes with
// "N passed, M failed"; exits non-zero when any failed.
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "cli/mps.h"
#include "cli/qprecord.h"
#include "frame/entry.h"
#include "frame/instance.h"
#include "host/host.h"

namespace {

std::map<std::string, double> readOptimal(const std::string& path) {
  std::map<std::string, double> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    size_t comma = line.find(',');
    if (comma == std::string::npos || line.compare(0, comma, "name") == 0) continue;
    std::string name = line.substr(0, comma);
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    out[name] = std::strtod(line.c_str() + comma + 1, nullptr);
  }
  return out;
}

std::string problemName(const std::string& file) {
  std::string n = file.substr(0, file.find('.'));
  std::transform(n.begin(), n.end(), n.begin(), ::tolower);
  return n;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s DATA_DIR SET [NAME ...]\n", argv[0]);
    return 2;
  }
  const std::string dir = std::string(argv[1]) + "/" + argv[2];
  std::map<std::string, double> optimal = readOptimal(dir + "/optimal.csv");
  if (optimal.empty()) {
    std::fprintf(stderr, "no optimal.csv in %s\n", dir.c_str());
    return 2;
  }
  std::vector<std::string> wanted(argv + 3, argv + argc);
  for (std::string& w : wanted) std::transform(w.begin(), w.end(), w.begin(), ::tolower);

  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string f = e->d_name;
      if (f.find(".mps") == std::string::npos && f.find(".qps") == std::string::npos) continue;
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), problemName(f)) == wanted.end())
        continue;
      files.push_back(f);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  if (files.empty() || (!wanted.empty() && files.size() != wanted.size())) {
    std::fprintf(stderr, "%zu of the problems asked for are in %s\n", files.size(), dir.c_str());
    return 2;
  }

  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  int passed = 0, failed = 0;
  for (const std::string& f : files) {
    const std::string name = problemName(f);
    hxcli::MpsProblem p;
    hxcli::MpsError error;
    hxcli::QPModel model;
    std::string why;
    if (!hxcli::readMpsFile(dir + "/" + f, hxcli::MpsFormat::Auto, &p, &error) ||
        !hxcli::buildQPRecord(p, &model, &why)) {
      std::printf("FAIL %-12s unreadable: %s%s\n", name.c_str(), error.message().c_str(),
                  why.c_str());
      ++failed;
      continue;
    }
    auto* instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
    if (!instance) {
      std::printf("FAIL %-12s no instance\n", name.c_str());
      ++failed;
      continue;
    }
    // The published optima carry 8 to 10 digits; the comparison asks for 6,
    // which a relative gap of 1e-6 does not promise, so the run asks for 1e-8.
    instance->scripter.primalTol = instance->scripter.dualTol = instance->scripter.gapTol = 1e-8;
    auto start = std::chrono::steady_clock::now();
    int32_t code = instance->ipqpScripter(instance, &model.record);
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    halvex_destroy_instance(instance);

    auto ref = optimal.find(name);
    double obj = model.record.objValue;
    double err = ref == optimal.end() ? NAN : std::fabs(obj - ref->second) /
                                                 std::max(1.0, std::fabs(ref->second));
    bool ok = (code == 0 || code == 9) && err <= 1e-6;
    std::printf("%s %-12s code %2d  objective %.10e  rel.err %.1e  iterations %4d  %.2f s\n",
                ok ? "ok  " : "FAIL", name.c_str(), code, obj, err, model.record.iterations,
                seconds);
    std::fflush(stdout);
    (ok ? passed : failed)++;
  }
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}

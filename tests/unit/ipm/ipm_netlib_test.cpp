// Real LPs and QPs from the shared test set, unscaled and unpresolved,
// straight through addSlack, ipmSolve and removeSlack.  The set's folder
// comes from the build (HALVEX_DATA_DIR); a missing file is a failure, so
// that a misplaced data folder cannot pass for a green run.
#include <gtest/gtest.h>
#include <math.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <string>

#include "cli/mps.h"
#include "frame/qv.h"
#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

const std::string kData = std::string(HALVEX_DATA_DIR) + "/";

double knownOptimum(const std::string& set, const std::string& name) {
  std::ifstream in(kData + set + "/optimal.csv");
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, name.size() + 1, name + ",") == 0)
      return std::stod(line.substr(name.size() + 1));
  return NAN;
}

// The file's model in the iteration's terms, densely (the files are small):
// rows as E, G, L or R (rhs the upper end), free rows left out, and the
// objective turned to a minimisation.
Problem fromFile(const hxcli::MpsProblem& mps) {
  const int32_t n = mps.numCol();
  std::vector<int32_t> rowMap(mps.numRow(), -1);
  std::string sense;
  Vec rhs, range;
  for (int32_t i = 0; i < mps.numRow(); i++) {
    if (mps.rowSense[i] == 'N') continue;
    rowMap[i] = (int32_t)sense.size();
    const double lo = mps.rowLower[i], up = mps.rowUpper[i];
    const bool hasLo = lo > -kInf, hasUp = up < kInf;
    sense.push_back(hasLo && hasUp ? (lo == up ? 'E' : 'R') : hasLo ? 'G' : 'L');
    rhs.push_back(hasUp ? up : lo);
    range.push_back(hasLo && hasUp ? up - lo : 0.0);
  }
  Dense a(sense.size(), Vec(n, 0.0)), q(n, Vec(n, 0.0));
  Vec obj(n);
  for (int32_t j = 0; j < n; j++) {
    obj[j] = mps.objSense * mps.obj[j];
    for (int32_t k = mps.colBegin[j]; k < mps.colBegin[j + 1]; k++)
      if (rowMap[mps.rowIndex[k]] >= 0) a[rowMap[mps.rowIndex[k]]][j] += mps.value[k];
  }
  Problem p(a, sense, rhs, obj, mps.colLower, mps.colUpper, range);
  if (mps.isQP()) {
    for (int32_t j = 0; j < n; j++) {
      q[j][j] = mps.objSense * mps.quadDiag[j];
      for (int32_t k = mps.quadColBegin[j]; k < mps.quadColBegin[j + 1]; k++)
        q[mps.quadRowIndex[k]][j] = q[j][mps.quadRowIndex[k]] = mps.objSense * mps.quadValue[k];
    }
    p.setQuad(q);
  }
  p.option.printLevel = 0;
  return p;
}

class IpmNetlib : public HostTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(IpmNetlib, ReachesTheKnownOptimum) {
  const std::string entry = GetParam();
  const std::string set = entry.substr(0, entry.find('/')), name = entry.substr(set.size() + 1);
  const std::string path = kData + set + "/" + name + (set == "netlib" ? ".mps.gz" : ".qps.gz");
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0) << path << " is not there";
  const double want = knownOptimum(set, name);
  ASSERT_FALSE(std::isnan(want)) << "no known optimum for " << name;
  hxcli::MpsProblem mps;
  hxcli::MpsError error;
  ASSERT_TRUE(hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &mps, &error));
  Problem p = fromFile(mps);
  RunResult r = runSolve(&env, p);
  ASSERT_EQ(r.addStatus, 0);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(mps.objSense * p.objective() + mps.objConstant, want, 1e-7 * (1.0 + fabs(want)));
  EXPECT_EQ(liveBlocks(), 0);
}

INSTANTIATE_TEST_SUITE_P(IpmFiles, IpmNetlib,
                         ::testing::Values("netlib/afiro", "netlib/sc50a", "netlib/adlittle",
                                           "netlib/blend", "netlib/share2b", "maros/HS21",
                                           "maros/QAFIRO", "maros/HS118", "maros/DUAL1"));

}  // namespace

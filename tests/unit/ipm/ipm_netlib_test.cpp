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

// The file's rows as E, G, L or R (rhs the upper end), its free rows left out.
struct FileModel {
  hxcli::MpsProblem mps;
  std::vector<int32_t> colBegin, colLength, rowIndex, qBegin, qLength, qIndex;
  std::vector<double> matValue, obj, lower, upper, rhs, range, x, y, qDiag, qValue;
  std::vector<char> sense;
  ipmModel model{};
  ipmStorage storage{};

  bool read(const std::string& path) {
    hxcli::MpsError error;
    if (!hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &mps, &error)) return false;
    const int32_t n = mps.numCol();
    std::vector<int32_t> rowMap(mps.numRow(), -1);
    int32_t m = 0;
    for (int32_t i = 0; i < mps.numRow(); i++) {
      if (mps.rowSense[i] == 'N') continue;
      rowMap[i] = m++;
      const double lo = mps.rowLower[i], up = mps.rowUpper[i];
      const bool hasLo = lo > -kInf, hasUp = up < kInf;
      sense.push_back(hasLo && hasUp ? (lo == up ? 'E' : 'R') : hasLo ? 'G' : 'L');
      rhs.push_back(hasUp ? up : lo);
      range.push_back(hasLo && hasUp ? up - lo : 0.0);
      storage.numRange += sense.back() == 'R';
      storage.numLcont += sense.back() == 'L';
    }
    for (int32_t j = 0; j < n; j++) {
      colBegin.push_back((int32_t)rowIndex.size());
      for (int32_t k = mps.colBegin[j]; k < mps.colBegin[j + 1]; k++)
        if (rowMap[mps.rowIndex[k]] >= 0) {
          rowIndex.push_back(rowMap[mps.rowIndex[k]]);
          matValue.push_back(mps.value[k]);
        }
      colLength.push_back((int32_t)rowIndex.size() - colBegin.back());
    }
    const int32_t nnz = (int32_t)rowIndex.size(), cols = n + storage.numRange;
    colBegin.resize(cols + 1, nnz);
    colLength.resize(cols, 0);
    rowIndex.resize(nnz + storage.numRange);
    matValue.resize(nnz + storage.numRange);
    obj = mps.obj;
    lower = mps.colLower;
    upper = mps.colUpper;
    for (double& c : obj) c *= mps.objSense;
    for (auto* v : {&obj, &lower, &upper, &x}) v->resize(cols, 0.0);
    y.assign(m, 0.0);
    model = ipmModel{};
    model.typeModel = mps.isQP() ? IPM_MODEL_QP : IPM_MODEL_LP;
    model.numRow = m;
    model.numCol = n;
    model.numCoef = nnz;
    if (mps.isQP()) {
      qDiag = mps.quadDiag;
      qDiag.resize(cols, 0.0);
      qValue = mps.quadValue;
      qIndex = mps.quadRowIndex;
      for (double& q : qDiag) q *= mps.objSense;
      for (double& q : qValue) q *= mps.objSense;
      qValue.push_back(0.0);
      qIndex.push_back(0);
      qBegin.assign(mps.quadColBegin.begin(), mps.quadColBegin.end());
      qBegin.resize(cols + 1, mps.quadColBegin[n]);
      for (int32_t j = 0; j < cols; j++) qLength.push_back(qBegin[j + 1] - qBegin[j]);
      model.numQuadCoef = mps.numQuadCoef();
      model.quadDiag = qDiag.data();
      model.quadColBegin = qBegin.data();
      model.quadColLength = qLength.data();
      model.quadRowIndex = qIndex.data();
      model.quadMatValue = qValue.data();
    }
    model.colBegin = colBegin.data();
    model.colLength = colLength.data();
    model.rowIndex = rowIndex.data();
    model.matValue = matValue.data();
    model.obj = obj.data();
    model.lower = lower.data();
    model.upper = upper.data();
    model.rhs = rhs.data();
    model.range = range.data();
    model.rowSense = sense.data();
    model.solPrimal = x.data();
    model.solDual = y.data();
    storage.objScale = 1.0;
    return true;
  }

  double objective() const {
    double f = mps.objConstant;
    for (int32_t j = 0; j < mps.numCol(); j++) {
      f += mps.obj[j] * x[j];
      if (!mps.isQP()) continue;
      f += 0.5 * mps.quadDiag[j] * x[j] * x[j];
      for (int32_t k = mps.quadColBegin[j]; k < mps.quadColBegin[j + 1]; k++)
        f += x[j] * mps.quadValue[k] * x[mps.quadRowIndex[k]];
    }
    return f;
  }
};

class IpmNetlib : public HostTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(IpmNetlib, ReachesTheKnownOptimum) {
  const std::string entry = GetParam();
  const std::string set = entry.substr(0, entry.find('/')), name = entry.substr(set.size() + 1);
  const std::string path = kData + set + "/" + name + (set == "netlib" ? ".mps.gz" : ".qps.gz");
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0) << path << " is not there";
  const double want = knownOptimum(set, name);
  ASSERT_FALSE(std::isnan(want)) << "no known optimum for " << name;
  FileModel f;
  ASSERT_TRUE(f.read(path));
  ASSERT_EQ(addSlack(&env, &f.model, &f.storage), 0);
  ipmSolution* solution = nullptr;
  ASSERT_EQ(NewSolution(&env, &solution, f.model.numRow, f.model.numCol, f.x.data(), f.y.data()),
            0);
  ipmOption option{};
  option.primalTol = option.dualTol = option.gapTol = 1e-8;
  option.infinity = kInf;
  option.maxIteration = 200;
  option.numThreads = 1;
  const int32_t status = ipmSolve(&env, &f.model, &option, nullptr, &f.storage, solution, nullptr,
                                  IPM_CONTROL_FIRST_LEG);
  removeSlack(&env, &f.model, &f.storage, solution);
  FreeSolution(&env, solution);
  poolFree(pool, f.storage.rangeRow);
  poolFree(pool, f.storage.lcontRow);
  EXPECT_EQ(status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(f.objective(), want, 1e-7 * (1.0 + fabs(want)));
  EXPECT_EQ(liveBlocks(), 0);
}

INSTANTIATE_TEST_SUITE_P(IpmFiles, IpmNetlib,
                         ::testing::Values("netlib/afiro", "netlib/sc50a", "netlib/adlittle",
                                           "netlib/blend", "netlib/share2b", "maros/HS21",
                                           "maros/QAFIRO", "maros/HS118", "maros/DUAL1"));

}  // namespace

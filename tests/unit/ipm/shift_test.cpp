// Bound shift and restore of an LP.  Numbers are small dyadic values so
// that a shift and its restore must come back bit for bit.
#include <string>
#include <vector>

#include "frame/qv.h"
#include "ipm/shift.h"
#include "presolve/presolver.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

constexpr double kInf = 1e20;

ipmOption lpOption() {
  ipmOption o{};
  o.infinity = kInf;
  o.primalTol = o.dualTol = o.gapTol = 1e-6;
  return o;
}

// A column-wise model over vectors.  Every column has two live entries and
// one removed entry behind them, which no stage may touch.
struct Model {
  int numRow = 3;
  std::vector<double> lower, upper, obj, rhs, matValue;
  std::vector<int32_t> colBegin, colLength, rowIndex;
  std::vector<char> sense;
  // solution
  std::vector<double> x, y, lowerSlack, upperSlack, lowerDual, upperDual, ineqnSlack;
  ipmModel m{};
  ipmSolution s{};

  void addColumn(double lb, double ub, double c, double a0, double a1, double xj) {
    const int j = (int)lower.size();
    lower.push_back(lb);
    upper.push_back(ub);
    obj.push_back(c);
    colBegin.push_back((int32_t)matValue.size());
    colLength.push_back(2);
    rowIndex.insert(rowIndex.end(), {j % numRow, (j + 1) % numRow, (j + 2) % numRow});
    matValue.insert(matValue.end(), {a0, a1, 99.0});
    x.push_back(xj);
    lowerSlack.push_back(0.25 * (j + 1));
    upperSlack.push_back(0.5 * (j + 1));
    lowerDual.push_back(1.0 * (j + 1));
    upperDual.push_back(2.0 * (j + 1));
  }

  void finish(int32_t type = IPM_MODEL_LP) {
    const int numCol = (int)lower.size();
    if (colBegin.size() == lower.size()) colBegin.push_back((int32_t)matValue.size());
    rhs = {1.5, -2.0, 4.0};
    sense = {'E', 'L', 'G'};
    y = {0.5, -1.0, 0.25};
    ineqnSlack = {0.0, 0.75, 1.25};
    m = ipmModel{};
    m.typeModel = type;
    m.numRow = numRow;
    m.numCol = numCol;
    m.numCoef = (int32_t)matValue.size();
    m.colBegin = colBegin.data();
    m.colLength = colLength.data();
    m.rowIndex = rowIndex.data();
    m.matValue = matValue.data();
    m.obj = obj.data();
    m.rhs = rhs.data();
    m.rowSense = sense.data();
    m.lower = lower.data();
    m.upper = upper.data();
    m.solPrimal = x.data();
    m.solDual = y.data();
    s = ipmSolution{x.data(), y.data(), lowerSlack.data(), upperSlack.data(),
                    lowerDual.data(), upperDual.data(), ineqnSlack.data()};
  }

  // A x - rhs over the live entries.
  std::vector<double> residual() const {
    std::vector<double> r(numRow);
    for (int i = 0; i < numRow; i++) r[i] = -rhs[i];
    for (size_t j = 0; j < lower.size(); j++)
      for (int k = colBegin[j]; k < colBegin[j] + colLength[j]; k++)
        r[rowIndex[k]] += matValue[k] * x[j];
    return r;
  }

  // c'x at a point.
  double objective(const std::vector<double>& at) const { return objective(at, obj); }
  double objective(const std::vector<double>& at, const std::vector<double>& c) const {
    double f = 0.0;
    for (size_t j = 0; j < lower.size(); j++) f += c[j] * at[j];
    return f;
  }

  // Everything that a shift and its restore touch.
  std::vector<std::vector<double>> snapshot() const {
    return {lower, upper, obj, rhs, matValue, x, lowerSlack, upperSlack, lowerDual, upperDual};
  }
};

// One column per case of the shift, with what it must become.
struct ShiftCase {
  const char* name;
  double lb, ub, c, xj;
  int32_t status;
  double t, newLower, newUpper;
};

const ShiftCase kCases[] = {
    {"A: upper only", -kInf, 3.0, 2.0, 1.0, SHIFT_FLIPPED, 3.0, 0.0, kInf},
    {"A: upper only, lower beyond inf", -1e30, -2.0, 1.0, -5.0, SHIFT_FLIPPED, -2.0, 0.0, 1e30},
    {"B: upper 0", -kInf, 0.0, 1.5, -2.0, SHIFT_FLIPPED_ZERO, 0.0, 0.0, kInf},
    {"C: free", -kInf, kInf, 1.0, 7.0, SHIFT_NONE, 0.0, -kInf, kInf},
    {"D: lower only", 2.0, kInf, -1.0, 3.5, SHIFT_MOVED, 2.0, 0.0, kInf},
    {"E: lower 0", 0.0, kInf, 1.0, 0.5, SHIFT_NONE, 0.0, 0.0, kInf},
    {"F: boxed, cost up", 1.0, 5.0, 3.0, 2.0, SHIFT_MOVED, 1.0, 0.0, 4.0},
    {"G: boxed, cost down", -2.0, 6.0, -1.0, 5.0, SHIFT_FLIPPED, 6.0, 0.0, 8.0},
    {"G: boxed, cost down, upper 0", -4.0, 0.0, -0.5, -1.0, SHIFT_FLIPPED_ZERO, 0.0, 0.0, 4.0},
    {"H: boxed, no cost", 2.0, 4.0, 0.0, 3.25, SHIFT_MOVED, 3.0, -1.0, 1.0},
    {"I: boxed, cost up, lower 0", 0.0, 5.0, 4.0, 1.0, SHIFT_NONE, 0.0, 0.0, 5.0},
    {"I: boxed, no cost, centred", -1.0, 1.0, 0.0, 0.5, SHIFT_NONE, 0.0, -1.0, 1.0},
};
constexpr int kNumCases = sizeof kCases / sizeof kCases[0];

Model caseModel(int32_t type = IPM_MODEL_LP) {
  Model md;
  for (int j = 0; j < kNumCases; j++)
    md.addColumn(kCases[j].lb, kCases[j].ub, kCases[j].c, 1.0 + j, -0.5 * j, kCases[j].xj);
  md.finish(type);
  return md;
}

class Shift : public HostTest {
 protected:
  ~Shift() override { DestroyPresolverArrays(); }
  void DestroyPresolverArrays() {
    poolRelease(pool, pre.shiftValue);
    poolRelease(pool, pre.shiftStatus);
  }
  presolver pre{};
  ipmOption option = lpOption();
};

TEST_F(Shift, EveryCaseTakesItsNormalFormAndComesBackExactly) {
  Model md = caseModel();
  const auto before = md.snapshot();
  const std::vector<double> residualBefore = md.residual();
  const double objectiveBefore = md.objective(md.x);

  ASSERT_EQ(ipmShiftBound(&env, &md.m, &option, &pre, &md.s), 0);
  for (int j = 0; j < kNumCases; j++) {
    const ShiftCase& k = kCases[j];
    SCOPED_TRACE(k.name);
    EXPECT_EQ(pre.shiftStatus[j], k.status);
    EXPECT_EQ(pre.shiftValue[j], k.t);
    EXPECT_EQ(md.lower[j], k.newLower);
    EXPECT_EQ(md.upper[j], k.newUpper);
    const bool flipped = k.status < 0;
    EXPECT_EQ(md.obj[j], flipped ? -k.c : k.c);
    EXPECT_EQ(md.matValue[3 * j], flipped ? -(1.0 + j) : 1.0 + j);
    EXPECT_EQ(md.matValue[3 * j + 2], 99.0) << "a removed entry was touched";
    // The new variable: x - t, t - x or -x.
    const double expectX = k.status == SHIFT_MOVED ? k.xj - k.t
                           : k.status == SHIFT_FLIPPED ? k.t - k.xj
                           : k.status == SHIFT_FLIPPED_ZERO ? -k.xj
                                                            : k.xj;
    EXPECT_EQ(md.x[j], expectX);
    // A mirrored column's lower side is the old upper side.
    EXPECT_EQ(md.lowerDual[j], flipped ? 2.0 * (j + 1) : 1.0 * (j + 1));
    EXPECT_EQ(md.upperSlack[j], flipped ? 0.25 * (j + 1) : 0.5 * (j + 1));
  }
  // The shifted model says the same thing about the shifted point.
  EXPECT_EQ(md.residual(), residualBefore);
  // The objective moves by a constant: check at a second point too.
  std::vector<double> other(kNumCases), otherShifted(kNumCases);
  for (int j = 0; j < kNumCases; j++) {
    const ShiftCase& k = kCases[j];
    other[j] = 0.5 * j - 1.0;
    otherShifted[j] = k.status == SHIFT_MOVED ? other[j] - k.t
                      : k.status == SHIFT_FLIPPED ? k.t - other[j]
                      : k.status == SHIFT_FLIPPED_ZERO ? -other[j]
                                                       : other[j];
  }
  EXPECT_EQ(objectiveBefore - md.objective(md.x),
            md.objective(other, before[2]) - md.objective(otherShifted));

  ipmShiftRestore(&env, &md.m, &option, &pre, &md.s);
  EXPECT_EQ(md.snapshot(), before);
}

TEST_F(Shift, RefusedMemoryLeavesModelAndPoolAsTheyWere) {
  const auto result = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
    Model md = caseModel();
    const auto before = md.snapshot();
    const int32_t status = ipmShiftBound(&env, &md.m, &option, &pre, &md.s);
    if (probe.refused()) {
      EXPECT_EQ(pre.shiftValue, nullptr);
      EXPECT_EQ(pre.shiftStatus, nullptr);
      EXPECT_EQ(md.snapshot(), before);
    }
    return status;
  });
  EXPECT_EQ(result.finalStatus, 0);
  EXPECT_EQ(result.refusedRuns, 2);
}

}  // namespace

// Bound shift and restore, bound relaxation, and the bound analyses of the
// presolver.  Numbers are small dyadic values so that a shift and its
// restore must come back bit for bit.
#include <float.h>

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
  std::vector<double> quadDiag, quadMatValue;
  std::vector<int32_t> quadColBegin, quadColLength, quadRowIndex;
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
    if (!quadDiag.empty()) m.quadDiag = quadDiag.data();
    if (!quadMatValue.empty()) {
      m.numQuadCoef = (int32_t)quadMatValue.size();
      m.quadColBegin = quadColBegin.data();
      m.quadColLength = quadColLength.data();
      m.quadRowIndex = quadRowIndex.data();
      m.quadMatValue = quadMatValue.data();
    }
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

  // c'x + 1/2 x'Qx at a point, the strict triangle counting for both sides.
  double objective(const std::vector<double>& at) const { return objective(at, obj); }
  double objective(const std::vector<double>& at, const std::vector<double>& c) const {
    double f = 0.0;
    for (size_t j = 0; j < lower.size(); j++) {
      f += c[j] * at[j];
      if (!quadDiag.empty()) f += 0.5 * quadDiag[j] * at[j] * at[j];
    }
    for (size_t j = 0; j + 1 < quadColBegin.size(); j++)
      for (int k = quadColBegin[j]; k < quadColBegin[j] + quadColLength[j]; k++)
        f += quadMatValue[k] * at[j] * at[quadRowIndex[k]];
    return f;
  }

  // Everything that a shift and its restore touch.
  std::vector<std::vector<double>> snapshot() const {
    return {lower, upper, obj, rhs, matValue, x, lowerSlack, upperSlack, lowerDual, upperDual,
            quadMatValue};
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

TEST_F(Shift, ModelAloneThenASecondCallOnTheSameArrays) {
  Model md = caseModel();
  const auto before = md.snapshot();
  ipmShiftRestore(&env, &md.m, &option, &pre, &md.s);  // nothing shifted yet: nothing moves
  EXPECT_EQ(md.snapshot(), before);
  ASSERT_EQ(ipmShiftBound(&env, &md.m, &option, &pre, nullptr), 0);
  // The point stays where it was when no solution is handed in.
  EXPECT_EQ(md.x, before[5]);
  EXPECT_NE(md.lower, before[0]);
  ipmShiftRestore(&env, &md.m, &option, &pre, &md.s);
  // The restore maps the point, so it moved; the model is the original.
  for (int k = 0; k < 5; k++) EXPECT_EQ(md.snapshot()[k], before[k]) << k;

  // The second call reuses the arrays and forgets the first.
  double* value = pre.shiftValue;
  int32_t* status = pre.shiftStatus;
  const int64_t live = liveBlocks();
  md.lower[4] = 0.0;  // case D becomes case E
  ASSERT_EQ(ipmShiftBound(&env, &md.m, &option, &pre, &md.s), 0);
  EXPECT_EQ(pre.shiftValue, value);
  EXPECT_EQ(pre.shiftStatus, status);
  EXPECT_EQ(liveBlocks(), live);
  EXPECT_EQ(pre.shiftStatus[4], SHIFT_NONE);
  EXPECT_EQ(pre.shiftValue[4], 0.0);
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

// ---- the QP rules, reached by the check of the shift ---------------------------------

// Columns: 0 boxed with a cost that would flip an LP, 1 lower only, 2 upper
// only, 3 upper only, 4 free, 5 boxed and centred.  Off-diagonal entries
// join them in the pairs whose shift is exact.
Model qpModel() {
  Model md;
  md.addColumn(-1.0, 3.0, -2.0, 1.0, 0.5, 2.0);     // shift by 1
  md.addColumn(2.0, kInf, 1.0, -1.0, 2.0, 2.5);     // shift by 2
  md.addColumn(-kInf, 4.0, 0.5, 0.5, 1.0, 1.0);     // flip around 4
  md.addColumn(-kInf, -2.0, -1.0, 2.0, -1.0, -3.0); // flip around -2
  md.addColumn(-kInf, kInf, 0.25, 1.0, 1.0, 0.5);   // untouched
  md.addColumn(-2.0, 2.0, 1.0, -2.0, 0.5, 1.5);     // untouched
  md.quadDiag = {2.0, 1.0, 4.0, 0.5, 1.0, 2.0};
  // (0,1) both shifted, (0,4) shifted with untouched, (2,4) flipped with
  // untouched, (2,3) both flipped, (5,2) untouched with flipped.
  md.quadColBegin = {0, 2, 2, 4, 4, 4, 5};
  md.quadColLength = {2, 0, 2, 0, 0, 1};
  md.quadRowIndex = {1, 4, 4, 3, 2};
  md.quadMatValue = {0.5, -1.0, 0.25, 0.75, -0.5};
  md.finish(IPM_MODEL_QP);
  return md;
}

TEST_F(Shift, QuadraticObjectiveMovesByAConstant) {
  Model md = qpModel();
  const std::vector<double> x0 = md.x, x1 = {0.5, 3.0, -1.0, -4.0, 2.0, -1.5};
  const double f0 = md.objective(x0), f1 = md.objective(x1);
  ASSERT_EQ(ipmShiftBound(&env, &md.m, &option, &pre, &md.s), 0);
  EXPECT_EQ(std::vector<int32_t>(pre.shiftStatus, pre.shiftStatus + 6),
            (std::vector<int32_t>{SHIFT_MOVED, SHIFT_MOVED, SHIFT_FLIPPED, SHIFT_FLIPPED,
                                  SHIFT_NONE, SHIFT_NONE}));
  // A QP box goes to its midpoint whatever its cost.
  EXPECT_EQ(pre.shiftValue[0], 1.0);
  EXPECT_EQ(md.lower[0], -2.0);
  EXPECT_EQ(md.upper[0], 2.0);
  std::vector<double> y1(6);
  for (int j = 0; j < 6; j++) {
    const double t = pre.shiftValue[j];
    y1[j] = pre.shiftStatus[j] == SHIFT_MOVED ? x1[j] - t
            : pre.shiftStatus[j] == SHIFT_FLIPPED ? t - x1[j]
                                                  : x1[j];
  }
  EXPECT_DOUBLE_EQ(f0 - md.objective(md.x), f1 - md.objective(y1));

  // Without the pair of two mirrored columns and the mixed pair the restore
  // is exact.
  DestroyPresolverArrays();
  pre = presolver{};
  Model exact = qpModel();
  exact.quadColLength = {2, 0, 1, 0, 0, 0};
  exact.finish(IPM_MODEL_QP);
  const auto before = exact.snapshot();
  ASSERT_EQ(ipmShiftBound(&env, &exact.m, &option, &pre, &exact.s), 0);
  EXPECT_EQ(exact.quadMatValue[2], -0.25);  // mirrored against untouched
  ipmShiftRestore(&env, &exact.m, &option, &pre, &exact.s);
  EXPECT_EQ(exact.snapshot(), before);
}

TEST_F(Shift, QuadraticMixedAndDoublyMirroredPairsKeepTheirTables) {
  // Column 0 shifted by 1, column 1 mirrored around 4, column 2 mirrored
  // around -2; pairs (0,1) and (1,2).
  Model md;
  md.addColumn(1.0, kInf, 0.0, 1.0, 1.0, 3.0);
  md.addColumn(-kInf, 4.0, 0.0, 1.0, 1.0, 1.0);
  md.addColumn(-kInf, -2.0, 0.0, 1.0, 1.0, -3.0);
  md.quadDiag = {0.0, 0.0, 0.0};
  md.quadColBegin = {0, 1, 2, 2};
  md.quadColLength = {1, 1, 0};
  md.quadRowIndex = {1, 2};
  md.quadMatValue = {2.0, 3.0};
  md.finish(IPM_MODEL_QP);
  ASSERT_EQ(ipmShiftBound(&env, &md.m, &option, &pre, &md.s), 0);
  // (0,1), shifted against mirrored: q becomes -2, obj0 += -2 * 4, obj1 -= -2 * 1.
  // (1,2), both mirrored: obj1 -= 3 * -2, obj2 -= 3 * 4.
  EXPECT_EQ(md.quadMatValue, (std::vector<double>{-2.0, 3.0}));
  EXPECT_EQ(md.obj, (std::vector<double>{-8.0, 8.0, -12.0}));
  ipmShiftRestore(&env, &md.m, &option, &pre, &md.s);
  // (0,1): q back to 2, obj0 += 2 * 4, obj1 += 2 * 1.  (1,2): obj1 -= 3 * -2,
  // obj2 -= 3 * 4.  Then the mirrors negate obj1 and obj2: neither pair
  // comes back to the zero costs it started from.
  EXPECT_EQ(md.quadMatValue, (std::vector<double>{2.0, 3.0}));
  EXPECT_EQ(md.obj, (std::vector<double>{0.0, -16.0, 24.0}));
}

// ---- relaxation ------------------------------------------------------------------------

TEST_F(Shift, RelaxDropsTheMarkedBoundsOfBoxedColumns) {
  struct Case {
    const char* name;
    double lb, ub;
    uint8_t flags;
    double newLower, newUpper;
  };
  const Case cases[] = {
      {"lower flag", -3.0, 7.0, RELAX_NO_LOWER, -DBL_MAX, 7.0},
      {"upper flag", -3.0, 7.0, RELAX_NO_UPPER, -3.0, DBL_MAX},
      {"both, equal magnitudes: upper goes", -5.0, 5.0, 3, -5.0, DBL_MAX},
      {"both, far: both go", -200.0, 300.0, 3, -DBL_MAX, DBL_MAX},
      {"both, exactly 100 away: both go", 100.0, 250.0, 3, -DBL_MAX, DBL_MAX},
      {"both, larger upper goes", -3.0, 50.0, 3, -3.0, DBL_MAX},
      {"both, larger lower goes", -150.0, 2.0, 3, -DBL_MAX, 2.0},
      {"lower only keeps it", 1.0, kInf, 3, 1.0, kInf},
      {"upper only keeps it", -kInf, 1.0, 3, -kInf, 1.0},
      {"no flags", -3.0, 7.0, 0, -3.0, 7.0},
  };
  Model md;
  std::vector<uint8_t> flags;
  for (const Case& c : cases) {
    md.addColumn(c.lb, c.ub, 1.0, 1.0, 1.0, 0.0);
    flags.push_back(c.flags);
  }
  md.finish();
  md.m.relaxColBound = flags.data();
  relaxBound(&env, &md.m, &option);
  for (size_t j = 0; j < sizeof cases / sizeof cases[0]; j++) {
    SCOPED_TRACE(cases[j].name);
    EXPECT_EQ(md.lower[j], cases[j].newLower);
    EXPECT_EQ(md.upper[j], cases[j].newUpper);
  }

  md.m.relaxColBound = nullptr;
  md.lower[9] = -3.0;
  flags[9] = 3;
  relaxBound(&env, &md.m, &option);
  EXPECT_EQ(md.lower[9], -3.0) << "no flag array, nothing relaxed";
}

// ---- the presolver's bound analyses -----------------------------------------------------

struct Analysis {
  // Four columns, three rows; row 2 removed.
  std::vector<double> lower{0, -kInf, -5, 1}, upper{10, kInf, 5, kInf};
  std::vector<double> lowerBound{0, -kInf, -5, 1}, upperBound{10, kInf, 5, kInf};
  std::vector<int32_t> colMap{0, 1, 2, 3}, rowMap{0, 1, -2}, lbMap{-1, -1, -1, -1},
      ubMap{-1, -1, -1, -1};
  std::vector<char> sense{'E', 'E', 'L'}, preSense{'E', 'E', 'L'};
  ipmModel m{};
  presolver pre{};
  Analysis() {
    m.typeModel = IPM_MODEL_LP;
    m.numRow = 3;
    m.numCol = 4;
    m.numCoef = 6;
    m.lower = lower.data();
    m.upper = upper.data();
    m.rowSense = sense.data();
    pre.lowerBound = lowerBound.data();
    pre.upperBound = upperBound.data();
    pre.colMap = colMap.data();
    pre.rowMap = rowMap.data();
    pre.lbMap = lbMap.data();
    pre.ubMap = ubMap.data();
    pre.rowSense = preSense.data();
    pre.numRemovedRow = 1;
  }
};

TEST_F(Shift, BoundChangeSeenBeyondTheTolerance) {
  Analysis a;
  getBoundStatus(&env, &a.m, &option, &a.pre);
  EXPECT_EQ(a.pre.boundChanged, 0);
  a.lowerBound[0] = 1e-7;  // within primalTol
  getBoundStatus(&env, &a.m, &option, &a.pre);
  EXPECT_EQ(a.pre.boundChanged, 0);
  a.upperBound[2] = 4.0;
  getBoundStatus(&env, &a.m, &option, &a.pre);
  EXPECT_EQ(a.pre.boundChanged, 1);
  a.colMap[2] = COLMAP_FIXED;  // a removed column does not count
  getBoundStatus(&env, &a.m, &option, &a.pre);
  EXPECT_EQ(a.pre.boundChanged, 0);
}

TEST_F(Shift, RelaxFlagsOnlyForBoundsFromLiveRows) {
  Analysis a;
  hxtest::textLines().clear();
  env.textLog = hxtest::captureText;
  // Bounds-only presolve: the model holds the tight bounds.
  a.pre.preControl = PRECONTROL_BOUND;
  a.lower[0] = 2.0;  // from row 0, live
  a.lbMap[0] = 0;
  a.upper[2] = 3.0;  // from row 2, removed
  a.ubMap[2] = 2;
  a.upper[3] = 6.0;  // from row 1, live
  a.ubMap[3] = 1;
  const int64_t live = liveBlocks();
  ASSERT_EQ(getRelaxBoundStatus(&env, &a.m, &option, &a.pre), 0);
  ASSERT_NE(a.m.relaxColBound, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(a.m.relaxColBound, a.m.relaxColBound + 4),
            (std::vector<uint8_t>{RELAX_NO_LOWER, 0, 0, RELAX_NO_UPPER}));

  // Already set: refused with its line.
  EXPECT_EQ(getRelaxBoundStatus(&env, &a.m, &option, &a.pre), IPM_STATUS_FAILED);
  EXPECT_TRUE(hxtest::logged("relaxColBound should not be set if control comes here."));
  poolRelease(pool, a.m.relaxColBound);
  EXPECT_EQ(liveBlocks(), live);

  // Nothing to relax: no array.
  a.lbMap[0] = a.ubMap[3] = -1;
  ASSERT_EQ(getRelaxBoundStatus(&env, &a.m, &option, &a.pre), 0);
  EXPECT_EQ(a.m.relaxColBound, nullptr);
  EXPECT_EQ(liveBlocks(), live);

  a.pre.preControl = PRECONTROL_NONE;
  a.lbMap[0] = 0;
  ASSERT_EQ(getRelaxBoundStatus(&env, &a.m, &option, &a.pre), 0);
  EXPECT_EQ(a.m.relaxColBound, nullptr);

  a.pre.preControl = PRECONTROL_BOUND;
  const auto sweep = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
    const int32_t status = getRelaxBoundStatus(&env, &a.m, &option, &a.pre);
    if (probe.refused()) {
      EXPECT_EQ(a.m.relaxColBound, nullptr);
    }
    poolRelease(pool, a.m.relaxColBound);
    return status;
  });
  EXPECT_EQ(sweep.finalStatus, 0);
  EXPECT_EQ(sweep.refusedRuns, 1);
}

TEST_F(Shift, RelaxFlagsOfAReducedModelGoToTheNewPlaces) {
  Analysis a;
  // The original model lives in inModel; column 1 went, so column 2 sits at 1.
  ipmModel original = a.m;
  std::vector<double> origLower{0, -kInf, -5, 1}, origUpper{10, kInf, 5, kInf};
  original.lower = origLower.data();
  original.upper = origUpper.data();
  ipmModel reduced{};
  reduced.numCol = 3;
  a.pre.inModel = &original;
  a.pre.preControl = PRECONTROL_REDUCED;
  a.colMap = {0, COLMAP_FIXED, 1, 2};
  a.lowerBound[2] = -1.0;  // tightened by live row 1
  a.lbMap[2] = 1;
  ASSERT_EQ(getRelaxBoundStatus(&env, &reduced, &option, &a.pre), 0);
  ASSERT_NE(reduced.relaxColBound, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(reduced.relaxColBound, reduced.relaxColBound + 3),
            (std::vector<uint8_t>{0, RELAX_NO_LOWER, 0}));
  poolRelease(pool, reduced.relaxColBound);
}

TEST_F(Shift, FreeColumnsAndTheSpecialRoute) {
  Analysis a;
  int32_t numFree = -1;
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 0) << "a bound exactly at infinity still counts as a bound";
  EXPECT_EQ(a.pre.preRoute, PREROUTE_NORMAL);

  a.lower[1] = -2e20;
  a.upper[1] = 2e20;
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 1);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_FREE_COLS);

  // Relaxation flags open the other columns; every row is an equation but
  // one, then all.
  std::vector<uint8_t> flags{3, 0, 3, 3};
  a.m.relaxColBound = flags.data();
  a.pre.preRoute = 0;
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 4);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_FREE_COLS);
  a.sense[2] = 'E';
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_SPECIAL);

  // No matrix: only a QP with off-diagonal terms is special.
  a.m.numCoef = 0;
  a.pre.preRoute = 0;
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_FREE_COLS);
  a.m.typeModel = IPM_MODEL_QP;
  a.m.numQuadCoef = 2;
  countFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_SPECIAL);
}

TEST_F(Shift, ProcessedFreeColumnsCountBoundsFromLiveRowsAsOpen) {
  Analysis a;
  int32_t numFree = -1;
  a.lowerBound[1] = -2e20;
  a.upperBound[1] = 2e20;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 1);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_FREE_COLS);

  // Column 2: both bounds tightened by live rows -> open on both sides.
  a.lowerBound[2] = -4.0;
  a.upperBound[2] = 4.0;
  a.lbMap[2] = 0;
  a.ubMap[2] = 1;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 2);
  // A bound from a removed row stays a bound.
  a.ubMap[2] = 2;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 1);
  // A bound that was not tightened stays a bound, whatever its row.
  a.ubMap[2] = 1;
  a.upperBound[2] = 5.0;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 1);

  // All live columns free and the live rows all equations: special.
  a.upperBound[2] = 4.0;
  a.colMap[0] = COLMAP_FIXED;
  a.colMap[3] = COLMAP_FIXED;
  a.pre.numRemovedCol = 2;
  a.pre.preRoute = 0;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(numFree, 2);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_SPECIAL);
  a.preSense[1] = 'L';
  a.pre.preRoute = 0;
  countProcessedFreeVar(&env, &a.m, &option, &a.pre, &numFree);
  EXPECT_EQ(a.pre.preRoute, PREROUTE_FREE_COLS);
}

}  // namespace

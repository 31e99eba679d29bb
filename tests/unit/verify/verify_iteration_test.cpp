// The per-iteration checks on a hand-made state: silent when the stored
// measures are what the point gives, loud (and 10) when one is off.  The
// step checks also ride along a real solve, which must pass them all.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "ipm/ipm.h"
#include "support/dense_ref.h"
#include "support/ipm_support.h"
#include "unit/verify/verify_support.h"
#include "verify/verify.h"

namespace {

using verifytest::count;
using verifytest::errors;
using verifytest::firstError;
using verifytest::lines;
using verifytest::logged;

// Rows: 0 'E' x0 + x1 = 2;  1 'G' x0 - x2 - s = 0.5.
// Columns: x0 >= 0;  1 <= x1 <= 5;  x2 free.
struct State {
  HalvexEnv env{};
  std::vector<double> obj{1.0, 2.0, -0.5}, lower{0.0, 1.0, -1e20}, upper{1e20, 5.0, 1e20};
  std::vector<double> rhs{2.0, 0.5};
  std::string sense = "EG";
  std::vector<int32_t> colBegin{0, 2, 3, 4}, colLength{2, 1, 1}, rowIndex{0, 1, 0, 1};
  std::vector<double> matValue{1.0, 1.0, 1.0, -1.0};
  std::vector<double> x{0.7, 1.4, 0.1}, y{0.3, 0.8};
  std::vector<double> vecRhs = std::vector<double>(5), corrector = std::vector<double>(5);
  std::vector<int32_t> ineqnIndex{1};
  std::vector<double> s{0.05, 0.12}, ds{0.0, 0.0};
  std::vector<uint8_t> type{VARBND_LOWER_ZERO, VARBND_LOWER | VARBND_UPPER, VARBND_FREE};
  std::vector<double> sl{0.69, 0.41, 0.0}, su{0.0, 3.58, 0.0}, zl{0.6, 0.9, 0.0}, zu{0.0, 0.4, 0.0};
  std::vector<double> dsl = std::vector<double>(3), dsu = std::vector<double>(3),
                      dzl = std::vector<double>(3), dzu = std::vector<double>(3);
  std::vector<double> scratchA = std::vector<double>(3), scratchB = std::vector<double>(3);
  Ipm ipm{};

  State() {
    env.textLog = hxtest::captureText;
    s[0] = 0.0;  // an equation has no slack
    Ipm& p = ipm;
    p.modelType = IPM_MODEL_LP;
    p.numRow = 2;
    p.numCol = 3;
    p.obj = obj.data();
    p.lower = lower.data();
    p.upper = upper.data();
    p.rhs = rhs.data();
    p.rowSense = &sense[0];
    p.numCoef = 4;
    p.colBegin = colBegin.data();
    p.colLength = colLength.data();
    p.rowIndex = rowIndex.data();
    p.matValue = matValue.data();
    p.solPrimal = x.data();
    p.solDual = y.data();
    p.numDim = 5;
    p.vecRhs = vecRhs.data();
    p.correctorPrimal = corrector.data();
    p.numIneqn = 1;
    p.ineqnIndex = ineqnIndex.data();
    p.ineqnSlack = s.data();
    p.ineqnSlackDelta = ds.data();
    p.varBndType = type.data();
    p.lowerSlack = sl.data();
    p.upperSlack = su.data();
    p.lowerDual = zl.data();
    p.upperDual = zu.data();
    p.lowerSlackDelta = dsl.data();
    p.upperSlackDelta = dsu.data();
    p.lowerDualDelta = dzl.data();
    p.upperDualDelta = dzu.data();
    p.numComplement = 4;
    p.normRhs = std::sqrt(4.25);
    p.normObj = std::sqrt(5.25);
    p.normLower = 1.0;
    p.normUpper = 5.0;
    p.infinity = 1e20;
    p.env = &env;
    p.iteration = 4;
    p.blockPrimal = p.blockDual = -1;
    p.alphaPrimal = p.alphaDual = 1.0;
    p.scratchA = scratchA.data();
    p.scratchB = scratchB.data();
    computeMeasurement(&ipm);
    verifytest::clear();
  }
  bool scratchClear() const {
    for (double v : scratchA)
      if (v != 0.0) return false;
    for (double v : scratchB)
      if (v != 0.0) return false;
    return true;
  }
  int32_t measures(int32_t level) {
    int32_t worst = 0;
    for (auto check : {VerifyPrimalInfeas, VerifyBoundInfeas, VerifyDualInfeas, VerifyDualityGap,
                       VerifyComplementarity, VerifyPredictorRhs})
      if (int32_t st = check(&ipm, level)) worst = st;
    return worst;
  }
};

TEST(VerifyMeasures, SilentOnTheStoredMeasuresAndOnlyFromLevelFive) {
  State st;
  EXPECT_EQ(st.measures(4), 0);
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(st.measures(5), 0) << firstError();
  EXPECT_EQ(errors(), 0);
  EXPECT_EQ(count("running debug code......"), 6);
  EXPECT_EQ(count("TRACE:"), 0);  // level 6 and below print no traces
  EXPECT_TRUE(st.scratchClear());
  verifytest::clear();
  EXPECT_EQ(st.measures(7), 0);
  EXPECT_TRUE(logged("TRACE: Primal infeasibility = "));
  EXPECT_TRUE(logged("TRACE: Bound  infeasibility = "));
  EXPECT_TRUE(logged("TRACE: Dual   infeasibility = "));
  EXPECT_TRUE(logged("TRACE: Duality gap          = "));
  EXPECT_TRUE(logged("TRACE: Complementarity      = "));
}

TEST(VerifyMeasures, EachStoredMeasureOffIsReported) {
  struct Case {
    double Ipm::*field;
    double by;
    const char* message;
  } cases[] = {
      {&Ipm::primalInfeas, 1e-7, "Error VerifyPrimalInfeas: iteration=4  primalInfeas="},
      {&Ipm::boundInfeas, -1e-6, "Error VerifyBoundInfeas: iteration=4  boundInfeas="},
      {&Ipm::dualInfeas, 1e-3, "Error VerifyDualInfeas: iteration=4  dualInfeas="},
      {&Ipm::objValuePrimal, 0.01, "Error VerifyDualityGap: iteration=4  objValuePrimal="},
      {&Ipm::objValueDual, 0.01, "Error VerifyDualityGap: iteration=4  objValueDual="},
      {&Ipm::dualityGap, 1e-5, "Error VerifyDualityGap: iteration=4  dualityGap="},
      {&Ipm::complementarity, 1e-4, "Error VerifyComplementarity: iteration=4  complementarity="},
      {&Ipm::mu, 1e-4, "Error VerifyComplementarity: iteration=4  mu="},
  };
  for (const Case& c : cases) {
    State st;
    st.ipm.*c.field += c.by;
    EXPECT_EQ(st.measures(5), IPM_STATUS_FAILED) << c.message;
    EXPECT_EQ(errors(), 1) << c.message << " / " << firstError();
    EXPECT_TRUE(logged(c.message)) << firstError();
    EXPECT_TRUE(st.scratchClear());
  }
}

// The floor of 1.0 on the scale: below 1 the test is absolute.
TEST(VerifyMeasures, ToleranceHasAFloorOfOne) {
  State st;
  ASSERT_LT(st.ipm.primalInfeas, 1.0);
  st.ipm.primalInfeas += 1e-9;
  EXPECT_EQ(VerifyPrimalInfeas(&st.ipm, 5), 0);
  st.ipm.primalInfeas += 1e-7;
  EXPECT_EQ(VerifyPrimalInfeas(&st.ipm, 5), IPM_STATUS_FAILED);
  // A large measure is judged relatively: 1e-9 of it passes.
  State big;
  big.rhs[0] = 2e6;
  big.ipm.normRhs = 0.0;
  computeMeasurement(&big.ipm);
  ASSERT_GT(big.ipm.primalInfeas, 1e5);
  big.ipm.primalInfeas *= 1.0 + 1e-9;
  EXPECT_EQ(VerifyPrimalInfeas(&big.ipm, 5), 0);
}

TEST(VerifyMeasures, PredictorRhsPerElement) {
  State st;
  st.vecRhs[4] += 1e-6;  // row 1
  st.vecRhs[2] -= 1.0;   // column 2
  EXPECT_EQ(VerifyPredictorRhs(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPredictorRhs: iteration=4  rhsPrimal(1)="));
  EXPECT_TRUE(logged("Error VerifyPredictorRhs: iteration=4  rhsDual(2)="));
  EXPECT_EQ(errors(), 2);
  EXPECT_TRUE(st.scratchClear());
}

// With zero steps the Newton equations leave the whole residual and every
// complementarity product standing.
TEST(VerifyStep, ZeroStepFailsNewtonAndComplementarityRows) {
  State st;
  EXPECT_EQ(VerifyKktPredictor(&st.ipm, 4), 0);
  EXPECT_EQ(VerifyKktPredictor(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyKktCommon: iteration=4  primal residual = "));
  EXPECT_TRUE(logged("Error VerifyKktCommon: iteration=4  dual residual = "));
  EXPECT_TRUE(logged("Error VerifyKktPredictor: iteration=4  upper_complementarity(1)  lhs="));
  EXPECT_TRUE(logged("Error VerifyKktPredictor: iteration=4  lower_complementarity(0)  lhs="));
  EXPECT_TRUE(logged("Error VerifyKktPredictor: iteration=4  ineqn(1)  lhs="));
  EXPECT_FALSE(logged("ineqn(0)"));  // an equation has no product
  EXPECT_TRUE(st.scratchClear());
}

TEST(VerifyStep, AbsentSidesMustStayZero) {
  State st;
  st.su[0] = 0.25;    // column 0 has no upper bound
  st.dzl[2] = -1.0;   // column 2 is free
  st.ds[0] = 0.5;     // row 0 is an equation
  double p, d;
  EXPECT_EQ(VerifyKktCommon(&st.ipm, 5, &p, &d), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyKktCommon: iteration=4  upperSlack(0)=      "
                     "     0.25 should be zero if upper unbounded"));
  EXPECT_TRUE(logged("lowerDualDelta(2)=             -1 should be zero if lower unbounded"));
  EXPECT_TRUE(logged("ineqnSlackDelta(0)=            0.5 should be zero for equation"));
  verifytest::clear();
  EXPECT_EQ(VerifySolution(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifySolution: iteration=4  upper unbounded slack(0)="));
  EXPECT_TRUE(logged("lower unbounded dual delta(2)="));
  EXPECT_TRUE(logged("eqn slack delta(0)="));
}

TEST(VerifyStep, SolutionSigns) {
  State st;
  EXPECT_EQ(VerifySolution(&st.ipm, 5), 0);
  st.zl[1] = -1e-6;
  st.s[1] = -1e-9;  // within -1e-8
  EXPECT_EQ(VerifySolution(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_EQ(errors(), 1);
  EXPECT_TRUE(logged("Error VerifySolution: iteration=4  lower bounded dual(1)="));
}

TEST(VerifyStep, StepLengthMustBeTightWhenBlocked) {
  State st;
  // A full step that nothing blocks.
  EXPECT_EQ(VerifyStepsize(&st.ipm, 0, 5), 0);
  // A short step with nothing blocking.
  st.ipm.alphaPrimal = 0.5;
  EXPECT_EQ(VerifyStepsize(&st.ipm, 0, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyStepsize: iteration=4  primal move not blocked, but alphaPrimal="));
  // Blocked by the lower slack of column 1, which reaches zero: tight.
  verifytest::clear();
  st.dsl[1] = -0.82;
  st.ipm.blockPrimal = 1;
  EXPECT_EQ(VerifyStepsize(&st.ipm, 0, 5), 0) << firstError();
  // Blocked at column 0, whose slack stays well away from zero: not tight.
  st.ipm.blockPrimal = 0;
  EXPECT_EQ(VerifyStepsize(&st.ipm, 0, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyStepsize: iteration=4  index=0  primal step size is not tight"));
  // A step that runs a dual negative.
  verifytest::clear();
  st.ipm.blockPrimal = 1;
  st.dzu[1] = -1.0;
  EXPECT_EQ(VerifyStepsize(&st.ipm, 0, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyStepsize: iteration=4  upperDual(1)="));
  EXPECT_TRUE(logged("should be positive"));
}

// A real run at level 7: every step check runs (its traces show) and none
// fires, on an LP with every kind of bound and row, and on a QP.
TEST(VerifyStart, PointInsideItsBounds) {
  State st;
  std::vector<double> x{0.0, 5.0 + 1e-10, -1e6};  // on the bounds, within tolerance
  EXPECT_EQ(VerifyBoundFeasible(&st.ipm, 4, x.data()), 0);
  EXPECT_EQ(VerifyBoundFeasible(&st.ipm, 5, x.data()), 0) << firstError();
  x = {-1e-6, 0.5, 0.0};
  EXPECT_EQ(VerifyBoundFeasible(&st.ipm, 5, x.data()), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyBoundFeasible: lower(0) =               0 >          -1e-06"));
  EXPECT_TRUE(logged("Error VerifyBoundFeasible: lower(1) =               1 >             0.5"));
  x = {0.0, 6.0, 0.0};
  verifytest::clear();
  EXPECT_EQ(VerifyBoundFeasible(&st.ipm, 5, x.data()), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyBoundFeasible: upper(1) =               5 <               6"));
  EXPECT_EQ(errors(), 1);
}

// The primal start's system for State: diagonal -(number of bounds) on the
// columns, 0 on the equation and 1 on the inequality; right side -(l + u)
// and -rhs.  Solved densely, the checks pass; a spoiled row part fails both
// the row block and the columns that the row touches.
TEST(VerifyStart, PrimalStartSystemIsSolved) {
  State st;
  std::vector<int32_t> kb(6), ki(13), colDiag(3), rowDiag(2);
  std::vector<double> kv(13);
  createAugmentMatrix(2, 3, st.colBegin.data(), st.colLength.data(), st.rowIndex.data(),
                      st.matValue.data(), kb.data(), ki.data(), kv.data(), colDiag.data(),
                      rowDiag.data());
  const double colD[3] = {-1, -2, 0}, rowD[2] = {0, 1};
  for (int32_t j = 0; j < 3; j++) kv[colDiag[j]] = colD[j];
  for (int32_t i = 0; i < 2; i++) kv[rowDiag[i]] = rowD[i];
  std::vector<int32_t> diagIndex{colDiag[0], colDiag[1], colDiag[2]}, rowIndexDiag{rowDiag[0], rowDiag[1]};
  st.ipm.kktBegin = kb.data();
  st.ipm.kktIndex = ki.data();
  st.ipm.kktValue = kv.data();
  st.ipm.varBndDiagIndex = diagIndex.data();
  st.ipm.ineqnDiagIndex = rowIndexDiag.data();
  std::vector<double> z;
  ASSERT_TRUE(hxtest::luSolve(hxtest::denseFromCsc(5, 5, kb.data(), ki.data(), kv.data()),
                              {0, -6, 0, -2, -0.5}, &z));
  st.vecRhs = z;
  st.ipm.vecRhs = st.vecRhs.data();
  EXPECT_EQ(VerifyPrimalFeasible(&st.ipm, 5), 0) << firstError();
  EXPECT_EQ(VerifyInitDerivPrimal(&st.ipm, 5), 0) << firstError();
  EXPECT_TRUE(st.scratchClear());
  st.vecRhs[4] += 1e-3;
  EXPECT_EQ(VerifyPrimalFeasible(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyPrimalFeasible: primal residual (1) ="));
  EXPECT_EQ(VerifyInitDerivPrimal(&st.ipm, 5), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyInitDerivPrimal: deriv residual (0) ="));
  EXPECT_TRUE(logged("Error VerifyInitDerivPrimal: deriv residual (2) ="));
  EXPECT_FALSE(logged("deriv residual (1)"));  // column 1 is not in row 1
  EXPECT_TRUE(st.scratchClear());
}

using VerifyRun = verifytest::LoggedTest;

TEST_F(VerifyRun, PartialAugmentedMatrixAgainstTheModel) {
  State st;
  st.env.pool = pool;
  // Whole, and without column 1 and without row 0: the off-diagonal part
  // must be -A on what is kept, whatever stands on the diagonal.
  for (int leaveOut = 0; leaveOut < 3; leaveOut++) {
    std::vector<int32_t> colMap{0, 1, 2}, rowMap{0, 1};
    if (leaveOut == 1) colMap = {0, -1, 1};
    if (leaveOut == 2) rowMap = {-1, 0};
    const int32_t nc = leaveOut == 1 ? 2 : 3, nr = leaveOut == 2 ? 1 : 2;
    std::vector<int32_t> begin(nc + nr + 1), index(nc + nr + 8), colDiag(3), rowDiag(2);
    std::vector<double> value(nc + nr + 8);
    createAugmentMatrixPartial(&st.ipm, begin.data(), index.data(), value.data(), colDiag.data(),
                               rowDiag.data(), colMap.data(), nc, rowMap.data(), nr);
    value[colDiag[0]] = 123.0;
    auto check = [&](int32_t numCol) {
      return VerifyAugValue(&st.ipm, 1, begin.data(), index.data(), value.data(), colMap.data(),
                            numCol, rowMap.data(), nr);
    };
    verifytest::clear();
    EXPECT_EQ(check(nc), 0) << leaveOut << ": " << firstError();
    EXPECT_EQ(VerifyAugValue(&st.ipm, 0, nullptr, nullptr, nullptr, nullptr, 0, nullptr, 0), 0);
    EXPECT_EQ(check(nc + 1), IPM_STATUS_FAILED);
    EXPECT_TRUE(logged("Error VerifyAugValue: numColMapped=" + std::to_string(nc + 1) +
                       ", but counted as " + std::to_string(nc)));
    value[begin[0] + 1] *= 1.0 + 1e-9;  // an entry of A in column 0
    verifytest::clear();
    EXPECT_EQ(check(nc), IPM_STATUS_FAILED);
    EXPECT_TRUE(logged("Error VerifyAugValue: result(")) << leaveOut;
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(VerifyRun, RealSolvesPassEveryIterationCheck) {
  for (bool quad : {false, true}) {
    ipmtest::Problem p({{1, 1, 0, 1}, {1, -1, 2, 0}, {0, 1, 1, 1}}, "EGL", {4, 1, 6},
                       {1, 2, -1, 0.5}, {0, -1, -1e20, 1}, {1e20, 3, 1e20, 4});
    if (quad)
      p.setQuad({{2, 0.5, 0, 0}, {0.5, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 0}});
    p.option.verifyLevel = 7;
    verifytest::clear();
    ipmtest::RunResult r = ipmtest::runSolve(&env, p);
    EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL) << "quad " << quad << ": " << firstError();
    EXPECT_EQ(errors(), 0) << firstError();
    for (const char* t : {"TRACE: Predictor KKT primal residual", "TRACE: Overall KKT dual residual",
                          "TRACE: Corrector step primal residual", "TRACE: alpha primal",
                          "TRACE: Primal infeasibility", "TRACE: muAffine", "TRACE: mu "})
      EXPECT_TRUE(logged(t)) << t;
  }
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace

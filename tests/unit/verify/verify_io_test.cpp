// The input check on models broken one way at a time, and the output checks
// on a hand-solved LP whose point is then spoiled.
#include <gtest/gtest.h>

#include <vector>

#include "support/ipm_support.h"
#include "unit/verify/verify_support.h"
#include "verify/verify_io.h"

namespace {

using verifytest::errors;
using verifytest::firstError;
using verifytest::lines;
using verifytest::logged;

// A line with both parts, whatever the padding of the value between them.
bool loggedAround(const std::string& head, const std::string& tail) {
  for (const std::string& line : lines())
    if (line.compare(0, head.size(), head) == 0 && line.find(tail) != std::string::npos)
      return true;
  return false;
}

class VerifyInput : public verifytest::LoggedTest {
 protected:
  VerifyInput()
      : p({{1, 2, 0}, {0, 1, 1}, {3, 0, 1}}, "ELR", {1, 2, 3}, {1, 1, 1}, {0, 0, 0},
          {10, 10, 10}, {0, 0, 2}) {
    p.model.reducedCost = reduced.data();
    p.model.rowActivity = activity.data();
  }
  int32_t check(int32_t level = 1) { return ipmVerifyInput(&env, level, &p.model); }
  ipmtest::Problem p;
  std::vector<double> reduced = std::vector<double>(3), activity = std::vector<double>(3);
};

TEST_F(VerifyInput, GoodModelsPass) {
  EXPECT_EQ(check(0), 0);
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(check(), 0) << firstError();
  EXPECT_TRUE(logged("running debug code......"));
  // Nothing at all is a model too.
  ipmModel empty{};
  empty.typeModel = IPM_MODEL_LP;
  EXPECT_EQ(ipmVerifyInput(&env, 1, &empty), 0) << firstError();
  // Entries of exactly 1e20 and 1e-20 are still accepted.
  p.matValue[0] = 1e20;
  p.matValue[1] = -1e-20;
  EXPECT_EQ(check(), 0) << firstError();
}

TEST_F(VerifyInput, SizesAndMissingArrays) {
  p.model.numQuadCoef = -1;
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error input: numQuadCoef =", "-1"));
  p.model.numQuadCoef = 0;
  p.model.numRow = -2;
  verifytest::clear();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error input: numRow =", "-2"));
  p.model.numRow = 3;
  p.model.rowIndex = nullptr;
  p.model.obj = nullptr;
  p.model.rowActivity = nullptr;
  p.model.checkSolverBreak = [](void*) -> int32_t { return 0; };
  verifytest::clear();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: numCoef=6 but model->rowIndex=NULL"));
  EXPECT_TRUE(logged("Error input: numCol=3 but model->obj=NULL"));
  EXPECT_TRUE(logged("Error input: rowActivity == NULL"));
  EXPECT_TRUE(logged("Error input: checkSolverBreak <> NULL but scripterDataStruct == NULL"));
  EXPECT_EQ(errors(), 4);
}

TEST_F(VerifyInput, QuadraticConsistency) {
  p.model.quadColBegin = p.qBegin.data();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: numQuadCoef=0 but quadColBegin<>NULL"));
  p.model.quadColBegin = nullptr;
  p.setQuad({{1, 0, 0.5}, {0, 1, 0}, {0.5, 0, 1}});
  p.model.reducedCost = reduced.data();
  p.model.rowActivity = activity.data();
  verifytest::clear();
  EXPECT_EQ(check(), 0) << firstError();
  p.model.typeModel = IPM_MODEL_LP;
  p.qIndex[0] = 0;  // on the diagonal: not strictly below
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: numQuadCoef=1 but typeModel <> IPM_MODEL_QP"));
  p.model.typeModel = IPM_MODEL_QP;
  verifytest::clear();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: in column 0, quadRowIndex(0)=0 should between (0, 3)"));
}

TEST_F(VerifyInput, MatrixWalk) {
  p.colLength[1] = 4;  // more than numRow
  p.rowIndex[2] = 7;
  p.matValue[0] = 0.0;
  p.matValue[4] = 2e20;
  p.rowIndex[5] = p.rowIndex[4];  // column 2 holds row 1 twice
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: colLength(1)=4 should between (0, 3)"));
  EXPECT_TRUE(loggedAround("Error input: matValue(0, 0) =", "0 should be nonzero"));
  EXPECT_TRUE(logged("is too big"));
  EXPECT_TRUE(logged("Error input: in column 2, rowIndex(4)=rowIndex(5)=1"));
  EXPECT_TRUE(loggedAround("Error input: input number of nonzero coefficients =", "6, actually value = 4"));
  verifytest::clear();
  p.colLength[1] = 2;
  p.rowIndex[5] = 2;
  p.matValue[0] = 1.0;
  p.matValue[4] = 1.0;
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_EQ(errors(), 1);
  EXPECT_TRUE(logged("Error input: in column 1, rowIndex(2)=7 should between (0, 3)"));
}

TEST_F(VerifyInput, RangesAndActivity) {
  p.range[0] = 0.5;   // on an 'E' row
  p.range[2] = -1.0;  // a negative range
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error input: rowSense(0)=E but range(0)=", "0.5"));
  EXPECT_TRUE(loggedAround("Error input: range(2) =", "-1 should be non-negative"));
  p.range = {0, 0, 2};
  p.model.range = nullptr;
  verifytest::clear();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error input: rowSense(2)='R' but range vector doesn't exist"));
  p.model.range = p.range.data();
  activity[1] = 3.0;
  activity[2] = 4.0;
  verifytest::clear();
  EXPECT_EQ(check(), IPM_STATUS_FAILED);
  EXPECT_EQ(errors(), 1);  // the first non-zero ends the check
  EXPECT_TRUE(loggedAround("Error input: rowActivity(1) =", "3 should be zero"));
}

// min x0 + x1 + x2  with  x0 + x1 = 2 (E),  x1 + x2 <= 3 (L),
// 1 <= x0 + x2 <= 4 (R: rhs 4, range 3),  0 <= x <= 10.
// Optimum: x = (2, 0, 0): row L slack 3, row R at its lower end 2 (slack from
// the top 2, from the bottom 1), duals y = (1, 0, 0), reduced costs (0, 0, 1).
class VerifyOutputs : public verifytest::LoggedTest {
 protected:
  VerifyOutputs()
      : p({{1, 1, 0}, {0, 1, 1}, {1, 0, 1}}, "ELR", {2, 3, 4}, {1, 1, 1}, {0, 0, 0},
          {10, 10, 10}, {0, 0, 3}) {
    p.x = {2, 0, 0};
    p.y = {1, 0, 0};
    p.link();
    p.model.reducedCost = reduced.data();
    p.model.rowActivity = activity.data();
    p.model.objValue = 2.0;
    sol.solPrimal = p.x.data();
    sol.solDual = p.y.data();
    sol.lowerSlack = sl.data();
    sol.upperSlack = su.data();
    sol.lowerDual = zl.data();
    sol.upperDual = zu.data();
    sol.ineqnSlack = slack.data();
    p.option.primalTol = p.option.dualTol = 1e-8;
    p.option.gapTol = 1e-8;
  }
  int32_t all(int32_t level = 3) {
    int32_t worst = 0;
    for (auto f : {VerifyModelPrimal, VerifyModelBound, VerifyModelDual, VerifyOutput})
      if (int32_t st = f(&env, level, &p.model, &p.option, &sol)) worst = st;
    return worst;
  }
  ipmtest::Problem p;
  std::vector<double> reduced{0, 0, 1}, activity{2, 0, 2};
  std::vector<double> sl{2, 0, 0}, su{8, 10, 10}, zl{0, 0, 1}, zu{0, 0, 0}, slack{0, 3, 2};
  ipmSolution sol{};
};

TEST_F(VerifyOutputs, SolvedPointPasses) {
  EXPECT_EQ(all(2), 0);
  EXPECT_TRUE(lines().empty());
  EXPECT_EQ(all(), 0) << firstError();
  EXPECT_EQ(errors(), 0);
  // The R row's slack may be measured from its other end.
  slack[2] = 1;
  EXPECT_EQ(all(), 0) << firstError();
  // An upper dual of 1e-9 is within a dual tolerance of 1e-6.
  p.option.dualTol = 1e-6;
  zu[1] = 1e-9;
  reduced[1] = 1e-9;
  EXPECT_EQ(VerifyOutput(&env, 3, &p.model, &p.option, &sol), 0) << firstError();
  EXPECT_FALSE(logged("===== output solution"));
  EXPECT_EQ(VerifyOutput(&env, 9, &p.model, &p.option, &sol), 0);
  EXPECT_TRUE(logged("===== output solution: numRow = 3 ====="));
  EXPECT_TRUE(logged("   col(2)"));
}

TEST_F(VerifyOutputs, SpoiledPointIsReported) {
  p.x[1] = 0.5;  // breaks row 0, the L row's residual and column 1's bounds
  EXPECT_EQ(VerifyModelPrimal(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error VerifyModelPrimal: primal residual (0) =", "0.25"));
  EXPECT_TRUE(logged("Error VerifyModelPrimal: primal residual (1) ="));
  EXPECT_EQ(VerifyModelBound(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyModelBound: lower residual (1) ="));
  EXPECT_TRUE(logged("Error VerifyModelBound: upper residual (1) ="));
  p.x[1] = 0.0;
  p.y[0] = 1.5;
  verifytest::clear();
  EXPECT_EQ(VerifyModelDual(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error VerifyModelDual: dual residual (0) =", "0.5"));
  p.y[0] = 1.0;
  zl[0] = -1e-3;
  su[0] = -1e-3;
  zu[2] = 0.5;
  slack[1] = -1.0;
  activity[0] = 2.5;
  verifytest::clear();
  EXPECT_EQ(VerifyOutput(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error VerifyOutput: lower dual(0) =", "-0.001 should be non-negative"));
  EXPECT_TRUE(loggedAround("Error VerifyOutput: upper slack(0) =", "-0.001 should be non-negative"));
  EXPECT_TRUE(loggedAround("Error VerifyOutput: upper dual(2) =", "0.5 should be non-positive"));
  EXPECT_TRUE(logged("Error VerifyOutput: upper bound residual(0) ="));
  EXPECT_TRUE(logged("Error VerifyOutput: dual residual(2) ="));
  EXPECT_TRUE(logged("Error VerifyOutput: violate upper bound complementarity upperSlack(2)="));
  EXPECT_TRUE(loggedAround("Error VerifyOutput: row slack(1) =", "-1 should be non-negative"));
  EXPECT_TRUE(logged("Error VerifyOutput: L row residual(1) ="));
  EXPECT_TRUE(loggedAround("Error VerifyOutput: E row residual(0) =", "0.5 should be zero"));
  EXPECT_TRUE(loggedAround("                    rowActivity=", "2.5  rhs="));
}

TEST_F(VerifyOutputs, RowSignsAndSenses) {
  p.y[1] = 0.25;  // an L row's dual must not be positive
  reduced = {0, -0.25, 0.75};
  EXPECT_EQ(VerifyOutput(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(loggedAround("Error VerifyOutput: dual(1) =", "0.25 should be non-positive"));
  EXPECT_TRUE(logged("Error VerifyOutput: violate row complementarity ineqnSlack(1)="));
  p.y[1] = 0.0;
  p.y[2] = 0.5;  // the R row is at neither end once its slack is 1.5
  slack[2] = 1.5;
  activity[2] = 2.5;
  verifytest::clear();
  EXPECT_EQ(VerifyOutput(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyOutput: violate range complementarity solDual(2)="));
  p.sense[2] = 'X';
  verifytest::clear();
  EXPECT_EQ(VerifyOutput(&env, 3, &p.model, &p.option, &sol), IPM_STATUS_FAILED);
  EXPECT_TRUE(logged("Error VerifyOutput: unknown row sense(2)=88"));
}

// The dumps' shape: headers with the counts, one line per row and column,
// entries under their column, lengths from the closing begin when none.
TEST(VerifyDumps, ModelEquationAndSolution) {
  HalvexEnv env{};
  env.textLog = hxtest::captureText;
  verifytest::clear();
  const char sense[] = "EG";
  const double rhs[] = {1, 2}, obj[] = {3, 4}, lo[] = {0, -1}, up[] = {5, 6};
  const int32_t begin[] = {0, 1, 3}, index[] = {1, 0, 1};
  const double value[] = {7, 8, 9};
  DumpModel(&env, 2, sense, rhs, 2, obj, lo, up, 3, begin, nullptr, index, value);
  const std::vector<std::string> want = {
      "   ",
      "===== input model: numRow = 2 =====",
      "   sense(0)=E   rhs(0)=              1",
      "   sense(1)=G   rhs(1)=              2",
      "===== input model: numCol = 2 =====",
      "   obj(0)=              3   lower(0)=              0   upper(0)=              5",
      "   obj(1)=              4   lower(1)=             -1   upper(1)=              6",
      "===== input model: numCoef = 3 =====",
      "   colBegin(0)=0   colLength(0)=1",
      "      rowIndex(0)=1   matValue(0)=              7",
      "   colBegin(1)=1   colLength(1)=2",
      "      rowIndex(1)=0   matValue(1)=              8",
      "      rowIndex(2)=1   matValue(2)=              9"};
  EXPECT_EQ(lines(), want);
  verifytest::clear();
  const int32_t length[] = {1, 1};
  DumpEquation(&env, 2, rhs, 2, begin, length, index, value);
  ASSERT_EQ(lines().size(), 9u);
  EXPECT_EQ(lines()[1], "===== equation rhs: numDim = 2 =====");
  EXPECT_EQ(lines()[4], "===== equation matrix : numCoef = 2 =====");
  EXPECT_EQ(lines()[8], "      rowIndex(1)=0   matValue(1)=              8");
  verifytest::clear();
  DumpSolution(&env, 1, obj, lo, up, rhs, rhs, 1, obj, lo);
  ASSERT_EQ(lines().size(), 6u);
  EXPECT_EQ(lines()[3],
            "                               lowerDual (0)=              1   upperDual (0)=              1");
  EXPECT_EQ(lines()[5], "   dual(0)=              3   ineqnSlack(0)=              0");
  verifytest::clear();
  const double diag[] = {2, 3};
  DumpModelQP(&env, 2, diag, 1, begin, length, index, value);
  ASSERT_EQ(lines().size(), 9u);
  EXPECT_EQ(lines()[3], "   quadDiag(1)=              3");
  EXPECT_EQ(lines()[5], "   quadColBegin(0)=0   quadColLength(0)=1");
}

}  // namespace

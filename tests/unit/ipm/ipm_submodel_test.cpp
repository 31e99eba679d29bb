// The big-data sub-model: what is marked big, what is copied, and the
// starting point's partial routes that read it inside a whole solve.
#include <string>
#include <vector>

#include "frame/qv.h"
#include "ipm/submodel.h"
#include "presolve/presolver.h"
#include "support/ipm_support.h"
#include "support/oom.h"

namespace {

using ipmtest::kInf;
using ipmtest::Problem;
using ipmtest::RunResult;

using hxtest::textLines;

class SubModelTest : public HostTest {
 protected:
  SubModelTest() {
    textLines().clear();
    env.textLog = hxtest::captureText;
  }
  ~SubModelTest() override { FreeSubModel(&env, sub); }

  // NewSubModel and ipmMarkBigdata, as ipmSolve runs them.
  void mark(Problem& p) {
    p.link();
    ASSERT_EQ(NewSubModel(&env, &p.model, &sub), 0);
    ipmMarkBigdata(&env, &p.model, sub, &p.option);
  }
  std::vector<int32_t> list(const int32_t* a, int32_t n) {
    return a ? std::vector<int32_t>(a, a + n) : std::vector<int32_t>();
  }

  subModel* sub = nullptr;
};

TEST_F(SubModelTest, BigRightSidesOfInequalitiesAreLeftOutButEquationsStay) {
  // Rows: just below the threshold's floor, at it, an equation far beyond
  // it, a large negative G, a normal one.
  Problem p({{1, 1}, {1, -1}, {1, 0}, {0, 1}, {1, 2}}, "LLEGL", {9999, 10000, 1e9, -1e7, 3},
            {1, 1}, {0, 0}, {1, 1});
  mark(p);
  EXPECT_EQ(sub->numRhsBigAll, 2);
  EXPECT_EQ(sub->numRhsBigIneqn, 0);
  EXPECT_EQ(list(sub->idxRowSub, 2), (std::vector<int32_t>{1, 3}));
  EXPECT_EQ(list(sub->rhsMapSub, 5), (std::vector<int32_t>{0, -1, 1, -1, 2}));

  presolver pre{};
  ASSERT_EQ(CreateSubModel(&env, &p.model, &pre, sub), 0);
  // The row-wise copy was made into the presolver, whose next release takes it.
  ASSERT_NE(pre.rowBegin, nullptr);
  EXPECT_EQ(pre.rowLength[4], 2);
  FreePresolver(&env, &pre);
  EXPECT_EQ(pre.rowBegin, nullptr);
}

TEST_F(SubModelTest, BigObjectivesOfBoundedColumnsAreLeftOutButFreeOnesStay) {
  // Columns: big and bounded, big and free, moderate, big negative with an
  // upper bound only.
  Problem p({{1, 1, 1, 0}, {2, 0, 1, 3}}, "LG", {1, 1}, {1e5, -1e8, 5, -2e4},
            {0, -kInf, 0, -kInf}, {kInf, kInf, 1, 4});
  mark(p);
  EXPECT_EQ(sub->numObjBigAll, 2);
  EXPECT_EQ(sub->numObjBigBounded, 0);
  EXPECT_EQ(list(sub->idxColSub, 2), (std::vector<int32_t>{0, 3}));
  EXPECT_EQ(list(sub->objMapSub, 4), (std::vector<int32_t>{-1, 0, 1, -1}));
  ASSERT_EQ(CreateSubModel(&env, &p.model, nullptr, sub), 0);
  // No big row: no row-wise copy was needed.
  EXPECT_EQ(sub->rowBeginSub, nullptr);
}

TEST_F(SubModelTest, OnlyFarNegativeLowerAndFarPositiveUpperBoundsAreBig) {
  // Bounds: +-1e5, +1e9 as a lower bound (a tight bound, not a distant one),
  // -1e9 as an upper bound (likewise), exactly the threshold on either side,
  // none, just inside the threshold.
  Problem p({{1, 1, 1, 1, 1, 1}}, "L", {1}, {0, 0, 0, 0, 0, 0},
            {-1e5, 1e9, -kInf, -1000, -kInf, -999}, {1e5, kInf, -1e9, 1000, kInf, 999});
  mark(p);
  EXPECT_EQ(sub->numBoundBig, 2);
  EXPECT_EQ(list(sub->idxBoundSub, 2), (std::vector<int32_t>{0, 3}));
  ASSERT_EQ(CreateSubModel(&env, &p.model, nullptr, sub), 0);
  EXPECT_EQ(sub->statusBoundSub[0], SUB_BIG_LOWER | SUB_BIG_UPPER);
  EXPECT_EQ(sub->statusBoundSub[1], SUB_BIG_LOWER | SUB_BIG_UPPER);
}

// ---- inside a whole solve ----------------------------------------------------------

// min -x1 + 0.5 x2 + 1e7 x3
//   x1 + x2 + x3 = 5,  x1 - x2 <= 1e6,  x1 + 2 x2 >= -3e6,
//   0 <= x1 <= 10, -1e5 <= x2 <= 1e5, x3 >= 0.
// x3 stays 0 for its cost, x2 = 5 - x1, and the objective 2.5 - 1.5 x1 wants
// x1 at 10: optimum (10, -5, 0), value -12.5.  Both inequalities are slack.
Problem bigLP() {
  return Problem({{1, 1, 1}, {1, -1, 0}, {1, 2, 0}}, "ELG", {5, 1e6, -3e6}, {-1, 0.5, 1e7},
                 {0, -1e5, 0}, {10, 1e5, kInf});
}

class SubModelSolve : public SubModelTest {};

TEST_F(SubModelSolve, BigDataTakesThePartialRoutesAndReachesTheOptimum) {
  for (int32_t verify : {0, 1}) {
    SCOPED_TRACE(verify);
    Problem p = bigLP();
    p.option.verifyLevel = verify;
    p.option.printFreq = 0;
    RunResult r = ipmtest::runSolve(&env, p);
    ASSERT_EQ(r.addStatus, 0);
    EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
    EXPECT_NEAR(p.x[0], 10.0, 1e-5);
    EXPECT_NEAR(p.x[1], -5.0, 1e-5);
    EXPECT_NEAR(p.x[2], 0.0, 1e-5);
    // The activities of the rows left out came from their copies.
    EXPECT_NEAR(r.ineqnSlack[1], 1e6 - 15.0, 1e-2);
    EXPECT_NEAR(r.ineqnSlack[2], 3e6, 1e-2);
    EXPECT_FALSE(hxtest::logged("Error")) << textLines()[0].text;
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(SubModelSolve, OutOfMemoryAnywhereOnThePartialRoutesIsReportedAndLeaksNothing) {
  hxtest::OomSweep sweep(host);
  sweep.absorbed = IPM_STATUS_OPTIMAL;  // a refused reset goes on from the point in force
  const auto result = sweep.run([&](hxtest::OomProbe&) {
    Problem p = bigLP();
    p.option.printFreq = 0;
    RunResult r = ipmtest::runSolve(&env, p);
    return r.addStatus ? r.addStatus : r.status;
  });
  EXPECT_EQ(result.finalStatus, IPM_STATUS_OPTIMAL);
  EXPECT_GT(result.refusedRuns, 50);
}

}  // namespace

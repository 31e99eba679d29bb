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

using ipmtest::Dense;
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

// Three rows, three bounded columns, all data moderate: entries near 1.
Problem moderate() {
  return Problem({{1, 2, 0}, {0, 1, 1}, {1, 0, -1}}, "LGE", {4, 1, 0}, {1, -1, 2}, {0, 0, -5},
                 {10, kInf, 5});
}

TEST_F(SubModelTest, ModerateDataMarksNothingAndKeepsOnlyTheRecord) {
  Problem p = moderate();
  mark(p);
  EXPECT_EQ(sub->numRow, 3);
  EXPECT_EQ(sub->numCol, 3);
  EXPECT_EQ(sub->numObjBigBounded, 0);
  EXPECT_EQ(sub->numObjBigAll, 0);
  EXPECT_EQ(sub->numRhsBigIneqn, 0);
  EXPECT_EQ(sub->numRhsBigAll, 0);
  EXPECT_EQ(sub->numBoundBig, 0);
  presolver pre{};
  ASSERT_EQ(CreateSubModel(&env, &p.model, &pre, sub), 0);
  EXPECT_EQ(pre.rowBegin, nullptr);
  EXPECT_EQ(liveBlocks(), 1);  // the record alone: no list, map or copy
  EXPECT_TRUE(textLines().empty());
}

TEST_F(SubModelTest, ThresholdsFollowTheNinetyFifthPercentileAboveTheirFloors) {
  Problem p = moderate();
  mark(p);
  EXPECT_EQ(sub->thresholdBig, 10000.0);
  EXPECT_EQ(sub->thresholdBigBound, 1000.0);
  FreeSubModel(&env, sub);
  sub = nullptr;

  // Most entries at 1e4: p = 1e4, so 1e6 and 1e5.
  Problem big({{1e4, 2e3, 0}, {0, 1e4, 1e4}, {9e3, 0, 1e4}}, "LLL", {1, 1, 1}, {0, 0, 0},
              {0, 0, 0}, {1, 1, 1});
  mark(big);
  EXPECT_EQ(sub->thresholdBig, 1e6);
  EXPECT_EQ(sub->thresholdBigBound, 1e5);
}

TEST_F(SubModelTest, BigRightSidesOfInequalitiesAreLeftOutButEquationsStay) {
  // Rows: just below the threshold, at it, an equation far beyond it, a
  // large negative G, a normal one.
  Problem p({{1, 1}, {1, -1}, {1, 0}, {0, 1}, {1, 2}}, "LLEGL", {9999, 10000, 1e9, -1e7, 3},
            {1, 1}, {0, 0}, {1, 1});
  mark(p);
  EXPECT_EQ(sub->numRhsBigAll, 2);
  EXPECT_EQ(sub->numRhsBigIneqn, 0);
  EXPECT_EQ(list(sub->idxRowSub, 2), (std::vector<int32_t>{1, 3}));
  EXPECT_EQ(list(sub->rhsMapSub, 5), (std::vector<int32_t>{0, -1, 1, -1, 2}));

  presolver pre{};
  ASSERT_EQ(CreateSubModel(&env, &p.model, &pre, sub), 0);
  // The copies, packed, with the caller's column numbers.
  EXPECT_EQ(sub->numCoefRowSub, 3);
  EXPECT_EQ(list(sub->rowBeginSub, 2), (std::vector<int32_t>{0, 2}));
  EXPECT_EQ(list(sub->rowLengthSub, 2), (std::vector<int32_t>{2, 1}));
  EXPECT_EQ(list(sub->colIndexSub, 3), (std::vector<int32_t>{0, 1, 1}));
  EXPECT_EQ(std::vector<double>(sub->rowMatValueSub, sub->rowMatValueSub + 3),
            (std::vector<double>{1, -1, 1}));
  EXPECT_EQ(sub->rhsSub[0], 10000.0);
  EXPECT_EQ(sub->rhsSub[1], -1e7);
  EXPECT_EQ(sub->rowSenseSub[0], 'L');
  EXPECT_EQ(sub->rowSenseSub[1], 'G');
  // Nothing is skipped outright, so the system keeps the model's numbering.
  EXPECT_EQ(sub->rowMapSub, nullptr);
  EXPECT_EQ(sub->colMapSub, nullptr);
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
  EXPECT_EQ(sub->numCoefColSub, 3);
  EXPECT_EQ(list(sub->colBeginSub, 2), (std::vector<int32_t>{0, 2}));
  EXPECT_EQ(list(sub->colLengthSub, 2), (std::vector<int32_t>{2, 1}));
  EXPECT_EQ(list(sub->rowIndexSub, 3), (std::vector<int32_t>{0, 1, 1}));
  EXPECT_EQ(sub->matValueSub[2], 3.0);
  EXPECT_EQ(sub->objSub[0], 1e5);
  EXPECT_EQ(sub->objSub[1], -2e4);
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
  EXPECT_EQ(sub->lowerSub[0], -1e5);
  EXPECT_EQ(sub->upperSub[1], 1000.0);
  Problem one({{1, 1}}, "L", {1}, {0, 0}, {-3000, 0}, {2, 5000});
  FreeSubModel(&env, sub);
  sub = nullptr;
  mark(one);
  ASSERT_EQ(CreateSubModel(&env, &one.model, nullptr, sub), 0);
  EXPECT_EQ(list(sub->statusBoundSub, 2),
            (std::vector<int32_t>{SUB_BIG_LOWER, SUB_BIG_UPPER}));
}

TEST_F(SubModelTest, APresolverStillHoldingARowCopyIsAnError) {
  Problem p({{1, 1}}, "L", {1e6}, {0, 0}, {0, 0}, {1, 1});
  mark(p);
  presolver pre{};
  pre.rowBegin = poolNew<int32_t>(pool, 2);
  EXPECT_EQ(CreateSubModel(&env, &p.model, &pre, sub), IPM_STATUS_FAILED);
  ASSERT_EQ(textLines().size(), 1u);
  EXPECT_EQ(textLines()[0].text, "Error CreateSubModel: presolver memory messed up");
  FreePresolver(&env, &pre);
}

TEST_F(SubModelTest, EveryRefusedAllocationIsOutOfMemoryAndLeaksNothing) {
  // Big rows, big objectives and big bounds, so that every copy is made.
  Problem p({{1, 1, 0}, {1, 0, 1}, {0, 1, 1}}, "LGE", {1e6, -1e6, 1}, {1e7, 1, 1},
            {-1e5, 0, 0}, {1e5, 1, 1});
  for (bool withPresolver : {false, true}) {
    SCOPED_TRACE(withPresolver);
    const auto result = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
      presolver pre{};
      int32_t status = NewSubModel(&env, &p.model, &sub);
      if (status == 0) {
        ipmMarkBigdata(&env, &p.model, sub, &p.option);
        status = CreateSubModel(&env, &p.model, withPresolver ? &pre : nullptr, sub);
      } else {
        EXPECT_EQ(sub, nullptr);
      }
      probe.disarm();
      if (status == 0) {
        EXPECT_EQ(sub->numRhsBigAll, 2);
        EXPECT_EQ(sub->numObjBigAll, 1);
        EXPECT_EQ(sub->numBoundBig, 1);
      }
      FreeSubModel(&env, sub);
      sub = nullptr;
      FreePresolver(&env, &pre);
      return status;
    });
    EXPECT_EQ(result.finalStatus, 0);
    EXPECT_GT(result.refusedRuns, 5);
  }
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
  {
    // What ipmSolve's sub-model sees, on the model with its slacks.
    Problem p = bigLP();
    p.link();
    ASSERT_EQ(addSlack(&env, &p.model, &p.storage), 0);
    mark(p);
    EXPECT_EQ(sub->numRhsBigAll, 2);
    EXPECT_EQ(sub->numObjBigAll, 1);
    EXPECT_EQ(sub->numBoundBig, 1);
    FreeSubModel(&env, sub);
    sub = nullptr;
    poolRelease(pool, p.storage.rangeRow);
    poolRelease(pool, p.storage.lcontRow);
  }
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
    EXPECT_NEAR(p.objective(), -12.5, 1e-5);
    // The activities of the rows left out came from their copies.
    EXPECT_NEAR(r.ineqnSlack[1], 1e6 - 15.0, 1e-2);
    EXPECT_NEAR(r.ineqnSlack[2], 3e6, 1e-2);
    EXPECT_FALSE(hxtest::logged("Error")) << textLines()[0].text;
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(SubModelSolve, BigRightSidesAloneOrBigObjectivesAloneAlsoSolve) {
  // Only a big row (primal partial route, full dual).
  Problem rows({{1, 1}, {1, -1}}, "LL", {4, 1e7}, {-1, -2}, {0, 0}, {kInf, 3});
  RunResult r = ipmtest::runSolve(&env, rows);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(rows.objective(), -7.0, 1e-5);  // x = (1, 3)
  // Only a big objective (dual partial route, full primal).
  Problem cols({{1, 1, 1}}, "G", {2}, {1, 3, 5e6}, {0, 0, 0}, {kInf, kInf, 1});
  r = ipmtest::runSolve(&env, cols);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_NEAR(cols.objective(), 2.0, 1e-5);  // x = (2, 0, 0)
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

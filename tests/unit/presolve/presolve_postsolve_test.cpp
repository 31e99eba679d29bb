// Presolve, solve what is left, postsolve: the answer must satisfy the KKT
// conditions of the caller's model, duals of removed rows included.
#include "support/presolve_support.h"

namespace {

using pretest::kFree;
using pretest::kktBreach;
using pretest::lp;
using pretest::Problem;
using pretest::qp;
using pretest::Round;

class PresolvePostsolve : public HostTest {
 protected:
  // Runs the whole round and checks the caller's KKT conditions.
  ipmModel* solveAround(Round& round, Problem& p, int32_t expectedControl) {
    ipmModel* m = p.build();
    EXPECT_EQ(round.presolve(m), 0);
    EXPECT_EQ(round.pre->preControl, expectedControl);
    EXPECT_TRUE(round.solveReduced()) << "no KKT point of the reduced model";
    EXPECT_EQ(round.postsolve(), 0);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(round.pre->inModel, nullptr);
    EXPECT_EQ(kktBreach(*m, *round.outer), "");
    return m;
  }
};

TEST_F(PresolvePostsolve, EverythingRemovedComesFromTheCaseTables) {
  // r0: x0 + x1 <= 10, made free by the bounds; r1: 2 x1 = 4 fixes x1.
  Problem p = lp({{1, 1, 0, 0, 0}, {0, 2, 0, 0, 0}}, "LE", {10, 4}, {1, 3, 1, -2, 0},
                 {2, 0, 1, 0, -kFree}, {2, 5, 4, 6, kFree});
  Round round(&env);
  const ipmModel* m = solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->preRoute, PREROUTE_KNOWN);
  const double expected[] = {2, 2, 1, 6, 0};
  for (int j = 0; j < 5; j++) EXPECT_DOUBLE_EQ(m->solPrimal[j], expected[j]) << "column " << j;
  // The cost of x1 is carried by the row that fixed it.
  EXPECT_DOUBLE_EQ(m->solDual[1], 1.5);
  EXPECT_DOUBLE_EQ(m->solDual[0], 0.0);
  EXPECT_DOUBLE_EQ(round.outer->lowerDual[1], 0.0);
  // A negative cost on an empty column ends as a proper upper dual.
  EXPECT_DOUBLE_EQ(round.outer->upperDual[3], 2.0);
  EXPECT_DOUBLE_EQ(round.outer->lowerDual[2], 1.0);
  EXPECT_DOUBLE_EQ(m->objValue, 2 + 6 + 1 - 12);
}

TEST_F(PresolvePostsolve, ReducedCoreWithSingletonRowsAndFixedColumns) {
  // r0, r1: core; r2: x1 <= 3; r3: x2 = 1; r4: -4 <= 2 x3 <= 2.
  Problem p = lp({{1, 1, 1, 0}, {1, -1, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 2}}, "LGLER",
                 {6, -2, 3, 1, 2}, {-1, -2, 1, -1}, {0, 0, 0, -5}, {10, 10, 10, 5},
                 {0, 0, 0, 0, 6});
  Round round(&env);
  const ipmModel* m = solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->rowMap[2], ROWMAP_UPPER);
  EXPECT_EQ(round.pre->rowMap[3], ROWMAP_FIXED);
  EXPECT_EQ(round.pre->rowMap[4], ROWMAP_RANGE);
  EXPECT_EQ(round.pre->colMap[2], COLMAP_FIXED);
  EXPECT_EQ(round.pre->colMap[3], COLMAP_EMPTY);
  const double expected[] = {2, 3, 1, 1};
  for (int j = 0; j < 4; j++) EXPECT_NEAR(m->solPrimal[j], expected[j], 1e-9) << "column " << j;
  EXPECT_NEAR(m->objValue, -2 - 6 + 1 - 1, 1e-9);
  // The bound x1 <= 3 binds: its dual lives on the row that gave it.
  EXPECT_LT(m->solDual[2], -1e-6);
  EXPECT_LT(m->solDual[4], -1e-6);
  // Removed inequality rows get their slack from the activity.
  EXPECT_NEAR(round.outer->ineqnSlack[4], 2 - 2 * 1.0, 1e-12);
}

TEST_F(PresolvePostsolve, BoundOnlyPresolveGivesTheBoundsBack) {
  Problem p = lp({{1, 1}, {-1, 1}}, "LL", {10, 5}, {-1, 0}, {0, 0}, {20, 20});
  Round round(&env);
  ipmModel* m = p.build();
  ASSERT_EQ(round.presolve(m), 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_BOUND);
  EXPECT_EQ(m->upper[0], 10.0);
  ASSERT_TRUE(round.solveReduced());
  ASSERT_EQ(round.postsolve(), 0);
  EXPECT_EQ(m->upper[0], 20.0);
  EXPECT_EQ(m->upper[1], 20.0);
  EXPECT_EQ(m->relaxColBound, nullptr);
  EXPECT_EQ(kktBreach(*m, *round.outer), "");
  EXPECT_DOUBLE_EQ(m->solPrimal[0], 10.0);
  EXPECT_DOUBLE_EQ(m->solDual[0], -1.0);
  EXPECT_DOUBLE_EQ(round.outer->upperDual[0], 0.0);
}

TEST_F(PresolvePostsolve, QuadraticColumnsFixedEmptyAndLive) {
  // r0: x0 + x1 <= 4, r1: x5 + x6 = 2.
  Problem p = qp(lp({{1, 1, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 1, 1}}, "LE", {4, 2},
                    {-4, 0, -2, 3, 0, 0, -2}, {0, 2, 0, 0, -1, 0, 0}, {10, 2, 5, 4, 2, 10, 10}),
                 {1, 1, 2, 1, -2, 1, 1}, {{0, 1, 0.5}, {5, 6, 0.5}});
  Round round(&env);
  ipmModel* m = p.build();
  ASSERT_EQ(round.presolve(m), 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
  EXPECT_EQ(round.current->numCol, 2);
  EXPECT_EQ(round.current->numQuadCoef, 1);
  ASSERT_TRUE(round.solveReduced());
  ASSERT_EQ(round.postsolve(), 0);
  EXPECT_EQ(kktBreach(*m, *round.outer), "");
  // x0 has cost -4 + 0.5 * 2 once x1 is fixed, and its bound 2 from r0.
  EXPECT_DOUBLE_EQ(m->solPrimal[0], 2.0);
  EXPECT_DOUBLE_EQ(m->solPrimal[2], 1.0);  // convex, minimum inside
  EXPECT_DOUBLE_EQ(round.outer->lowerDual[2] + round.outer->upperDual[2], 0.0);
  EXPECT_DOUBLE_EQ(m->solPrimal[3], 0.0);  // convex, minimum below the box
  EXPECT_DOUBLE_EQ(m->solPrimal[4], 2.0);  // concave: the better end
  EXPECT_NEAR(m->solPrimal[5], 0.0, 1e-9);
  EXPECT_NEAR(m->solPrimal[6], 2.0, 1e-9);
}

TEST_F(PresolvePostsolve, EmptyColumnValuesWithoutCost) {
  Problem p = lp({{1, 0, 0, 0}}, "L", {1}, {-1, 0, 0, 0}, {0, -kFree, -kFree, 3},
                 {5, kFree, 7, 9});
  Round round(&env);
  const ipmModel* m = solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(m->solPrimal[1], 0.0);
  EXPECT_EQ(m->solPrimal[2], 7.0);
  EXPECT_EQ(m->solPrimal[3], 3.0);
  EXPECT_EQ(round.outer->upperSlack[3], 6.0);

  // A concave column takes its lower end on a tie.
  Problem q = qp(lp({{1, 0}}, "L", {1}, {-1, 0}, {0, -2}, {5, 2}), {0, -1});
  Round tie(&env);
  EXPECT_EQ(solveAround(tie, q, PRECONTROL_REDUCED)->solPrimal[1], -2.0);
}

TEST_F(PresolvePostsolve, SmallTighteningKeepsItsDual) {
  // x <= 5 - 5e-8 from a singleton row changes the bound 5 by less than tol:
  // the bound counts as the caller's own and its dual stays on it.
  Problem p = lp({{1, 1}, {1, 0}}, "LL", {100, 5 - 5e-8}, {-1, 1}, {0, 0}, {5, 5});
  Round round(&env);
  solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->rowMap[1], ROWMAP_UPPER);
  EXPECT_NEAR(round.outer->upperDual[0], 1.0, 1e-12);
  EXPECT_EQ(round.current->solDual[1], 0.0);
}

TEST_F(PresolvePostsolve, InfeasibleModelsStopThePresolve) {
  Problem infeasible = lp({{1, 1}, {2, 0}}, "LE", {5, 4}, {1, 1}, {0, 0}, {1, 1});
  Problem unbounded = lp({{1, 0}}, "L", {5}, {1, -1}, {0, 0}, {1, kFree});  // empty column
  {
    Round round(&env);
    EXPECT_EQ(round.presolve(infeasible.build()), IPM_STATUS_PRIMAL_INFEASIBLE);
    Round other(&env);
    EXPECT_EQ(other.presolve(unbounded.build()), IPM_STATUS_DUAL_INFEASIBLE);
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(PresolvePostsolve, SolutionRecordsMustMatchTheControl) {
  Problem p = lp({{1, 1}, {1, 0}}, "LL", {4, 3}, {-1, -1}, {0, 0}, {10, 10});
  Round round(&env);
  ipmModel* m = p.build();
  ASSERT_EQ(round.presolve(m), 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
  ipmModel* reduced = round.current;
  EXPECT_EQ(ipmPostsolve(&env, &round.current, &round.option, round.pre, round.outer,
                         round.outer),
            IPM_STATUS_FAILED);
  EXPECT_EQ(round.current, reduced);
  // A failed solve is mapped back but neither evaluated nor repaired.
  round.current->status = IPM_STATUS_FAILED;
  m->reducedCost[0] = 1234.0;
  ASSERT_EQ(round.postsolve(), 0);
  EXPECT_EQ(round.current, m);
  EXPECT_EQ(m->status, IPM_STATUS_FAILED);
  EXPECT_EQ(m->reducedCost[0], 1234.0);
  for (int32_t control : {PRECONTROL_NONE, PRECONTROL_BOUND}) {
    presolver fake{};
    fake.preControl = control;
    ipmModel* ref = m;
    EXPECT_EQ(ipmPostsolve(&env, &ref, &round.option, &fake, round.outer, nullptr),
              IPM_STATUS_FAILED);
  }
}

TEST_F(PresolvePostsolve, PresolveRefusesUsedSolutionRecords) {
  Problem p = lp({{1, 1}}, "L", {4}, {1, 1}, {0, 0}, {10, 10});
  Round round(&env);
  round.prepare();
  ipmModel* m = p.build();
  ASSERT_EQ(NewSolution(&env, &round.outer, 1, 2, m->solPrimal, nullptr), 0);
  round.inner = round.outer;
  EXPECT_EQ(ipmPresolve(&env, &m, &round.option, round.pre, round.storage, &round.outer,
                        &round.inner),
            IPM_STATUS_FAILED);
}

}  // namespace

// Presolve, solve what is left, postsolve: the answer must satisfy the KKT
// conditions of the caller's model, duals of removed rows included.
#include "unit/presolve_support.h"

namespace {

using pretest::kFree;
using pretest::kktBreach;
using pretest::Problem;
using pretest::Round;

class PresolvePostsolve : public HostTest {};

// Runs the whole round and checks the caller's KKT conditions.
void solveAround(Round& round, Problem& p, int32_t expectedControl) {
  ipmModel* m = p.build();
  ASSERT_EQ(round.presolve(m), 0);
  ASSERT_EQ(round.pre->preControl, expectedControl);
  ASSERT_TRUE(round.solveReduced()) << "no KKT point of the reduced model";
  ASSERT_EQ(round.postsolve(), 0);
  ASSERT_EQ(round.current, m);
  EXPECT_EQ(round.pre->inModel, nullptr);
  EXPECT_EQ(kktBreach(*m, *round.outer), "");
}

TEST_F(PresolvePostsolve, EverythingRemovedComesFromTheCaseTables) {
  Problem p;
  //         x0 x1 x2 x3 x4
  p.a = {{1, 1, 0, 0, 0},   // r0: x0 + x1 <= 10, made free by the bounds
         {0, 2, 0, 0, 0}};  // r1: 2 x1 = 4 fixes x1
  p.sense = "LE";
  p.rhs = {10, 4};
  p.obj = {1, 3, 1, -2, 0};
  p.lower = {2, 0, 1, 0, -kFree};
  p.upper = {2, 5, 4, 6, kFree};
  Round round(&env);
  solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->preRoute, PREROUTE_KNOWN);
  const ipmModel* m = round.current;
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
  Problem p;
  //         x0  x1  x2  x3
  p.a = {{1, 1, 1, 0},    // r0: core
         {1, -1, 0, 0},   // r1: core
         {0, 1, 0, 0},    // r2: x1 <= 3
         {0, 0, 1, 0},    // r3: x2 = 1
         {0, 0, 0, 2}};   // r4: -4 <= 2 x3 <= 2
  p.sense = "LGLER";
  p.rhs = {6, -2, 3, 1, 2};
  p.range = {0, 0, 0, 0, 6};
  p.obj = {-1, -2, 1, -1};
  p.lower = {0, 0, 0, -5};
  p.upper = {10, 10, 10, 5};
  Round round(&env);
  solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->rowMap[2], ROWMAP_UPPER);
  EXPECT_EQ(round.pre->rowMap[3], ROWMAP_FIXED);
  EXPECT_EQ(round.pre->rowMap[4], ROWMAP_RANGE);
  EXPECT_EQ(round.pre->colMap[2], COLMAP_FIXED);
  EXPECT_EQ(round.pre->colMap[3], COLMAP_EMPTY);
  const ipmModel* m = round.current;
  EXPECT_NEAR(m->solPrimal[0], 2.0, 1e-9);
  EXPECT_NEAR(m->solPrimal[1], 3.0, 1e-9);
  EXPECT_NEAR(m->solPrimal[2], 1.0, 1e-12);
  EXPECT_NEAR(m->solPrimal[3], 1.0, 1e-12);
  EXPECT_NEAR(m->objValue, -2 - 6 + 1 - 1, 1e-9);
  // The bound x1 <= 3 binds: its dual lives on the row that gave it.
  EXPECT_LT(m->solDual[2], -1e-6);
  EXPECT_LT(m->solDual[4], -1e-6);
  // Removed inequality rows get their slack from the activity.
  EXPECT_NEAR(round.outer->ineqnSlack[4], 2 - 2 * 1.0, 1e-12);
}

TEST_F(PresolvePostsolve, BoundOnlyPresolveGivesTheBoundsBack) {
  Problem p;
  p.a = {{1, 1}, {-1, 1}};
  p.sense = "LL";
  p.rhs = {10, 5};
  p.obj = {-1, 0};
  p.lower = {0, 0};
  p.upper = {20, 20};
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
  Problem p;
  p.type = IPM_MODEL_QP;
  //         x0 x1 x2 x3 x4 x5 x6
  p.a = {{1, 1, 0, 0, 0, 0, 0},   // r0: x0 + x1 <= 4
         {0, 0, 0, 0, 0, 1, 1}};  // r1: x5 + x6 = 2
  p.sense = "LE";
  p.rhs = {4, 2};
  p.obj = {-4, 0, -2, 3, 0, 0, -2};
  p.lower = {0, 2, 0, 0, -1, 0, 0};
  p.upper = {10, 2, 5, 4, 2, 10, 10};
  p.quadDiag = {1, 1, 2, 1, -2, 1, 1};
  p.quad = {{0, 1, 0.5}, {5, 6, 0.5}};
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
  EXPECT_DOUBLE_EQ(round.outer->lowerDual[2], 0.0);
  EXPECT_DOUBLE_EQ(round.outer->upperDual[2], 0.0);
  EXPECT_DOUBLE_EQ(m->solPrimal[3], 0.0);  // convex, minimum below the box
  EXPECT_DOUBLE_EQ(m->solPrimal[4], 2.0);  // concave: the better end
  EXPECT_NEAR(m->solPrimal[5], 0.0, 1e-9);
  EXPECT_NEAR(m->solPrimal[6], 2.0, 1e-9);
}

TEST_F(PresolvePostsolve, EmptyColumnValuesWithoutCost) {
  Problem p;
  p.a = {{1, 0, 0, 0}};
  p.sense = "L";
  p.rhs = {1};
  p.obj = {-1, 0, 0, 0};
  p.lower = {0, -kFree, -kFree, 3};
  p.upper = {5, kFree, 7, 9};
  Round round(&env);
  solveAround(round, p, PRECONTROL_REDUCED);
  const ipmModel* m = round.current;
  EXPECT_EQ(m->solPrimal[1], 0.0);
  EXPECT_EQ(m->solPrimal[2], 7.0);
  EXPECT_EQ(m->solPrimal[3], 3.0);
  EXPECT_EQ(round.outer->upperSlack[3], 6.0);

  // A concave column takes its lower end on a tie.
  Problem q;
  q.type = IPM_MODEL_QP;
  q.a = {{1, 0}};
  q.sense = "L";
  q.rhs = {1};
  q.obj = {-1, 0};
  q.lower = {0, -2};
  q.upper = {5, 2};
  q.quadDiag = {0, -1};
  Round tie(&env);
  ipmModel* mq = q.build();
  ASSERT_EQ(tie.presolve(mq), 0);
  ASSERT_TRUE(tie.solveReduced());
  ASSERT_EQ(tie.postsolve(), 0);
  EXPECT_EQ(mq->solPrimal[1], -2.0);
}

TEST_F(PresolvePostsolve, SmallTighteningKeepsItsDual) {
  // x <= 5 - 5e-8 from a singleton row changes the bound 5 by less than tol:
  // the bound counts as the caller's own and its dual stays on it.
  Problem p;
  p.a = {{1, 1}, {1, 0}};
  p.sense = "LL";
  p.rhs = {100, 5 - 5e-8};
  p.obj = {-1, 1};
  p.lower = {0, 0};
  p.upper = {5, 5};
  Round round(&env);
  solveAround(round, p, PRECONTROL_REDUCED);
  EXPECT_EQ(round.pre->rowMap[1], ROWMAP_UPPER);
  EXPECT_NEAR(round.outer->upperDual[0], 1.0, 1e-12);
  EXPECT_EQ(round.current->solDual[1], 0.0);
}

TEST_F(PresolvePostsolve, InfeasibleModelsStopThePresolve) {
  {
    Problem p;
    p.a = {{1, 1}, {2, 0}};
    p.sense = "LE";
    p.rhs = {5, 4};
    p.obj = {1, 1};
    p.lower = {0, 0};
    p.upper = {1, 1};
    Round round(&env);
    EXPECT_EQ(round.presolve(p.build()), IPM_STATUS_PRIMAL_INFEASIBLE);
  }
  {  // unbounded through an empty column
    Problem p;
    p.a = {{1, 0}};
    p.sense = "L";
    p.rhs = {5};
    p.obj = {1, -1};
    p.lower = {0, 0};
    p.upper = {1, kFree};
    Round round(&env);
    EXPECT_EQ(round.presolve(p.build()), IPM_STATUS_DUAL_INFEASIBLE);
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(PresolvePostsolve, SolutionRecordsMustMatchTheControl) {
  Problem p;
  p.a = {{1, 1}, {1, 0}};
  p.sense = "LL";
  p.rhs = {4, 3};
  p.obj = {-1, -1};
  p.lower = {0, 0};
  p.upper = {10, 10};
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

  const int32_t controls[] = {PRECONTROL_NONE, PRECONTROL_BOUND};
  for (int32_t control : controls) {
    presolver fake{};
    fake.preControl = control;
    ipmModel* ref = m;
    EXPECT_EQ(ipmPostsolve(&env, &ref, &round.option, &fake, round.outer, nullptr),
              IPM_STATUS_FAILED);
  }
}

TEST_F(PresolvePostsolve, PresolveRefusesUsedSolutionRecords) {
  Problem p;
  p.a = {{1, 1}};
  p.sense = "L";
  p.rhs = {4};
  p.obj = {1, 1};
  p.lower = {0, 0};
  p.upper = {10, 10};
  Round round(&env);
  round.prepare();
  ipmSolution* stale = nullptr;
  ASSERT_EQ(NewSolution(&env, &stale, 1, 2, p.build()->solPrimal, nullptr), 0);
  round.outer = stale;
  round.inner = stale;
  ipmModel* m = &p.model;
  EXPECT_EQ(ipmPresolve(&env, &m, &round.option, round.pre, round.storage, &round.outer,
                        &round.inner),
            IPM_STATUS_FAILED);
}

}  // namespace

// The presolver's reductions one by one: what each does to the working
// copies, the counters and the books of which row defines which bound.
#include <stdarg.h>
#include <stdio.h>

#include <memory>

#include "unit/presolve_support.h"

int32_t ipmSpecSolve(HalvexEnv* env, ipmModel* model, ipmOption* option, ipmSolution* solution,
                     int32_t choice) __attribute__((weak));

namespace {

using pretest::kFree;
using pretest::Problem;

// A presolver made over a problem, as ipmPresolve makes it.
struct Made {
  HalvexEnv* env;
  Problem p;
  ipmOption option = pretest::defaultOption();
  presolver* pre = nullptr;
  ipmModel* m = nullptr;
  Made(HalvexEnv* e, Problem problem) : env(e), p(std::move(problem)) {
    m = p.build();
    pre = poolNew<presolver>(env->pool, 1);
    status = CreatePresolver(env, m, &option, pre);
  }
  ~Made() { DestroyPresolver(env, m, pre); }
  int32_t status;
};

Problem oneRow(std::vector<double> row, char sense, double rhs, std::vector<double> lower,
               std::vector<double> upper, double range = 0.0) {
  Problem p;
  p.a = {row};
  p.sense = std::string(1, sense);
  p.rhs = {rhs};
  p.range = {range};
  p.obj.assign(row.size(), 0.0);
  p.lower = lower;
  p.upper = upper;
  return p;
}

class PresolveRows : public HostTest {};
class PresolveBounds : public HostTest {};
class PresolveColumns : public HostTest {};
class PresolveControl : public HostTest {};

TEST_F(PresolveRows, FreeRowsGoAndSensesAreNormalised) {
  Problem p;
  p.a = {{1, 2, 3}, {1, 1, 0}, {0, 1, 1}};
  p.sense = "nlg";
  p.rhs = {0, 4, 1};
  p.obj = {1, 1, 1};
  p.lower = {0, 0, 0};
  p.upper = {5, 5, 5};
  Made made(&env, p);
  ASSERT_EQ(made.status, 0);
  presolver* pre = made.pre;
  ASSERT_EQ(removeFreeRow(&env, made.m, pre), 0);
  EXPECT_EQ(std::string(pre->rowSense, 3), "NLG");
  EXPECT_EQ(pre->rowMap[0], ROWMAP_FREE);
  EXPECT_EQ(pre->rowMap[1], 0);
  EXPECT_EQ(pre->numRemovedRow, 1);
  EXPECT_EQ(pre->numRemovedElement, 3);
  EXPECT_EQ(pre->rowLength[0], 0);
  // The free row's entries left every column's live part.
  EXPECT_EQ(pre->colLength[0], 1);
  EXPECT_EQ(pre->colLength[1], 2);
  EXPECT_EQ(pre->colLength[2], 1);
  for (int j = 0; j < 3; j++)
    for (int k = pre->colBegin[j]; k < pre->colBegin[j] + pre->colLength[j]; k++)
      EXPECT_NE(pre->rowIndex[k], 0);
  EXPECT_EQ(pre->changed, 0);

  // An unknown sense stops the pass and leaves the counters alone.
  Problem q = p;
  q.sense = "nLx";
  Made bad(&env, q);
  ASSERT_EQ(bad.status, 0);
  EXPECT_EQ(removeFreeRow(&env, bad.m, bad.pre), IPM_STATUS_FAILED);
  EXPECT_EQ(bad.pre->numRemovedRow, 0);
  EXPECT_EQ(bad.pre->numRemovedElement, 0);
}

TEST_F(PresolveRows, EmptyRowsMustHoldAtZeroActivity) {
  const double tol = 1e-6;
  Problem p;
  p.a = {{0}, {0}, {0}, {0}, {0}, {0}, {0}};
  p.sense = "GGELRRE";
  p.rhs = {tol, 2 * tol, 1e-3, -1, 1, 1, 7};
  p.range = {0, 0, 0, 0, 3, 0.5, 0};
  p.obj = {1};
  p.lower = {0};
  p.upper = {1};
  Made made(&env, p);
  ASSERT_EQ(made.status, 0);
  const int32_t expected[] = {0, 3, 3, 3, 0, 3, 3};
  for (int i = 0; i < 7; i++) {
    EXPECT_EQ(removeEmptyRow(&env, made.m, &made.option, made.pre, i), expected[i]) << "row " << i;
    EXPECT_EQ(made.pre->rowMap[i], ROWMAP_EMPTY);
  }
  EXPECT_EQ(made.pre->numRemovedRow, 7);
  // The equation solver's models do not look at the right side.
  made.pre->typeModel = PRESOLVE_MODEL_EQUATION;
  EXPECT_EQ(removeEmptyRow(&env, made.m, &made.option, made.pre, 6), 0);
}

TEST_F(PresolveRows, SingletonEquationsFixOrFail) {
  {
    Made made(&env, oneRow({2}, 'E', 4, {0}, {1}));
    EXPECT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0),
              IPM_STATUS_PRIMAL_INFEASIBLE);
  }
  {
    Made made(&env, oneRow({2}, 'E', 4, {2}, {2}));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->lbMap[0], -1);
    EXPECT_EQ(made.pre->ubMap[0], -1);
  }
  {
    Made made(&env, oneRow({2}, 'E', 4, {0}, {5}));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FIXED);
    EXPECT_EQ(made.pre->lowerBound[0], 2.0);
    EXPECT_EQ(made.pre->upperBound[0], 2.0);
    EXPECT_EQ(made.pre->lbMap[0], 0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->colLength[0], 0);
    EXPECT_EQ(made.pre->colDone[0], 0);
    EXPECT_EQ(made.pre->numRemovedElement, 1);
  }
}

TEST_F(PresolveRows, SingletonInequalitiesBecomeBounds) {
  {  // x <= 5 adds nothing to an upper bound of 3
    Made made(&env, oneRow({1}, 'L', 5, {0}, {3}));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->upperBound[0], 3.0);
  }
  {  // -x <= 5 is x >= -5
    Made made(&env, oneRow({-1}, 'L', 5, {-10}, {kFree}));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_LOWER);
    EXPECT_EQ(made.pre->lowerBound[0], -5.0);
    EXPECT_EQ(made.pre->lbMap[0], 0);
  }
  {  // 2x >= 2 on x >= 0
    Made made(&env, oneRow({2}, 'G', 2, {0}, {kFree}));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_LOWER);
    EXPECT_EQ(made.pre->lowerBound[0], 1.0);
  }
  {  // x <= 5 on x >= 6
    Made made(&env, oneRow({1}, 'L', 5, {6}, {kFree}));
    EXPECT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0),
              IPM_STATUS_PRIMAL_INFEASIBLE);
  }
  {  // -x in [-5, -1] is x in [1, 5]
    Made made(&env, oneRow({-1}, 'R', -1, {0}, {10}, 4));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_RANGE);
    EXPECT_EQ(made.pre->lowerBound[0], 1.0);
    EXPECT_EQ(made.pre->upperBound[0], 5.0);
    EXPECT_EQ(made.pre->lbMap[0], 0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
  }
  {  // a range narrower than a hundredth of tol fixes the column exactly
    Made made(&env, oneRow({1}, 'R', 2 + 1e-10, {0}, {10}, 1e-10));
    ASSERT_EQ(removeSingletonRow(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_RANGE);
    EXPECT_EQ(made.pre->lowerBound[0], made.pre->upperBound[0]);
  }
}

TEST_F(PresolveRows, LaterSingletonDemotesTheRowItReplaces) {
  {  // x <= 5, then x <= 3: the first row defines nothing any more
    Problem p;
    p.a = {{1}, {1}};
    p.sense = "LL";
    p.rhs = {5, 3};
    p.obj = {-1};
    p.lower = {0};
    p.upper = {10};
    Made made(&env, p);
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->rowMap[1], ROWMAP_UPPER);
    EXPECT_EQ(made.pre->ubMap[0], 1);
    EXPECT_EQ(made.pre->upperBound[0], 3.0);
  }
  {  // 1 <= x <= 5, then x <= 3: the range row keeps its lower side
    Problem p;
    p.a = {{1}, {1}};
    p.sense = "RL";
    p.rhs = {5, 3};
    p.range = {4, 0};
    p.obj = {-1};
    p.lower = {0};
    p.upper = {10};
    Made made(&env, p);
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_LOWER);
    EXPECT_EQ(made.pre->rowMap[1], ROWMAP_UPPER);
    EXPECT_EQ(made.pre->lbMap[0], 0);
    EXPECT_EQ(made.pre->ubMap[0], 1);
    EXPECT_EQ(made.pre->lowerBound[0], 1.0);
    EXPECT_EQ(made.pre->upperBound[0], 3.0);
  }
}

TEST_F(PresolveBounds, RedundantAndForcingRows) {
  {  // x + y <= 10 with both in [0, 5] can never bind
    Made made(&env, oneRow({1, 1}, 'L', 10, {0, 0}, {5, 5}));
    made.pre->colDone[0] = made.pre->colDone[1] = 1;
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->rowLength[0], 0);
    EXPECT_EQ(made.pre->colLength[0], 0);
    EXPECT_EQ(made.pre->colLength[1], 0);
    EXPECT_EQ(made.pre->colDone[0], 0);
    EXPECT_EQ(made.pre->colDone[1], 0);
    EXPECT_EQ(made.pre->numRemovedElement, 2);
  }
  {  // x + y <= 0 forces both to 0, and the next column sweep removes them
    Made made(&env, oneRow({1, 1}, 'L', 0, {0, 0}, {5, 5}));
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FIXED);
    EXPECT_EQ(made.pre->colMap[0], COLMAP_FIXED);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_FIXED);
    EXPECT_EQ(made.pre->upperBound[0], 0.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->ubMap[1], 0);
    EXPECT_EQ(made.pre->numRemovedElement, 2);
    EXPECT_EQ(made.pre->numRemovedRow, 1);
  }
  {  // -x + y >= 5 with x in [0, 5], y in [0, 5] forces x down and y up
    Made made(&env, oneRow({-1, 1}, 'G', 5, {0, 0}, {5, 5}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FIXED);
    EXPECT_EQ(made.pre->upperBound[0], 0.0);
    EXPECT_EQ(made.pre->lowerBound[1], 5.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->lbMap[1], 0);
    // Forcing leaves the entries to the removal of the fixed columns.
    EXPECT_EQ(made.pre->rowLength[0], 2);
  }
  {  // already fixed: forcing without effect
    Made made(&env, oneRow({1, 1}, 'L', 0, {0, 0}, {0, 0}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_EMPTY);
    EXPECT_EQ(made.pre->lbMap[0], -1);
    EXPECT_EQ(made.pre->ubMap[0], -1);
  }
  {  // x + y >= 11 with both in [0, 5]
    Made made(&env, oneRow({1, 1}, 'G', 11, {0, 0}, {5, 5}));
    EXPECT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0),
              IPM_STATUS_PRIMAL_INFEASIBLE);
  }
}

TEST_F(PresolveBounds, ImpliedBoundsFromActivity) {
  {  // one infinite contribution: only that column is bounded, by slack / a
    Made made(&env, oneRow({1, 1}, 'L', 4, {-kFree, 1}, {10, 5}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->rowMap[0], 0);
    EXPECT_DOUBLE_EQ(made.pre->upperBound[0], 3.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->upperBound[1], 5.0);
    EXPECT_EQ(made.pre->changed, 1);
  }
  {  // two infinite contributions: nothing
    Made made(&env, oneRow({1, 1}, 'L', 4, {-kFree, -kFree}, {10, 10}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->upperBound[0], 10.0);
    EXPECT_EQ(made.pre->upperBound[1], 10.0);
    EXPECT_EQ(made.pre->changed, 0);
  }
  {  // an improvement of exactly tol is not taken, one of 2 tol is
    Made made(&env, oneRow({1, 1}, 'L', 10, {0, 0}, {10 + 1e-6, 10 + 2e-6}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_EQ(made.pre->upperBound[0], 10 + 1e-6);
    EXPECT_EQ(made.pre->ubMap[0], -1);
    EXPECT_EQ(made.pre->upperBound[1], 10.0);
    EXPECT_EQ(made.pre->ubMap[1], 0);
  }
  {  // negative coefficient on a G row bounds from above: -x + y >= 2, y <= 5
    Made made(&env, oneRow({-1, 1}, 'G', 2, {0, 0}, {kFree, 5}));
    ASSERT_EQ(tightenBound(&env, made.m, &made.option, made.pre, 0), 0);
    EXPECT_DOUBLE_EQ(made.pre->upperBound[0], 3.0);
    EXPECT_DOUBLE_EQ(made.pre->lowerBound[1], 2.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->lbMap[1], 0);
  }
}

TEST_F(PresolveBounds, RangeRowGivesUpAnUnreachableEnd) {
  Problem p = oneRow({1, 1}, 'R', 20, {0, 0}, {5, 5}, 19);
  p.obj = {1, 2};
  ipmModel* m = p.build();
  pretest::Round round(&env);
  ASSERT_EQ(round.presolve(m), 0);
  EXPECT_EQ(round.pre->numChangeRange, 1);
  EXPECT_EQ(round.pre->numRemovedRow, 0);
  EXPECT_EQ(round.pre->numRemovedCol, 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
  ASSERT_NE(round.current, m);
  EXPECT_EQ(round.current->rowSense[0], 'G');
  EXPECT_EQ(round.current->rhs[0], 1.0);
  EXPECT_EQ(round.current->range[0], 0.0);
  EXPECT_EQ(round.current->numCoef, 2);
  EXPECT_EQ(round.storage->numRange, 0);
  // The caller's model is untouched meanwhile.
  EXPECT_EQ(m->rowSense[0], 'R');
  EXPECT_EQ(m->rhs[0], 20.0);
}

TEST_F(PresolveBounds, InfeasibleOrMeaninglessBounds) {
  {
    Made made(&env, oneRow({1}, 'L', 1, {2}, {1}));
    EXPECT_EQ(detectInfeasBound(&env, made.m, &made.option, made.pre),
              IPM_STATUS_PRIMAL_INFEASIBLE);
  }
  {
    Made made(&env, oneRow({1}, 'L', 1, {kFree}, {kFree}));
    EXPECT_EQ(detectInfeasBound(&env, made.m, &made.option, made.pre),
              IPM_STATUS_DUAL_INFEASIBLE);
  }
  {  // crossing within tol is accepted
    Made made(&env, oneRow({1}, 'L', 1, {1 + 1e-7}, {1}));
    EXPECT_EQ(detectInfeasBound(&env, made.m, &made.option, made.pre), 0);
  }
}

TEST_F(PresolveColumns, EmptyColumnsAndTheirDirection) {
  {  // cost 1 and no lower bound: unbounded
    Problem p = oneRow({1, 0}, 'L', 1, {0, -kFree}, {5, 0});
    p.obj = {0, 1};
    Made made(&env, p);
    EXPECT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), IPM_STATUS_DUAL_INFEASIBLE);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_EMPTY);
  }
  {  // cost -1 and no upper bound
    Problem p = oneRow({1, 0}, 'L', 1, {0, 0}, {5, kFree});
    p.obj = {0, -1};
    Made made(&env, p);
    EXPECT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), IPM_STATUS_DUAL_INFEASIBLE);
  }
  {  // convex QP column without bounds is fine, a concave one is not
    Problem p = oneRow({1, 0, 0}, 'L', 1, {0, -kFree, -kFree}, {5, kFree, kFree});
    p.type = IPM_MODEL_QP;
    p.quadDiag = {0, 2, 0};
    p.obj = {0, 1, 0};
    Made made(&env, p);
    made.pre->colDone[0] = 1;
    EXPECT_EQ(removeEmptyCol(&env, made.m, &made.option, made.pre, 1), 0);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_EMPTY);
    made.m->quadDiag[2] = -1;
    EXPECT_EQ(removeEmptyCol(&env, made.m, &made.option, made.pre, 2),
              IPM_STATUS_DUAL_INFEASIBLE);
  }
  {  // an off-diagonal entry keeps an otherwise empty column live
    Problem p = oneRow({1, 0}, 'L', 1, {0, 0}, {5, 5});
    p.type = IPM_MODEL_QP;
    p.quadDiag = {1, 1};
    p.quad = {{0, 1, 0.5}};
    p.obj = {1, 1};
    Made made(&env, p);
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->colMap[1], 0);
    EXPECT_EQ(made.pre->colDone[1], 1);
    EXPECT_EQ(made.pre->numRemovedCol, 0);
  }
}

TEST_F(PresolveColumns, FixedColumnMovesIntoRightSideAndCosts) {
  Problem p;
  p.type = IPM_MODEL_QP;
  p.a = {{1, 2, 1}};
  p.sense = "L";
  p.rhs = {10};
  p.obj = {1, 1, 1};
  p.lower = {0, 3, 0};
  p.upper = {5, 3, 5};
  p.quadDiag = {1, 1, 1};
  p.quad = {{0, 1, 0.5}, {1, 2, -2}};  // pairs (0,1) in column 1, (1,2) in column 2
  Made made(&env, p);
  ASSERT_EQ(removeFixedCol(&env, made.m, &made.option, made.pre, 1), 0);
  presolver* pre = made.pre;
  EXPECT_EQ(pre->colMap[1], COLMAP_FIXED);
  EXPECT_DOUBLE_EQ(pre->rhs[0], 10 - 2 * 3);
  EXPECT_EQ(pre->rowLength[0], 2);
  EXPECT_DOUBLE_EQ(pre->obj[0], 1 + 0.5 * 3);
  EXPECT_DOUBLE_EQ(pre->obj[2], 1 - 2 * 3);
  EXPECT_EQ(pre->numRemovedElement, 1);
  EXPECT_EQ(pre->numRemovedQuadElement, 2);
  EXPECT_EQ(pre->quadColLength[1], 0);
  EXPECT_EQ(pre->quadRowLength[1], 0);
  EXPECT_EQ(pre->quadColLength[2], 0);
  EXPECT_EQ(pre->quadRowLength[0], 0);
  // The entries stay behind the column's length for the structure check.
  EXPECT_EQ(pre->colLength[1], 1);
}

TEST_F(PresolveControl, ResultDependsOnWhatChanged) {
  Problem p;
  p.a = {{1, 1}, {1, -1}};
  p.sense = "LG";
  p.rhs = {10, -3};
  p.obj = {-1, -1};
  p.lower = {0, 0};
  p.upper = {20, 20};
  // x + y >= 1, x - y <= 5 on x, y >= 0: no row can be removed or imply a
  // bound.
  Problem loose = p;
  loose.sense = "GL";
  loose.rhs = {1, 5};
  loose.upper = {kFree, kFree};
  {  // nothing applies
    Problem q = loose;
    ipmModel* m = q.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_NONE);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(round.pre->numPass, 0);
  }
  {  // the same as a QP always gets a reduced model
    Problem q = loose;
    q.type = IPM_MODEL_QP;
    q.quadDiag = {1, 1};
    ipmModel* m = q.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
    EXPECT_NE(round.current, m);
    EXPECT_EQ(round.current->numCoef, 4);
    EXPECT_EQ(round.current->quadDiag[1], 1.0);
  }
  {  // only bounds moved: the caller's model serves with swapped bounds
    ipmModel* m = p.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    ASSERT_EQ(round.pre->preControl, PRECONTROL_BOUND);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(m->upper[0], 10.0);  // x <= 10 - y
    EXPECT_EQ(round.pre->upperBound[0], 20.0);
    // The row that implied the bound stays, so the bound may be relaxed.
    ASSERT_NE(m->relaxColBound, nullptr);
    EXPECT_TRUE(m->relaxColBound[0] & RELAX_NO_UPPER);
  }
}

TEST_F(PresolveControl, PassLimitStopsWithWorkLeft) {
  Problem p;
  p.a = {{1, 1}, {0, 1}};
  p.sense = "EE";
  p.rhs = {2, 1};
  p.obj = {1, 1};
  p.lower = {0, 0};
  p.upper = {5, 5};
  {
    Made made(&env, p);
    made.pre->maxPass = 1;
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->numPass, 1);
    // y was fixed by its singleton row but the sweep that removes it never came.
    EXPECT_EQ(made.pre->rowMap[1], ROWMAP_FIXED);
    EXPECT_EQ(made.pre->colMap[1], 0);
  }
  {
    Made made(&env, p);
    ASSERT_EQ(ipmPreLoop(&env, made.m, &made.option, made.pre), 0);
    EXPECT_EQ(made.pre->colMap[0], COLMAP_FIXED);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_FIXED);
    EXPECT_DOUBLE_EQ(made.pre->lowerBound[0], 1.0);
    EXPECT_EQ(made.pre->numRemovedRow, 2);
  }
}

TEST_F(PresolveControl, FreeColumnsWithOnlyEquationsGoToTheSpecialSolve) {
  Problem p;
  p.a = {{1, 1}, {1, -1}};
  p.sense = "EE";
  p.rhs = {2, 0};
  p.obj = {1, 1};
  p.lower = {-kFree, -kFree};
  p.upper = {kFree, kFree};
  ipmModel* m = p.build();
  pretest::Round round(&env);
  const int32_t status = round.presolve(m);
  // The presolver is never made on this road.
  EXPECT_EQ(round.pre->rowMap, nullptr);
  EXPECT_EQ(round.pre->colBegin, nullptr);
  if (!ipmSpecSolve) {
    EXPECT_EQ(status, IPM_STATUS_FAILED);
    EXPECT_EQ(round.pre->preRoute, PREROUTE_SPECIAL);
  } else {
    EXPECT_EQ(status, 0);
    EXPECT_EQ(round.pre->preRoute, PREROUTE_SOLVED);
  }
}

TEST_F(PresolveControl, DisabledPresolveOnlyCountsAndAllocates) {
  Problem p;
  p.a = {{1, 1}, {1, -1}, {1, 0}};
  p.sense = "RLL";
  p.rhs = {4, 1, 3};
  p.range = {2, 0, 0};
  p.obj = {1, 1};
  p.lower = {0, 0};
  p.upper = {5, 5};
  ipmModel* m = p.build();
  pretest::Round round(&env);
  round.prepare();
  ASSERT_EQ(ipmPresolveDisabled(&env, m, &round.option, round.pre, round.storage, &round.outer,
                                &round.inner),
            0);
  EXPECT_EQ(round.pre->preControl, PRECONTROL_NONE);
  EXPECT_EQ(round.storage->numRange, 1);
  EXPECT_EQ(round.storage->numLcont, 2);
  EXPECT_EQ(round.inner, round.outer);
  EXPECT_EQ(round.pre->rowMap, nullptr);

  Problem empty;
  empty.obj = {1};
  empty.lower = {0};
  empty.upper = {1};
  ipmModel* e = empty.build();
  pretest::Round other(&env);
  other.prepare();
  EXPECT_EQ(ipmPresolveDisabled(&env, e, &other.option, other.pre, other.storage, &other.outer,
                                &other.inner),
            IPM_STATUS_FAILED);
}

}  // namespace

namespace {

std::vector<std::string> gTexts;
// Host control prefixes ("%3z") are no printf conversions: such lines are
// kept as given.
void captureText(const char* format, ...) {
  if (format[0] == '%' && format[1] >= '0' && format[1] <= '9' && format[2] == 'z') {
    gTexts.push_back(format);
    return;
  }
  char buf[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  gTexts.push_back(buf);
}

struct CapturedMessages : MessageLog {
  std::vector<std::pair<int32_t, int64_t>> seen;
  std::vector<int32_t> firstValues;
  CapturedMessages() { log = &record; }
  static void record(MessageLog* self, int32_t severity, int64_t code, ...) {
    CapturedMessages* me = static_cast<CapturedMessages*>(self);
    me->seen.push_back({severity, code});
    va_list args;
    va_start(args, code);
    // Only the codes with integer values are read here.
    const int32_t c = (int32_t)code;
    me->firstValues.push_back(c == (int32_t)0x827FD86D || c == (int32_t)0x827FD86E ||
                                      c == (int32_t)0x827FD86F
                                  ? va_arg(args, int32_t)
                                  : 0);
    va_end(args);
  }
};

TEST_F(PresolveControl, QpSummaryGoesToTheMessageLog) {
  Problem p = oneRow({1, 1}, 'L', 4, {0, 0}, {kFree, 3});
  p.type = IPM_MODEL_QP;
  p.quadDiag = {1, 1};
  p.obj = {1, 1};
  const int64_t on = (int64_t)(int32_t)0x827FD869, removed = (int64_t)(int32_t)0x827FD86E;
  const int64_t elements = (int64_t)(int32_t)0x827FD86F, done = (int64_t)(int32_t)0x827FD864;
  const int64_t unknown = (int64_t)(int32_t)0x827FD86D, off = (int64_t)(int32_t)0x827FD868;

  CapturedMessages messages;
  env.messageLog = &messages;
  env.textLog = &captureText;
  gTexts.clear();
  {
    pretest::Round round(&env);
    round.option.printLevel = 2;
    round.option.presolver = 7;
    ASSERT_EQ(round.presolve(p.build()), 0);
    ASSERT_EQ(messages.seen.size(), 5u);
    EXPECT_EQ(messages.seen[0], std::make_pair(MSG_ERROR, unknown));
    EXPECT_EQ(messages.firstValues[0], 7);
    EXPECT_EQ(messages.seen[1], std::make_pair(MSG_INFO, on));
    EXPECT_EQ(messages.seen[2], std::make_pair(MSG_INFO, removed));
    EXPECT_EQ(messages.firstValues[2], round.pre->numRemovedCol);
    EXPECT_EQ(messages.seen[3], std::make_pair(MSG_INFO, elements));
    EXPECT_EQ(messages.seen[4], std::make_pair(MSG_INFO, done));
  }
  messages.seen.clear();
  {
    pretest::Round round(&env);
    round.option.printLevel = 2;
    round.option.presolver = 0;
    ASSERT_EQ(round.presolve(p.build()), 0);
    ASSERT_EQ(messages.seen.size(), 2u);
    EXPECT_EQ(messages.seen[0].second, off);
    EXPECT_EQ(messages.seen[1].second, done);
  }
  messages.seen.clear();
  {
    pretest::Round round(&env);
    round.option.printLevel = 2;
    round.option.presolver = 2;
    ASSERT_EQ(round.presolve(p.build()), 0);
    ASSERT_FALSE(gTexts.empty());
    EXPECT_EQ(gTexts.back(), "%3zThe PRESOLVER value MODERATE (2) is mapped to value AUTOMATIC.");
  }
  messages.seen.clear();
  {  // silent for an LP, and with printLevel 0
    Problem lp = p;
    lp.type = IPM_MODEL_LP;
    pretest::Round round(&env);
    round.option.printLevel = 2;
    ASSERT_EQ(round.presolve(lp.build()), 0);
    pretest::Round quiet(&env);
    ASSERT_EQ(quiet.presolve(p.build()), 0);
    EXPECT_TRUE(messages.seen.empty());
  }
  env.messageLog = nullptr;
  env.textLog = nullptr;
}

TEST_F(PresolveRows, BooksReportBoundsTakenFromFinishedRows) {
  env.textLog = &captureText;
  gTexts.clear();
  int32_t rowMap[3] = {ROWMAP_FIXED, ROWMAP_EMPTY, 0};
  int32_t ubMap[2] = {0, 1};
  updateMapUpper(&env, rowMap, ubMap, 0, 2);
  updateMapLower(&env, rowMap, ubMap, 1, 2);
  ASSERT_EQ(gTexts.size(), 2u);
  EXPECT_EQ(gTexts[0], "Error updateMapUpper: col=0  row=2  ROWMAP_FIXED shall never change bound again.");
  EXPECT_EQ(gTexts[1], "Error updateMapLower: col=1  row=2  ROWMAP_EMPTY shall never change bound again.");
  // The map takes the new row all the same.
  EXPECT_EQ(ubMap[0], 2);
  EXPECT_EQ(ubMap[1], 2);
  EXPECT_EQ(rowMap[0], ROWMAP_FIXED);

  Problem p;
  p.a = {{1}};
  p.sense = "x";
  p.rhs = {1};
  p.obj = {1};
  p.lower = {0};
  p.upper = {1};
  Made made(&env, p);
  EXPECT_EQ(removeFreeRow(&env, made.m, made.pre), IPM_STATUS_FAILED);
  EXPECT_EQ(gTexts.back(), "unknown row type x.");
  env.textLog = nullptr;
}

}  // namespace

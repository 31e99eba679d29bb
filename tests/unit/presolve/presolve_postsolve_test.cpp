// Presolve, solve what is left, postsolve: the answer must satisfy the KKT
// conditions of the caller's model, duals of removed rows included.
#include <random>

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

namespace {

// Tiny random LPs and diagonal QPs, feasible by construction, with fixed,
// free, empty and singleton structure mixed in: the round must keep the
// optimum and the KKT conditions of the caller's model.
TEST_F(PresolvePostsolve, RandomModelsKeepTheirOptimumAndKKT) {
  std::mt19937 rng(2024);
  auto uni = [&](int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); };
  int solved = 0, reduced = 0;
  for (int trial = 0; trial < 300; trial++) {
    const int n = uni(1, 4), m = uni(1, 3);
    pretest::Mat a(m, pretest::Vec(n, 0.0));
    pretest::Vec lo(n), up(n), x0(n), c(n), rhs(m), range(m, 0.0), diag(n);
    for (int j = 0; j < n; j++) {
      lo[j] = uni(-2, 0);
      up[j] = lo[j] + uni(0, 3);
      const int kind = uni(0, 7);
      if (kind == 1 || kind == 3) lo[j] = -kFree;
      if (kind == 2 || kind == 3) up[j] = kFree;
      x0[j] = lo[j] > -kFree ? lo[j] + (up[j] < kFree ? uni(0, (int)(up[j] - lo[j])) : uni(0, 2))
                             : (up[j] < kFree ? up[j] - uni(0, 2) : uni(-2, 2));
      c[j] = uni(-3, 3);
      diag[j] = uni(0, 2);
      for (int i = 0; i < m; i++)
        if (uni(0, 1)) a[i][j] = uni(-2, 2);
    }
    std::string sense;
    for (int i = 0; i < m; i++) {
      double act = 0.0;
      for (int j = 0; j < n; j++) act += a[i][j] * x0[j];
      sense += "ELGR"[uni(0, 3)];
      rhs[i] = act + (sense[i] == 'E' ? 0 : sense[i] == 'G' ? -uni(0, 1) : uni(0, 1));
      if (sense[i] == 'R') range[i] = uni(1, 3);  // [rhs - range, rhs] holds act
    }
    Problem p = lp(a, sense, rhs, c, lo, up, range);
    if (uni(0, 2) == 0) p = qp(p, diag);
    // The caller's optimum, or none when the draw is unbounded.
    Problem ref = p;
    ipmModel* rm = ref.build();
    ipmSolution* rs = nullptr;
    ASSERT_EQ(NewSolution(&env, &rs, m, n, rm->solPrimal, rm->solDual), 0);
    const bool bounded = pretest::bruteSolve(*rm, rs);
    FreeSolution(&env, rs);
    if (!bounded) continue;
    auto objective = [&](const double* x) {
      double f = 0.0;
      for (int j = 0; j < n; j++) f += c[j] * x[j] + (p.type == IPM_MODEL_QP ? 0.5 * diag[j] * x[j] * x[j] : 0.0);
      return f;
    };
    SCOPED_TRACE(::testing::Message() << "trial " << trial);
    Round round(&env);
    ipmModel* mm = p.build();
    ASSERT_EQ(round.presolve(mm), 0);
    if (round.pre->preRoute == PREROUTE_SOLVED || round.pre->preRoute == PREROUTE_SPECIAL) continue;
    reduced += round.current != mm && round.current->numCol < n;
    ASSERT_TRUE(round.solveReduced());
    ASSERT_EQ(round.postsolve(), 0);
    EXPECT_EQ(kktBreach(*mm, *round.outer), "");
    EXPECT_NEAR(objective(mm->solPrimal), objective(rm->solPrimal), 1e-7);
    solved++;
    if (HasFailure()) break;
  }
  EXPECT_GT(solved, 150);
  EXPECT_GT(reduced, 30);
}

}  // namespace

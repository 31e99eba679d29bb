// The one-system solve of models with nothing to iterate on: all columns
// free, all rows equations, or a QP without rows.

#include <vector>

#include "ipm/ipm.h"
#include "ipm/directsolve.h"
#include "support/bridge_seam.h"
#include "support/ipm_support.h"
#include "support/oom.h"
#include "support/presolve_support.h"

namespace {

using pretest::kFree;
using pretest::Problem;

std::vector<ipmtest::LoggedMessage>& gMessages = ipmtest::loggedMessages();

// min 1/2 x'Qx + c'x + 2 with Q = [[2,1,0],[1,3,0],[0,0,1]],
// x1 + x2 + x3 = 3, x1 - x3 = 1, every column free.
Problem equalityQP() {
  Problem p = pretest::lp({{1, 1, 1}, {1, 0, -1}}, "EE", {3, 1}, {1, -2, 0.5},
                          {-kFree, -kFree, -kFree}, {kFree, kFree, kFree});
  p = pretest::qp(p, {2, 3, 1}, {{0, 1, 1.0}});
  return p;
}

// equalityQP with a fourth column fixed at 1, which the presolve removes.
Problem reducedToEqualityQP() {
  Problem p = pretest::lp({{1, 1, 1, 1}, {1, 0, -1, 0}}, "EE", {4, 1}, {1, -2, 0.5, 3},
                          {-kFree, -kFree, -kFree, 1}, {kFree, kFree, kFree, 1});
  return pretest::qp(p, {2, 3, 1, 0}, {{0, 1, 1.0}});
}

class SpecSolve : public HostTest {
 protected:
  SpecSolve() {
    gMessages.clear();
    log.log = ipmtest::logMessage;
    env.messageLog = &log;
    option = pretest::defaultOption();
    option.primalTol = option.dualTol = option.gapTol = 1e-8;
    option.printLevel = 2;
    option.numThreads = 1;
  }
  ~SpecSolve() override {
    if (solution) FreeSolution(&env, solution);
  }

  int32_t solve(Problem& p, int32_t choice) {
    ipmModel* m = p.build();
    m->status = -7;  // a failure must leave it alone
    if (solution) FreeSolution(&env, solution);
    solution = nullptr;
    EXPECT_EQ(NewSolution(&env, &solution, m->numRow, m->numCol, m->solPrimal, m->solDual), 0);
    // Stale values that a proper solve overwrites.
    for (int32_t j = 0; j < m->numCol; j++) solution->lowerSlack[j] = solution->upperDual[j] = 9;
    for (int32_t i = 0; i < m->numRow; i++) solution->ineqnSlack[i] = 9;
    return ipmSpecSolve(&env, m, &option, solution, choice);
  }

  // Optimal by the KKT conditions, at iteration 0, with nothing left of the
  // stale slacks and bound duals.
  void expectSolvedAtIterationZero(const Problem& p) {
    const ipmModel& m = p.model;
    EXPECT_EQ(pretest::kktBreach(m, *solution, 1e-9), "");
    EXPECT_EQ(m.status, IPM_STATUS_OPTIMAL);
    EXPECT_EQ(m.iteration, 0);
    EXPECT_EQ(m.complementarity, 0.0);
    EXPECT_EQ(m.boundInfeas, 0.0);
    EXPECT_LT(m.primalInfeas, 1e-10);
    EXPECT_LT(m.dualInfeas, 1e-10);
    EXPECT_LT(m.dualityGap, 1e-10);
    for (int32_t j = 0; j < m.numCol; j++) {
      EXPECT_EQ(solution->lowerSlack[j], 0.0);
      EXPECT_EQ(solution->upperDual[j], 0.0);
    }
    for (int32_t i = 0; i < m.numRow; i++) EXPECT_EQ(solution->ineqnSlack[i], 0.0);
  }

  MessageLog log{};
  ipmOption option{};
  ipmSolution* solution = nullptr;
};

TEST_F(SpecSolve, EqualityQPByEitherSolverMatchesTheKktPoint) {
  for (int32_t choice : {SPEC_SOLVE_DIRECT, SPEC_SOLVE_REDUCED}) {
    SCOPED_TRACE(choice);
    Problem p = equalityQP();
    ASSERT_EQ(solve(p, choice), 0);
    expectSolvedAtIterationZero(p);
    const double* x = p.solPrimal.data();
    // The measures sit in the model's own arrays: Ax = b and a vanishing
    // reduced cost Qx + c - A'y.
    EXPECT_NEAR(p.rowActivity[0], 3.0, 1e-9);
    EXPECT_NEAR(p.rowActivity[1], 1.0, 1e-9);
    for (int j = 0; j < 3; j++) EXPECT_NEAR(p.reducedCost[j], 0.0, 1e-9);
    const double q = 0.5 * (2 * x[0] * x[0] + 3 * x[1] * x[1] + x[2] * x[2]) + x[0] * x[1];
    EXPECT_NEAR(p.model.objValue, q + x[0] - 2 * x[1] + 0.5 * x[2], 1e-9);
  }
}

TEST_F(SpecSolve, LinearModelTakesSenseAndConstantIntoTheObjective) {
  // A square, nonsingular: x = A^-1 b = (2, 1), A'y = c gives y = (1.5, -0.5).
  Problem p = pretest::lp({{1, 1}, {1, -1}}, "EE", {3, 1}, {1, 2}, {-kFree, -kFree},
                          {kFree, kFree});
  ASSERT_EQ(solve(p, SPEC_SOLVE_DIRECT), 0);
  expectSolvedAtIterationZero(p);
  EXPECT_NEAR(p.model.objValue, 4.0, 1e-12);

  p.build();
  p.model.objConstant = 2.0;
  p.model.objSense = -1;
  ASSERT_EQ(ipmSpecSolve(&env, &p.model, &option, solution, SPEC_SOLVE_REDUCED), 0);
  EXPECT_NEAR(p.model.objValue, -6.0, 1e-12);
}

// A factorisation that gives up.
int32_t refuseFactor(int32_t, int32_t, const int32_t*, const int32_t*, const double*, LAEnv*,
                     LASymbolic*, LANumeric*) {
  return LA_ERR_INTERNAL;
}

TEST_F(SpecSolve, AFailedFactorisationIsTheResultAndLeavesTheStatus) {
  LdlNumericOverride refuse{refuseFactor, nullptr};
  ldlNumericOverride = &refuse;
  Problem p = equalityQP();
  const int32_t r = solve(p, SPEC_SOLVE_DIRECT);
  ldlNumericOverride = nullptr;
  EXPECT_EQ(r, IPM_STATUS_FAILED);
  EXPECT_EQ(p.model.status, -7);
  EXPECT_TRUE(gMessages.empty());
}

TEST_F(SpecSolve, TheTableIsWrittenInOneGoOnlyWithAPrintFrequency) {
  Problem p = equalityQP();
  option.printFreq = 0;
  ASSERT_EQ(solve(p, SPEC_SOLVE_DIRECT), 0);
  EXPECT_TRUE(gMessages.empty());

  option.printFreq = 5;
  ASSERT_EQ(solve(p, SPEC_SOLVE_DIRECT), 0);
  ASSERT_EQ(gMessages.size(), 3u);
  const int64_t codes[3] = {IPM_MSG_TABLE_HEAD, IPM_MSG_TABLE_RULE, IPM_MSG_TABLE_LINE};
  for (int k = 0; k < 3; k++) {
    EXPECT_EQ(gMessages[k].code, codes[k]);
    EXPECT_EQ(gMessages[k].severity, k < 2 ? MSG_TABLE_HEADING : MSG_TABLE_LINE);
  }
  EXPECT_EQ(gMessages[2].iteration, 0);
  const double reported[5] = {p.model.complementarity, p.model.dualityGap, p.model.primalInfeas,
                              p.model.boundInfeas, p.model.dualInfeas};
  for (int k = 0; k < 5; k++) EXPECT_EQ(gMessages[2].values[k], reported[k]) << k;
}

// ---- the presolve routes that lead here ---------------------------------------------

class SpecRoute : public SpecSolve {};

TEST_F(SpecRoute, AllFreeAllEquationModelIsSolvedBeforeAnyPresolverArray) {
  Problem p = equalityQP();
  {
    // The round's option leaves the thread count at 0: taken as one thread.
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(p.build()), 0);
    EXPECT_EQ(round.current, &p.model);
    EXPECT_EQ(round.pre->preRoute, PREROUTE_SOLVED);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_NONE);
    EXPECT_EQ(round.pre->rowBegin, nullptr);
    EXPECT_EQ(round.pre->colMap, nullptr);
    EXPECT_EQ(pretest::kktBreach(p.model, *round.outer, 1e-9), "");
    EXPECT_EQ(p.model.status, IPM_STATUS_OPTIMAL);
    EXPECT_EQ(p.model.iteration, 0);
  }
  // One inequality among the rows keeps the model on the iteration's road.
  Problem g = equalityQP();
  g.sense[1] = 'G';
  {
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(g.build()), 0);
    EXPECT_EQ(round.pre->preRoute, PREROUTE_FREE_COLS);
    EXPECT_NE(g.model.status, IPM_STATUS_OPTIMAL);
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(SpecRoute, ModelLeftAllFreeAndEquationsByThePresolveIsSolvedAfterIt) {
  // The postsolve brings the point back to the caller's columns.
  Problem p = reducedToEqualityQP();
  {
    pretest::Round round(&env);
    round.option.numThreads = 1;
    ipmModel* m = p.build();
    ASSERT_EQ(round.presolve(m), 0);
    ASSERT_NE(round.current, m);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
    EXPECT_EQ(round.pre->preRoute, PREROUTE_KNOWN);
    EXPECT_EQ(round.current->iteration, 0);
    round.current->status = IPM_STATUS_OPTIMAL;  // what the pipeline sets on this route
    ASSERT_EQ(round.postsolve(), 0);
    ASSERT_EQ(round.current, m);
    EXPECT_DOUBLE_EQ(m->solPrimal[3], 1.0);
    EXPECT_EQ(pretest::kktBreach(*m, *round.outer, 1e-9), "");
  }
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(SpecRoute, OutOfMemoryOnEitherPresolveRouteLeaksNothing) {
  // The first road solves before the presolve, the second after it.
  Problem direct = equalityQP();
  Problem afterwards = reducedToEqualityQP();
  for (Problem* p : {&direct, &afterwards}) {
    hxtest::OomSweep sweep(host);
    sweep.armAtStart = false;
    const auto result = sweep.run([&](hxtest::OomProbe& probe) {
      pretest::Round round(&env);
      round.prepare();
      probe.arm();
      const int32_t status = round.presolve(p->build());
      probe.disarm();
      return status;
    });
    EXPECT_EQ(result.finalStatus, 0);
    EXPECT_GT(result.refusedRuns, 10);
    EXPECT_EQ(liveBlocks(), 0);
  }
}

}  // namespace

// The verdict and the termination ladder, on crafted states and on whole
// solves that are stopped by limits, the break call-back and the log.

#include <gtest/gtest.h>

#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

TEST(IpmStatus, VerdictOrder) {
  auto st = [](double p, double b, double d, double gap, double compl_) {
    return getSolutionStatus(1e-6, 1e-6, 1e-6, 1e-6, p, b, d, gap, compl_);
  };
  EXPECT_EQ(st(1e-6, 1e-6, 1e-6, 1e-6, 1e-6), IPM_STATUS_OPTIMAL);  // all bounds inclusive
  EXPECT_EQ(st(0, 0, 0, 1e-7, 1.0), IPM_STATUS_ACCEPTABLE);       // gap alone
  EXPECT_EQ(st(0, 0, 0, 1.0, 1e-7), IPM_STATUS_ACCEPTABLE);       // complementarity alone
  EXPECT_EQ(st(0, 0, 0, 9e-5, 9e-5), IPM_STATUS_ACCEPTABLE);      // both below 100 tol
  EXPECT_EQ(st(0, 0, 0, 9e-5, 2e-4), IPM_STATUS_FAILED);          // feasible, gap open
  EXPECT_EQ(st(0, 0, 0, 1e-6, 2e-4), IPM_STATUS_FAILED);          // the strict tests of 15
  EXPECT_EQ(st(2e-6, 0, 0, 0, 0), IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(st(0, 2e-6, 0, 0, 0), IPM_STATUS_PRIMAL_INFEASIBLE);  // bound side is primal
  EXPECT_EQ(st(0, 2e-6, 2e-6, 0, 0), IPM_STATUS_BOTH_INFEASIBLE);
  EXPECT_EQ(st(0, 0, 2e-6, 0, 0), IPM_STATUS_DUAL_INFEASIBLE);
}

// A running state in which nothing of the ladder fires.
Ipm runningState() {
  Ipm ipm{};
  ipm.primalTol = ipm.dualTol = ipm.gapTol = ipm.complTol = 1e-6;
  ipm.muLimit = 1e-20;
  ipm.divisorLimit = 1e-50;
  ipm.divisor = 1.0;
  ipm.maxIteration = 100;
  ipm.iteration = 5;
  ipm.control = IPM_CONTROL_FIRST_LEG;
  ipm.muFirst = 1.0;
  ipm.muPrev = 1.0;
  ipm.mu = 0.5;
  ipm.gapPrev = 1.0;
  ipm.dualityGap = 0.5;
  ipm.primalPrev = ipm.boundPrev = ipm.dualPrev = 1.0;
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 0.5;
  ipm.complRatio = 0.5;
  return ipm;
}

// Puts a state into the stall region of D: mu small and no longer falling,
// gap small, no residual moving.
void stallState(Ipm* ipm, double infeas) {
  ipm->mu = ipm->muPrev = 1e-5;
  ipm->dualityGap = 0.01;
  ipm->gapPrev = 0.001;  // gap rising: also a bad iteration
  ipm->primalInfeas = ipm->boundInfeas = ipm->dualInfeas = infeas;
  ipm->primalPrev = ipm->boundPrev = ipm->dualPrev = infeas;
}

int32_t gBreakCalls = 0;
int32_t breakAlways(void*) {
  gBreakCalls++;
  return 1;
}

TEST(IpmLadder, OrdinaryPassGoesOnAndOptimalStopsOrAsksForConfirmation) {
  Ipm ipm = runningState();
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_FIRST_LEG);
  EXPECT_EQ(ipm.status, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.numBadIter, 0);
  ipm = runningState();
  ipmJudge(&ipm, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ipm.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  ipm = runningState();
  ipm.smallObjScale = 1;
  ipmJudge(&ipm, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ipm.control, IPM_CONTROL_RESET_GO_ON);
}

TEST(IpmLadder, SeparatedPairsOfAFeasiblePointAskForAReset) {
  Ipm ipm = runningState();
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 1e-7;
  ipm.complRatio = 0.001;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_RESET_GO_ON);
  EXPECT_EQ(ipm.status, IPM_STATUS_FAILED);
  // Infeasible points never take that branch, whatever the ratio.
  ipm = runningState();
  ipm.complRatio = 0.0;
  ipmJudge(&ipm, IPM_STATUS_BOTH_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_FIRST_LEG);
}

TEST(IpmLadder, DivergenceMeasuresAgainstTheFirstMuOrOne) {
  Ipm ipm = runningState();
  ipm.muFirst = 0.01;  // the floor of 1.0 applies
  ipm.mu = 999.0;
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_FIRST_LEG);
  ipm.mu = 1001.0;
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  EXPECT_EQ(ipm.status, IPM_STATUS_PRIMAL_INFEASIBLE);
  ipm = runningState();
  ipm.muFirst = 10.0;
  ipm.mu = 9000.0;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_FIRST_LEG);
}

TEST(IpmLadder, StallCountsThreePassesAndPicksItsStop) {
  // Residuals far above tolerance: stop with the verdict.
  Ipm ipm = runningState();
  stallState(&ipm, 1e-3);
  for (int pass = 1; pass <= 2; pass++) {
    ipmJudge(&ipm, IPM_STATUS_BOTH_INFEASIBLE);
    EXPECT_EQ(ipm.numStall, pass);
    EXPECT_NE(ipm.control, IPM_CONTROL_STOP);
  }
  ipmJudge(&ipm, IPM_STATUS_BOTH_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  EXPECT_EQ(ipm.status, IPM_STATUS_BOTH_INFEASIBLE);

  // Nearly feasible with an undecided pair: acceptable.
  ipm = runningState();
  stallState(&ipm, 1e-5);
  ipm.numStall = 2;
  ipm.complRatio = 0.1;
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.status, IPM_STATUS_ACCEPTABLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);

  // Nearly feasible with the pairs apart: a reset that stops after.
  ipm = runningState();
  stallState(&ipm, 1e-5);
  ipm.numStall = 2;
  ipm.complRatio = 0.05;
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.status, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_RESET_STOP);
}

TEST(IpmLadder, StallCountIsKeptWhenAResidualMovesAndClearedWhenMuFalls) {
  Ipm ipm = runningState();
  stallState(&ipm, 1e-3);
  ipm.numStall = 2;
  ipm.primalInfeas = 0.5e-3;  // progress in one residual
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.numStall, 2);
  EXPECT_NE(ipm.control, IPM_CONTROL_STOP);
  // A residual already within tolerance counts as no progress.
  stallState(&ipm, 1e-3);
  ipm.primalPrev = 1e-7;
  ipm.primalInfeas = 1e-8;
  ipmJudge(&ipm, IPM_STATUS_DUAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  ipm = runningState();
  ipm.numStall = 2;
  ipm.mu = 0.98;  // mu fell by more than 1 percent
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.numStall, 0);
}

TEST(IpmLadder, FiftyBadIterationsStop) {
  Ipm ipm = runningState();
  ipm.mu = 2.0;  // mu rose: not good ...
  ipm.primalInfeas = 0.995;  // ... and the residuals did not all fall by 1 percent
  for (int pass = 1; pass <= 50; pass++) {
    ipm.control = IPM_CONTROL_RUN;
    ipmJudge(&ipm, IPM_STATUS_FAILED);
    EXPECT_EQ(ipm.numBadIter, pass);
    EXPECT_EQ(ipm.control, pass <= 49 ? IPM_CONTROL_RUN : IPM_CONTROL_STOP);
  }
  // All residuals falling by 1 percent makes a good pass even if mu rose.
  ipm = runningState();
  ipm.mu = 2.0;
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 0.99;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.numBadIter, 0);
}

TEST(IpmLadder, FloorsStopWithoutChangingTheVerdict) {
  Ipm ipm = runningState();
  ipm.mu = 1e-21;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  EXPECT_EQ(ipm.status, IPM_STATUS_FAILED);
  ipm = runningState();
  ipm.divisor = 1e-51;
  ipmJudge(&ipm, IPM_STATUS_DUAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  EXPECT_EQ(ipm.status, IPM_STATUS_DUAL_INFEASIBLE);
}

TEST(IpmLadder, BreakIsAskedOnlyOnPassesThatReachIt) {
  gBreakCalls = 0;
  Ipm ipm = runningState();
  ipm.checkSolverBreak = breakAlways;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(gBreakCalls, 1);
  EXPECT_EQ(ipm.status, IPM_STATUS_INTERRUPTED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  // An optimal pass stops before the question.
  ipm = runningState();
  ipm.checkSolverBreak = breakAlways;
  ipmJudge(&ipm, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(gBreakCalls, 1);
  EXPECT_EQ(ipm.status, IPM_STATUS_OPTIMAL);
  // The break outranks the iteration limit.
  ipm = runningState();
  ipm.checkSolverBreak = breakAlways;
  ipm.iteration = ipm.maxIteration;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.status, IPM_STATUS_INTERRUPTED);
}

TEST(IpmLadder, LimitsAndTheHardCap) {
  Ipm ipm = runningState();
  ipm.maxIteration = 0;
  ipm.iteration = 0;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);

  ipm = runningState();
  ipm.maxIteration = 5000;
  ipm.iteration = 999;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_FIRST_LEG);
  ipm.iteration = 1000;
  ipmJudge(&ipm, IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.status, IPM_STATUS_FAILED);  // a failure, not a limit
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);

  // At 1000 with maxIteration 1000 the limit comes first.
  ipm = runningState();
  ipm.maxIteration = ipm.iteration = 1000;
  ipmJudge(&ipm, IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.status, IPM_STATUS_ITERATION_LIMIT);
}

TEST(IpmLadder, FailedResetsDecideByThePointInForce) {
  // Feasible with the gap closed: optimal, and the asking pass is not counted.
  Ipm ipm = runningState();
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 0.0;
  ipm.dualityGap = 1e-7;
  ipm.control = IPM_CONTROL_RESET_GO_ON;
  EXPECT_EQ(ipmResetRoute(&ipm), IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ipm.iteration, 4);
  EXPECT_EQ(ipm.numReset, 1);
  // Feasible with complementarity closed: acceptable.
  ipm = runningState();
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 0.0;
  ipm.complementarity = 1e-7;
  ipm.control = IPM_CONTROL_RESET_STOP;
  EXPECT_EQ(ipmResetRoute(&ipm), IPM_STATUS_ACCEPTABLE);
  // Otherwise a reset-then-stop request stops with the verdict it had.
  ipm = runningState();
  ipm.status = IPM_STATUS_PRIMAL_INFEASIBLE;
  ipm.control = IPM_CONTROL_RESET_STOP;
  EXPECT_EQ(ipmResetRoute(&ipm), IPM_STATUS_PRIMAL_INFEASIBLE);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  // ... and a reset-then-continue request goes on four times, not five.
  ipm = runningState();
  ipm.status = IPM_STATUS_FAILED;
  for (int k = 1; k <= 4; k++) {
    ipm.control = IPM_CONTROL_RESET_GO_ON;
    EXPECT_EQ(ipmResetRoute(&ipm), -1) << k;
    EXPECT_EQ(ipm.control, IPM_CONTROL_RUN);
    EXPECT_EQ(ipm.iteration, 5);  // the step is still to come
  }
  ipm.control = IPM_CONTROL_RESET_GO_ON;
  EXPECT_EQ(ipmResetRoute(&ipm), IPM_STATUS_FAILED);
  EXPECT_EQ(ipm.control, IPM_CONTROL_STOP);
  EXPECT_EQ(ipm.numReset, 5);
  EXPECT_EQ(ipm.iteration, 4);
}

// ---- whole solves ----------------------------------------------------------------

std::vector<ipmtest::LoggedMessage>& gMessages = ipmtest::loggedMessages();

class IpmLoop : public HostTest {
 protected:
  IpmLoop() {
    gMessages.clear();
    log.log = ipmtest::logMessage;
    env.messageLog = &log;
  }
  // min -x1 - x2, x1 + 2x2 <= 4, 3x1 + x2 <= 6, x >= 0.
  static Problem lp() {
    return Problem({{1, 2}, {3, 1}}, "LL", {4, 6}, {-1, -1}, {0, 0}, {kInf, kInf});
  }
  int lines() const {
    int n = 0;
    for (const ipmtest::LoggedMessage& c : gMessages) n += c.code == IPM_MSG_TABLE_LINE;
    return n;
  }
  MessageLog log{};
};

TEST_F(IpmLoop, MaxIterationZeroStopsAtTheFirstPass) {
  Problem p = lp();
  p.option.maxIteration = 0;
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(p.model.status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(p.model.iteration, 0);
  // Heading, rule, and the one line of the stopping pass.
  ASSERT_EQ(gMessages.size(), 3u);
  EXPECT_EQ(gMessages[0].severity, MSG_TABLE_HEADING);
  EXPECT_EQ(gMessages[0].code, (int64_t)(int32_t)0x827FD802);
  EXPECT_EQ(gMessages[1].code, (int64_t)(int32_t)0x827FD803);
  EXPECT_EQ(gMessages[2].severity, MSG_TABLE_LINE);
  EXPECT_EQ(gMessages[2].iteration, 0);
  // complementarity, gap, primal, bound, dual: as the model reports them.
  EXPECT_EQ(gMessages[2].values[0], p.model.complementarity);
  EXPECT_EQ(gMessages[2].values[1], p.model.dualityGap);
  EXPECT_EQ(gMessages[2].values[2], p.model.primalInfeas);
  EXPECT_EQ(gMessages[2].values[3], p.model.boundInfeas);
  EXPECT_EQ(gMessages[2].values[4], p.model.dualInfeas);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmLoop, IterationLimitAndPrintFrequency) {
  Problem p = lp();
  p.option.maxIteration = 3;
  p.option.printFreq = 2;
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(p.model.iteration, 3);
  // Passes 0 and 2 by frequency, 3 as the stopping one.
  ASSERT_EQ(lines(), 3);
  EXPECT_EQ(gMessages.back().iteration, 3);

  Problem q = lp();
  q.option.printLevel = 1;  // status messages only: no table
  gMessages.clear();
  r = runSolve(&env, q);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_TRUE(gMessages.empty());
}

int32_t gBreakAfter = 0;
int32_t breakAfter(void*) { return --gBreakAfter < 0 ? 1 : 0; }

TEST_F(IpmLoop, BreakCallBackInterrupts) {
  Problem p = lp();
  gBreakAfter = 2;
  p.model.checkSolverBreak = breakAfter;
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_INTERRUPTED);
  EXPECT_EQ(p.model.iteration, 2);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmLoop, TimeLimit) {
  int32_t status = 0;
  IPM_timer* timer = IPM_timerCreate(nullptr, pool, &status);
  ASSERT_NE(timer, nullptr);
  IPM_timerSetLimit(timer, 0.0);
  IPM_timerStart(timer);
  Problem p = lp();
  RunResult r = runSolve(&env, p, timer);
  EXPECT_EQ(r.status, IPM_STATUS_TIME_LIMIT);
  EXPECT_EQ(p.model.iteration, 0);
  IPM_timerFree(pool, &timer);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmLoop, OptimumUnderAShrunkObjectiveGoesThroughTheResetRoute) {
  // The optimum is not believed until the active-set finish has confirmed
  // it; the confirmed point is the one a plain run ends on, after as many
  // passes.
  Problem plain = lp();
  runSolve(&env, plain);
  Problem p = lp();
  p.storage.objScale = 1e-6;
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_OPTIMAL);
  EXPECT_EQ(p.model.iteration, plain.model.iteration);
  EXPECT_NEAR(p.x[0], 1.6, 1e-6);
}

TEST_F(IpmLoop, UnknownModelTypeFailsWithoutTouchingTheStatistics) {
  Problem p = lp();
  p.model.typeModel = 7;
  p.model.iteration = 42;
  RunResult r = runSolve(&env, p);
  EXPECT_EQ(r.status, IPM_STATUS_FAILED);
  EXPECT_EQ(p.model.status, IPM_STATUS_FAILED);
  EXPECT_EQ(p.model.iteration, 42);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace

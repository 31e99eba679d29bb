// The verdict and the termination ladder, on crafted states and on whole
// solves that are stopped by limits, the break call-back and the log.

#include <gtest/gtest.h>

#include <functional>

#include "support/ipm_support.h"

using namespace ipmtest;

namespace {

TEST(IpmStatus, VerdictOrder) {
  const struct {
    double p, b, d, gap, compl_;
    int32_t status;
  } cases[] = {
      {1e-6, 1e-6, 1e-6, 1e-6, 1e-6, IPM_STATUS_OPTIMAL},  // all bounds inclusive
      {0, 0, 0, 1e-7, 1.0, IPM_STATUS_ACCEPTABLE},         // gap alone
      {0, 0, 0, 1.0, 1e-7, IPM_STATUS_ACCEPTABLE},         // complementarity alone
      {0, 0, 0, 9e-5, 9e-5, IPM_STATUS_ACCEPTABLE},        // both below 100 tol
      {0, 0, 0, 9e-5, 2e-4, IPM_STATUS_FAILED},            // feasible, gap open
      {0, 0, 0, 1e-6, 2e-4, IPM_STATUS_FAILED},            // the strict tests of 15
      {2e-6, 0, 0, 0, 0, IPM_STATUS_PRIMAL_INFEASIBLE},
      {0, 2e-6, 0, 0, 0, IPM_STATUS_PRIMAL_INFEASIBLE},  // bound side is primal
      {0, 2e-6, 2e-6, 0, 0, IPM_STATUS_BOTH_INFEASIBLE},
      {0, 0, 2e-6, 0, 0, IPM_STATUS_DUAL_INFEASIBLE},
  };
  for (const auto& c : cases)
    EXPECT_EQ(getSolutionStatus(1e-6, 1e-6, 1e-6, 1e-6, c.p, c.b, c.d, c.gap, c.compl_), c.status)
        << c.p << " " << c.b << " " << c.d << " " << c.gap << " " << c.compl_;
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
  ipm.muFirst = ipm.muPrev = ipm.gapPrev = 1.0;
  ipm.mu = ipm.dualityGap = 0.5;
  ipm.primalPrev = ipm.boundPrev = ipm.dualPrev = 1.0;
  ipm.primalInfeas = ipm.boundInfeas = ipm.dualInfeas = 0.5;
  ipm.complRatio = 0.5;
  return ipm;
}

void feasible(Ipm* ipm, double infeas) {
  ipm->primalInfeas = ipm->boundInfeas = ipm->dualInfeas = infeas;
}

// The stall region after two stalled passes: mu small and no longer
// falling, the gap small and rising, no residual moving.
void stall(Ipm* ipm, double infeas) {
  ipm->mu = ipm->muPrev = 1e-5;
  ipm->dualityGap = 0.01;
  ipm->gapPrev = 0.001;
  feasible(ipm, infeas);
  ipm->primalPrev = ipm->boundPrev = ipm->dualPrev = infeas;
  ipm->numStall = 2;
}

int32_t breakAlways(void*) { return 1; }

// One judged pass from a prepared state: the control and status it must
// leave, and counters where they matter (-1: not checked).
struct Pass {
  const char* name;
  std::function<void(Ipm*)> prepare;
  int32_t verdict;
  int32_t control, status;
  int32_t numStall = -1, numBadIter = -1;
};

TEST(IpmLadder, EachRungOnItsOwn) {
  const Pass passes[] = {
      {"ordinary pass goes on", [](Ipm*) {}, IPM_STATUS_FAILED, IPM_CONTROL_FIRST_LEG,
       IPM_STATUS_FAILED, 0, 0},
      {"optimal stops", [](Ipm*) {}, IPM_STATUS_OPTIMAL, IPM_CONTROL_STOP, IPM_STATUS_OPTIMAL},
      {"optimal under a shrunk objective asks for confirmation",
       [](Ipm* s) { s->smallObjScale = 1; }, IPM_STATUS_OPTIMAL, IPM_CONTROL_RESET_GO_ON,
       IPM_STATUS_OPTIMAL},
      {"separated pairs of a feasible point ask for a reset",
       [](Ipm* s) { feasible(s, 1e-7); s->complRatio = 0.001; }, IPM_STATUS_FAILED,
       IPM_CONTROL_RESET_GO_ON, IPM_STATUS_FAILED},
      {"infeasible points never reset for their ratio", [](Ipm* s) { s->complRatio = 0.0; },
       IPM_STATUS_BOTH_INFEASIBLE, IPM_CONTROL_FIRST_LEG, IPM_STATUS_BOTH_INFEASIBLE},
      {"divergence is measured against at least 1: just below",
       [](Ipm* s) { s->muFirst = 0.01; s->mu = 999.0; },
       IPM_STATUS_PRIMAL_INFEASIBLE, IPM_CONTROL_FIRST_LEG, IPM_STATUS_PRIMAL_INFEASIBLE},
      {"divergence: just above", [](Ipm* s) { s->muFirst = 0.01; s->mu = 1001.0; },
       IPM_STATUS_PRIMAL_INFEASIBLE, IPM_CONTROL_STOP, IPM_STATUS_PRIMAL_INFEASIBLE},
      {"divergence against a first mu above 1", [](Ipm* s) { s->muFirst = 10.0; s->mu = 9000.0; },
       IPM_STATUS_FAILED, IPM_CONTROL_FIRST_LEG, IPM_STATUS_FAILED},
      {"third stalled pass far from feasible stops with the verdict",
       [](Ipm* s) { stall(s, 1e-3); }, IPM_STATUS_BOTH_INFEASIBLE, IPM_CONTROL_STOP,
       IPM_STATUS_BOTH_INFEASIBLE, 3},
      {"stall nearly feasible with an undecided pair is acceptable",
       [](Ipm* s) { stall(s, 1e-5); s->complRatio = 0.1; }, IPM_STATUS_PRIMAL_INFEASIBLE,
       IPM_CONTROL_STOP, IPM_STATUS_ACCEPTABLE},
      {"stall nearly feasible with the pairs apart resets, then stops",
       [](Ipm* s) { stall(s, 1e-5); s->complRatio = 0.05; }, IPM_STATUS_PRIMAL_INFEASIBLE,
       IPM_CONTROL_RESET_STOP, IPM_STATUS_PRIMAL_INFEASIBLE},
      {"a moving residual keeps the stall count",
       [](Ipm* s) { stall(s, 1e-3); s->primalInfeas = 0.5e-3; }, IPM_STATUS_PRIMAL_INFEASIBLE,
       IPM_CONTROL_FIRST_LEG, IPM_STATUS_PRIMAL_INFEASIBLE, 2},
      {"a residual within tolerance is no progress",
       [](Ipm* s) { stall(s, 1e-3); s->primalPrev = 1e-7; s->primalInfeas = 1e-8; },
       IPM_STATUS_DUAL_INFEASIBLE, IPM_CONTROL_STOP, IPM_STATUS_DUAL_INFEASIBLE},
      {"mu falling by more than 1 percent clears the stall count",
       [](Ipm* s) { s->numStall = 2; s->mu = 0.98; },
       IPM_STATUS_FAILED, IPM_CONTROL_FIRST_LEG, IPM_STATUS_FAILED, 0},
      {"all residuals falling by 1 percent is a good pass though mu rose",
       [](Ipm* s) { s->mu = 2.0; feasible(s, 0.99); },
       IPM_STATUS_FAILED, IPM_CONTROL_FIRST_LEG, IPM_STATUS_FAILED, -1, 0},
      {"mu floor stops, verdict kept", [](Ipm* s) { s->mu = 1e-21; }, IPM_STATUS_FAILED,
       IPM_CONTROL_STOP, IPM_STATUS_FAILED},
      {"divisor floor stops, verdict kept", [](Ipm* s) { s->divisor = 1e-51; },
       IPM_STATUS_DUAL_INFEASIBLE, IPM_CONTROL_STOP, IPM_STATUS_DUAL_INFEASIBLE},
      {"iteration limit 0 stops at the first pass",
       [](Ipm* s) { s->maxIteration = s->iteration = 0; }, IPM_STATUS_FAILED, IPM_CONTROL_STOP,
       IPM_STATUS_ITERATION_LIMIT},
      {"below the hard cap", [](Ipm* s) { s->maxIteration = 5000; s->iteration = 999; },
       IPM_STATUS_FAILED, IPM_CONTROL_FIRST_LEG, IPM_STATUS_FAILED},
      {"the hard cap is a failure, not a limit",
       [](Ipm* s) { s->maxIteration = 5000; s->iteration = 1000; },
       IPM_STATUS_PRIMAL_INFEASIBLE, IPM_CONTROL_STOP, IPM_STATUS_FAILED},
      {"at the cap with the same limit the limit comes first",
       [](Ipm* s) { s->maxIteration = s->iteration = 1000; }, IPM_STATUS_FAILED, IPM_CONTROL_STOP,
       IPM_STATUS_ITERATION_LIMIT},
      {"the break is asked and interrupts", [](Ipm* s) { s->checkSolverBreak = breakAlways; },
       IPM_STATUS_FAILED, IPM_CONTROL_STOP, IPM_STATUS_INTERRUPTED},
      {"the break outranks the iteration limit",
       [](Ipm* s) { s->checkSolverBreak = breakAlways; s->iteration = s->maxIteration; },
       IPM_STATUS_FAILED, IPM_CONTROL_STOP, IPM_STATUS_INTERRUPTED},
  };
  for (const Pass& c : passes) {
    SCOPED_TRACE(c.name);
    Ipm ipm = runningState();
    c.prepare(&ipm);
    ipmJudge(&ipm, c.verdict);
    EXPECT_EQ(ipm.control, c.control);
    EXPECT_EQ(ipm.status, c.status);
    if (c.numStall >= 0) {
      EXPECT_EQ(ipm.numStall, c.numStall);
    }
    if (c.numBadIter >= 0) {
      EXPECT_EQ(ipm.numBadIter, c.numBadIter);
    }
  }
}

TEST(IpmLadder, CountersBuildUpOverPasses) {
  // Fifty bad passes: mu rose and not every residual fell by 1 percent.
  Ipm ipm = runningState();
  ipm.mu = 2.0;
  ipm.primalInfeas = 0.995;
  for (int pass = 1; pass <= 50; pass++) {
    ipm.control = IPM_CONTROL_RUN;
    ipmJudge(&ipm, IPM_STATUS_FAILED);
    EXPECT_EQ(ipm.numBadIter, pass);
    EXPECT_EQ(ipm.control, pass <= 49 ? IPM_CONTROL_RUN : IPM_CONTROL_STOP);
  }
}

TEST(IpmLadder, FailedResetsDecideByThePointInForce) {
  // Feasible with the gap closed: optimal, and the asking pass is not counted.
  Ipm ipm = runningState();
  feasible(&ipm, 0.0);
  ipm.dualityGap = 1e-7;
  ipm.control = IPM_CONTROL_RESET_GO_ON;
  EXPECT_EQ(ipmResetRoute(&ipm), IPM_STATUS_OPTIMAL);
  EXPECT_EQ(ipm.iteration, 4);
  EXPECT_EQ(ipm.numReset, 1);
  // Feasible with complementarity closed: acceptable.
  ipm = runningState();
  feasible(&ipm, 0.0);
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
  for (int k = 1; k <= 5; k++) {
    ipm.control = IPM_CONTROL_RESET_GO_ON;
    EXPECT_EQ(ipmResetRoute(&ipm), k <= 4 ? -1 : IPM_STATUS_FAILED) << k;
    EXPECT_EQ(ipm.control, k <= 4 ? IPM_CONTROL_RUN : IPM_CONTROL_STOP) << k;
    EXPECT_EQ(ipm.iteration, k <= 4 ? 5 : 4) << k;  // the step is still to come
  }
  EXPECT_EQ(ipm.numReset, 5);
}

// ---- whole solves ----------------------------------------------------------------

std::vector<LoggedMessage>& gMessages = loggedMessages();

class IpmLoop : public HostTest {
 protected:
  IpmLoop() {
    gMessages.clear();
    log.log = logMessage;
    env.messageLog = &log;
  }
  int lines() const {
    int n = 0;
    for (const LoggedMessage& c : gMessages) n += c.code == IPM_MSG_TABLE_LINE;
    return n;
  }
  MessageLog log{};
};

int32_t gBreakAfter = 0;
int32_t breakAfter(void*) { return --gBreakAfter < 0 ? 1 : 0; }

TEST_F(IpmLoop, LimitsBreakAndTheTable) {
  // Iteration limit 0: heading, rule, and the line of the stopping pass with
  // the measures the model reports.
  Problem p = textbookLP();
  p.option.maxIteration = 0;
  EXPECT_EQ(runSolve(&env, p).status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(p.model.status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(p.model.iteration, 0);
  ASSERT_EQ(gMessages.size(), 3u);
  EXPECT_EQ(gMessages[0].code, (int64_t)(int32_t)0x827FD802);
  EXPECT_EQ(gMessages[1].code, (int64_t)(int32_t)0x827FD803);
  EXPECT_EQ(gMessages[2].severity, MSG_TABLE_LINE);
  EXPECT_EQ(gMessages[2].iteration, 0);
  const double reported[5] = {p.model.complementarity, p.model.dualityGap, p.model.primalInfeas,
                              p.model.boundInfeas, p.model.dualInfeas};
  for (int k = 0; k < 5; k++) EXPECT_EQ(gMessages[2].values[k], reported[k]) << k;

  // Passes 0 and 2 by frequency, 3 as the stopping one.
  gMessages.clear();
  Problem q = textbookLP();
  q.option.maxIteration = 3;
  q.option.printFreq = 2;
  EXPECT_EQ(runSolve(&env, q).status, IPM_STATUS_ITERATION_LIMIT);
  EXPECT_EQ(q.model.iteration, 3);
  EXPECT_EQ(lines(), 3);
  EXPECT_EQ(gMessages.back().iteration, 3);

  Problem stopped = textbookLP();
  gBreakAfter = 2;
  stopped.model.checkSolverBreak = breakAfter;
  EXPECT_EQ(runSolve(&env, stopped).status, IPM_STATUS_INTERRUPTED);
  EXPECT_EQ(stopped.model.iteration, 2);

  int32_t status = 0;
  IPM_timer* timer = IPM_timerCreate(nullptr, pool, &status);
  ASSERT_NE(timer, nullptr);
  IPM_timerSetLimit(timer, 0.0);
  IPM_timerStart(timer);
  Problem timed = textbookLP();
  EXPECT_EQ(runSolve(&env, timed, timer).status, IPM_STATUS_TIME_LIMIT);
  EXPECT_EQ(timed.model.iteration, 0);
  IPM_timerFree(pool, &timer);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace

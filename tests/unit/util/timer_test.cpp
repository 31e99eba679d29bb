// The solver's timer on the CPU and the real-time clock, and its record
// refused or its clock module missing.
#include <cfloat>
#include <ctime>

#include "util/timer.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

using Timer = HostTest;

// Burns CPU until the process clock has moved by at least `seconds`.
void spin(double seconds) {
  std::clock_t start = std::clock();
  volatile double sink = 0.0;
  while (double(std::clock() - start) / CLOCKS_PER_SEC < seconds) sink = sink + 1.0;
}

TEST_F(Timer, LimitsOnEitherClockAreReached) {
  int32_t status = -1;
  IPM_timer* t = IPM_timerCreate(&env, pool, &status);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(status, 0);
  int32_t reached = -1;
  double used = 0, left = 0, real = 0, cpuLimit = 0;
  // On the real-time clock the CPU side is left alone.
  t->useRealTime = 1;
  IPM_timerSetLimit(t, 3600.0);
  IPM_timerStart(t);
  spin(0.02);
  IPM_timerUsedTime(t, &real);
  EXPECT_GT(real, 0.0);
  EXPECT_LT(real, 60.0);
  IPM_timerLeftTime(t, &left);
  EXPECT_GT(left, 3500.0);
  EXPECT_GE(IPM_timerRealInterval(t), real);
  IPM_timerGetCpuLimit(t, &cpuLimit);
  EXPECT_EQ(cpuLimit, DBL_MAX);
  t->useRealTime = 0;
  IPM_timerSetLimit(t, 0.05);
  IPM_timerStart(t);
  spin(0.08);
  IPM_timerUsedTime(t, &used);
  EXPECT_GE(used, 0.05);
  EXPECT_LT(used, 5.0);
  IPM_timerLeftTime(t, &left);
  EXPECT_LT(left, 0.0);  // past the limit the time left goes negative
  IPM_timerReachLimit(t, &reached);
  EXPECT_EQ(reached, 1);
  EXPECT_GE(IPM_timerInterval(t), used);
  EXPECT_EQ(IPM_timerFree(pool, &t), 0);
  EXPECT_EQ(t, nullptr);
  EXPECT_EQ(IPM_timerFree(pool, &t), 0);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Timer, RefusedRecordOrMissingChronisReportOutOfMemory) {
  const auto sweep = hxtest::oomSweep(host, [&](hxtest::OomProbe&) {
    int32_t status = -1;
    IPM_timer* t = IPM_timerCreate(&env, pool, &status);
    EXPECT_EQ(t == nullptr, status != 0);
    IPM_timerFree(pool, &t);
    return status;
  });
  EXPECT_EQ(sweep.finalStatus, 0);
  EXPECT_GE(sweep.refusedRuns, 1);
  int32_t status = 0;
  host.registerModule("chronis", [](QVKernel*) -> QVModule* { return nullptr; });
  EXPECT_EQ(IPM_timerCreate(&env, pool, &status), nullptr);
  EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace

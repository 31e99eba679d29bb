// The solver's timer with its record refused or its clock module missing.
// Its limits on either clock are met by the whole solves of the LP entry and
// of the iteration.
#include "util/timer.h"
#include "support/oom.h"
#include "support/support.h"

namespace {

using Timer = HostTest;

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

// The solver's timer without its clock module.  Its limits on either clock,
// and its record refused, are met by the whole solves of the LP entry and of
// the iteration.
#include "util/timer.h"
#include "support/support.h"

namespace {

using Timer = HostTest;

TEST_F(Timer, MissingChronisReportsOutOfMemory) {
  int32_t status = 0;
  host.registerModule("chronis", [](QVKernel*) -> QVModule* { return nullptr; });
  EXPECT_EQ(IPM_timerCreate(&env, pool, &status), nullptr);
  EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY);
  EXPECT_EQ(liveBlocks(), 0);
}

}  // namespace

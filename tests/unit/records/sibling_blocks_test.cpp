// Blocks that a sibling hands the solver stay the sibling's: whatever route
// the solve takes, it never frees them through its own pool.
#include <vector>

#include "records/pipeline.h"
#include "support/ipm_support.h"

namespace {

using ipmtest::Problem;

class SiblingBlocks : public HostTest {};

// An LP whose bounds the module's own presolve would relax, solved with
// presolve level 0 while relaxation flags from a sibling sit on the model:
// the solve refuses the flags and leaves the sibling's block alone.
TEST_F(SiblingBlocks, RelaxationFlagsOfASiblingAreNeverFreedByTheSolve) {
  Problem p({{1, 1}, {1, -1}}, "LE", {4, 1}, {-1, -2}, {0, 0}, {10, 10});
  p.link();
  QVPool* sibling = host.createPool("sibling");
  uint8_t* flags = static_cast<uint8_t*>(sibling->poolAlloc(sibling, 2, POOL_ZERO));
  ASSERT_NE(flags, nullptr);
  p.model.relaxColBound = flags;
  p.option.presolver = 0;
  p.option.printLevel = 0;
  const int64_t misuseBefore = host.poolMisuse();
  EXPECT_EQ(iplpSolve(&env, &p.model, &p.option, nullptr, nullptr), IPM_STATUS_FAILED);
  EXPECT_EQ(host.poolMisuse(), misuseBefore);
  EXPECT_EQ(host.poolStats(sibling).liveBlocks, 1);
  EXPECT_EQ(liveBlocks(), 0);
  sibling->poolFree(sibling, flags);
  sibling->poolDestroy(sibling);
}

}  // namespace

// Every allocation of a presolve and of a postsolve refused in turn: the
// result is -1086 and nothing is left behind in the pool.
#include "support/oom.h"
#include "support/presolve_support.h"

namespace {

using pretest::lp;
using pretest::Problem;
using pretest::Round;

class PresolveMemory : public HostTest {};

// The second case only moves bounds, so that the caller's model serves.
TEST_F(PresolveMemory, EveryRefusalIsOutOfMemoryAndLeavesNothing) {
  const Problem cases[] = {
      lp({{1, 1, 1, 0}, {1, -1, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 2}}, "LGLER",
         {6, -2, 3, 1, 2}, {-1, -2, 1, -1}, {0, 0, 0, -5}, {10, 10, 10, 5}, {0, 0, 0, 0, 6}),
      lp({{1, 1}, {-1, 1}}, "LL", {10, 5}, {-1, 0}, {0, 0}, {20, 20})};
  hxtest::OomSweep sweep(host);
  sweep.armAtStart = false;  // the records the pipeline made before are not the presolve's
  for (Problem p : cases) {
    const auto pre = sweep.run([&](hxtest::OomProbe& probe) {
      ipmModel* m = p.build();
      Round round(&env);
      round.prepare();
      probe.arm();
      const int32_t status = round.presolve(m);
      probe.disarm();
      EXPECT_TRUE(status == 0 || (round.current == m && round.pre->inModel == nullptr));
      return status;
    });
    EXPECT_EQ(pre.finalStatus, 0);
    EXPECT_GT(pre.refusedRuns, 5);
    const auto post = sweep.run([&](hxtest::OomProbe& probe) {
      ipmModel* m = p.build();
      Round round(&env);
      EXPECT_EQ(round.presolve(m), 0);
      EXPECT_TRUE(round.solveReduced());
      probe.arm();
      const int32_t status = round.postsolve();
      probe.disarm();
      EXPECT_EQ(status != 0 ? "" : pretest::kktBreach(*m, *round.outer), "");
      return status;
    });
    EXPECT_EQ(post.finalStatus, 0);
    EXPECT_EQ(liveBlocks(), 0);
  }
}

}  // namespace

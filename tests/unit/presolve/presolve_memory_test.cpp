// Every allocation of a presolve and of a postsolve refused in turn: the
// result is -1086 and nothing is left behind in the pool.
#include "support/oom.h"
#include "support/presolve_support.h"

namespace {

using pretest::lp;
using pretest::Problem;
using pretest::Round;

class PresolveMemory : public HostTest {};

TEST_F(PresolveMemory, EveryRefusalIsOutOfMemoryAndLeavesNothing) {
  const struct {
    Problem p;
    int32_t control;
  } cases[] = {
      {lp({{1, 1, 1, 0}, {1, -1, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 2}}, "LGLER",
          {6, -2, 3, 1, 2}, {-1, -2, 1, -1}, {0, 0, 0, -5}, {10, 10, 10, 5}, {0, 0, 0, 0, 6}),
       PRECONTROL_REDUCED},
      {pretest::qp(lp({{1, 1, 0, 0}, {0, 0, 1, 1}}, "LE", {4, 2}, {-4, 0, 0, -2}, {0, 2, 0, 0},
                      {10, 2, 10, 10}),
                   {1, 1, 1, 1}, {{0, 1, 0.5}, {2, 3, 0.5}}),
       PRECONTROL_REDUCED},
      {lp({{1, 1}, {-1, 1}}, "LL", {10, 5}, {-1, 0}, {0, 0}, {20, 20}), PRECONTROL_BOUND},
  };
  hxtest::OomSweep sweep(host);
  sweep.armAtStart = false;  // the records the pipeline made before are not the presolve's
  for (const auto& c : cases) {
    Problem p = c.p;
    hxtest::OomSweep::Result pre = sweep.run([&](hxtest::OomProbe& probe) {
      ipmModel* m = p.build();
      Round round(&env);
      round.prepare();
      probe.arm();
      const int32_t status = round.presolve(m);
      probe.disarm();
      if (status == 0) {
        EXPECT_EQ(round.pre->preControl, c.control);
      } else {
        EXPECT_EQ(round.current, m);
        EXPECT_EQ(round.pre->inModel, nullptr);
      }
      return status;
    });
    EXPECT_EQ(pre.finalStatus, 0);
    EXPECT_GT(pre.refusedRuns, 5);
    hxtest::OomSweep::Result post = sweep.run([&](hxtest::OomProbe& probe) {
      ipmModel* m = p.build();
      Round round(&env);
      EXPECT_EQ(round.presolve(m), 0);
      EXPECT_TRUE(round.solveReduced());
      probe.arm();
      const int32_t status = round.postsolve();
      probe.disarm();
      if (status == 0) {
        EXPECT_EQ(pretest::kktBreach(*m, *round.outer), "");
      }
      return status;
    });
    EXPECT_EQ(post.finalStatus, 0);
    EXPECT_EQ(liveBlocks(), 0);
  }
}

}  // namespace

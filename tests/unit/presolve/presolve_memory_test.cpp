// Every allocation of a presolve and of a postsolve refused in turn: the
// result is -1086 and nothing is left behind in the pool.
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
  for (const auto& c : cases) {
    Problem p = c.p;
    // Refuses allocation k of the presolve for k = 0, 1, ... until the
    // presolve gets through; then does the same to the postsolve.
    int presolveAllocations = -1;
    for (int k = 0; k < 200 && presolveAllocations < 0; k++) {
      ipmModel* m = p.build();
      Round round(&env);
      round.prepare();
      host.failAllocation(k);
      const int32_t status = round.presolve(m);
      host.clearFailures();
      if (status == 0) {
        presolveAllocations = k;
        EXPECT_EQ(round.pre->preControl, c.control);
      } else {
        EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY) << "allocation " << k;
        EXPECT_EQ(round.current, m) << "allocation " << k;
        EXPECT_EQ(round.pre->inModel, nullptr) << "allocation " << k;
      }
      round.release();
      ASSERT_EQ(liveBlocks(), 0) << "allocation " << k;
    }
    ASSERT_GT(presolveAllocations, 5);
    bool postsolveDone = false;
    for (int k = 0; k < 50 && !postsolveDone; k++) {
      ipmModel* m = p.build();
      Round round(&env);
      ASSERT_EQ(round.presolve(m), 0);
      ASSERT_TRUE(round.solveReduced());
      host.failAllocation(k);
      const int32_t status = round.postsolve();
      host.clearFailures();
      postsolveDone = status == 0;
      if (postsolveDone)
        EXPECT_EQ(pretest::kktBreach(*m, *round.outer), "");
      else
        EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY) << "allocation " << k;
      round.release();
      ASSERT_EQ(liveBlocks(), 0) << "allocation " << k;
    }
    EXPECT_TRUE(postsolveDone);
  }
}

}  // namespace

// Every allocation of a presolve and of a postsolve refused in turn: the
// result is -1086 and nothing is left behind in the pool.
#include "unit/presolve_support.h"

namespace {

using pretest::kFree;
using pretest::Problem;
using pretest::Round;

class PresolveMemory : public HostTest {
 protected:
  // Refuses allocation k of the presolve for k = 0, 1, ... until the
  // presolve gets through; then does the same to the postsolve.
  void refuseEachAllocation(Problem& p, int32_t expectedControl) {
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
        EXPECT_EQ(round.pre->preControl, expectedControl);
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
      if (status == 0) {
        postsolveDone = true;
        EXPECT_EQ(pretest::kktBreach(*m, *round.outer), "");
      } else {
        EXPECT_EQ(status, IPM_STATUS_OUT_OF_MEMORY) << "allocation " << k;
      }
      round.release();
      ASSERT_EQ(liveBlocks(), 0) << "allocation " << k;
    }
    EXPECT_TRUE(postsolveDone);
  }
};

TEST_F(PresolveMemory, ReducedLinearModel) {
  Problem p;
  p.a = {{1, 1, 1, 0}, {1, -1, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 2}};
  p.sense = "LGLER";
  p.rhs = {6, -2, 3, 1, 2};
  p.range = {0, 0, 0, 0, 6};
  p.obj = {-1, -2, 1, -1};
  p.lower = {0, 0, 0, -5};
  p.upper = {10, 10, 10, 5};
  refuseEachAllocation(p, PRECONTROL_REDUCED);
}

TEST_F(PresolveMemory, ReducedQuadraticModel) {
  Problem p;
  p.type = IPM_MODEL_QP;
  p.a = {{1, 1, 0, 0}, {0, 0, 1, 1}};
  p.sense = "LE";
  p.rhs = {4, 2};
  p.obj = {-4, 0, 0, -2};
  p.lower = {0, 2, 0, 0};
  p.upper = {10, 2, 10, 10};
  p.quadDiag = {1, 1, 1, 1};
  p.quad = {{0, 1, 0.5}, {2, 3, 0.5}};
  refuseEachAllocation(p, PRECONTROL_REDUCED);
}

TEST_F(PresolveMemory, BoundOnlyModel) {
  Problem p;
  p.a = {{1, 1}, {-1, 1}};
  p.sense = "LL";
  p.rhs = {10, 5};
  p.obj = {-1, 0};
  p.lower = {0, 0};
  p.upper = {20, 20};
  refuseEachAllocation(p, PRECONTROL_BOUND);
}

}  // namespace

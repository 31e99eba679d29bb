// Slacks in and out.
#include <gtest/gtest.h>

#include "support/ipm_support.h"
#include "support/oom.h"

using namespace ipmtest;

namespace {

class IpmSlack : public HostTest {};

TEST_F(IpmSlack, LessRowsTurnAroundAndRangeRowsGetAColumn) {
  Problem p({{1, 2}, {3, 0}, {0.5, 1}, {1, 1}}, "LRGL", {4, 6, 1, 2}, {1, 1}, {0, 0},
            {kInf, kInf}, {0, 2.5, 0, 0});
  const std::vector<double> a0 = p.matValue, rhs0 = p.rhs;
  ASSERT_EQ(addSlack(&env, &p.model, &p.storage), 0);
  EXPECT_EQ(p.sense, "GEGG");
  EXPECT_EQ(p.rhs, (std::vector<double>{-4, 6, 1, -2}));  // the range row keeps its upper end
  ASSERT_EQ(p.model.numCol, 3);
  ASSERT_EQ(p.model.numCoef, 8);

  ipmSolution* s = nullptr;
  ASSERT_EQ(NewSolution(&env, &s, 4, 3, p.x.data(), p.y.data()), 0);
  p.x[2] = 1.25;  // the range slack's value
  p.y[0] = 0.5;
  removeSlack(&env, &p.model, &p.storage, s);
  EXPECT_EQ(p.sense, "LRGL");
  // Negation is exact; the slack entry stays behind the cut-off size.
  EXPECT_EQ(std::vector<double>(p.matValue.begin(), p.matValue.begin() + 7),
            std::vector<double>(a0.begin(), a0.begin() + 7));
  EXPECT_EQ(p.rhs, rhs0);
  EXPECT_EQ(p.y[0], -0.5);
  EXPECT_EQ(s->ineqnSlack[1], 1.25);
  EXPECT_EQ(p.model.numCol, 2);
  EXPECT_EQ(p.model.numCoef, 7);
  FreeSolution(&env, s);
  poolFree(pool, p.storage.lcontRow);
  poolFree(pool, p.storage.rangeRow);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSlack, WrongCountsFailAndReleaseTheLists) {
  Problem q({{1, 2}, {1, 0}}, "LL", {4, 1}, {1, 1}, {0, 0}, {kInf, kInf});
  q.storage.numLcont = 1;
  EXPECT_EQ(addSlack(&env, &q.model, &q.storage), IPM_STATUS_FAILED);
  EXPECT_EQ(liveBlocks(), 0);
  const auto sweep = hxtest::oomSweep(host, [&](hxtest::OomProbe&) {
    Problem r({{1, 2}, {1, 0}}, "LR", {4, 1}, {1, 1}, {0, 0}, {kInf, kInf}, {0, 1});
    const int32_t status = addSlack(&env, &r.model, &r.storage);
    poolFree(pool, r.storage.rangeRow);
    poolFree(pool, r.storage.lcontRow);
    return status;
  });
  EXPECT_EQ(sweep.finalStatus, 0);
  EXPECT_EQ(sweep.refusedRuns, 2);  // the two row lists
}

}  // namespace

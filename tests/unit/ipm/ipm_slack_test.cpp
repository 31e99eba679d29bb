// Slacks in and out, and the dormant free-variable split.
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
  // Column 0 holds rows 0, 1, 2, 3: rows 0 and 3 flipped.
  EXPECT_EQ(std::vector<double>(p.matValue.begin(), p.matValue.begin() + 4),
            (std::vector<double>{-1, 3, 0.5, -1}));
  ASSERT_EQ(p.model.numCol, 3);
  ASSERT_EQ(p.model.numCoef, 8);
  // The range slack's column: one entry in its row, bounds [0, range].
  EXPECT_EQ(p.colBegin[2] + p.colLength[2], 8);
  EXPECT_EQ(p.rowIndex[7], 1);
  EXPECT_EQ(p.matValue[7], 1.0);
  EXPECT_EQ(p.obj[2], 0);
  EXPECT_EQ(p.lower[2], 0);
  EXPECT_EQ(p.upper[2], 2.5);
  ASSERT_NE(p.storage.lcontRow, nullptr);
  EXPECT_EQ(p.storage.lcontRow[0], 0);
  EXPECT_EQ(p.storage.lcontRow[1], 3);
  EXPECT_EQ(p.storage.rangeRow[0], 1);

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

TEST_F(IpmSlack, QuadModelsGetEmptyQuadColumnsForTheirSlacks) {
  Problem p({{1, 1}}, "R", {3}, {1, 1}, {0, 0}, {kInf, kInf}, {2});
  p.setQuad({{1, 0.5}, {0.5, 1}});
  p.qDiag[2] = 7;  // must be cleared
  ASSERT_EQ(addSlack(&env, &p.model, &p.storage), 0);
  EXPECT_EQ(p.qDiag[2], 0);
  EXPECT_EQ(p.qBegin[2], 1);
  EXPECT_EQ(p.qLength[2], 0);
  EXPECT_EQ(p.qBegin[3], 1);
  poolFree(pool, p.storage.rangeRow);
}

TEST_F(IpmSlack, NothingToDoChangesNothing) {
  Problem p({{1, 2}}, "E", {4}, {1, 1}, {0, 0}, {kInf, kInf});
  const Problem before = p;
  ASSERT_EQ(addSlack(&env, &p.model, &p.storage), 0);
  EXPECT_EQ(p.storage.rangeRow, nullptr);
  EXPECT_EQ(p.storage.lcontRow, nullptr);
  EXPECT_EQ(p.matValue, before.matValue);
  EXPECT_EQ(p.model.numCol, 2);
  p.model.numRow = 99;  // removeSlack sets the sizes back and nothing else
  removeSlack(&env, &p.model, &p.storage, nullptr);
  EXPECT_EQ(p.model.numRow, 1);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(IpmSlack, WrongCountsFailAndReleaseTheLists) {
  Problem p({{1, 2}, {1, 0}}, "LR", {4, 1}, {1, 1}, {0, 0}, {kInf, kInf}, {0, 1});
  p.storage.numRange = 2;
  EXPECT_EQ(addSlack(&env, &p.model, &p.storage), IPM_STATUS_FAILED);
  EXPECT_EQ(liveBlocks(), 0);
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

TEST_F(IpmSlack, TheSplitOnlyChecksThatNoFreeColumnIsLeft) {
  Problem p({{1, 2}}, "E", {4}, {1, 1}, {0, -1e21}, {kInf, 1e21});
  EXPECT_EQ(splitFreeVar(&env, &p.model, &p.storage), 0);  // count 0: nothing asked
  EXPECT_EQ(p.storage.freeVarPlus, nullptr);
  p.storage.numFreeVar = 1;
  EXPECT_EQ(splitFreeVar(&env, &p.model, &p.storage), IPM_STATUS_FAILED);
  EXPECT_EQ(liveBlocks(), 0);
  p.lower[1] = -kInf;  // at 1e+20 exactly, not beyond: not counted
  p.storage.numFreeVar = 1;
  EXPECT_EQ(splitFreeVar(&env, &p.model, &p.storage), 0);
  EXPECT_EQ(p.storage.numFreeVar, 0);
  poolFree(pool, p.storage.freeVarPlus);
  poolFree(pool, p.storage.freeVarMinus);
}

TEST_F(IpmSlack, FreeVariablePairsAreHeldAwayFromZero) {
  Ipm ipm{};
  int32_t plus[] = {0}, minus[] = {1};
  ipm.numFreeVar = 1;
  ipm.freeVarPlus = plus;
  ipm.freeVarMinus = minus;
  ipm.freeVarLimit = 1000.0;
  double a[] = {5000, 4000}, b[] = {3000, 2500}, c[] = {2.0, 4.0};
  updateFreeVar(&ipm, a, b);  // smallest 2500: moved down by 1500
  EXPECT_EQ(a[0] - a[1], 1000);
  EXPECT_EQ(b[1], 1000);
  double a2[] = {5000, 4000}, b2[] = {3000, 2500};
  adjustFreeVar(&ipm, a2, b2, c);
  EXPECT_EQ(b2[0], 1500);
  EXPECT_DOUBLE_EQ(c[0], 2.0 * 1500 / 3000);
  EXPECT_DOUBLE_EQ(c[1], 4.0 * 1000 / 2500);
  double a3[] = {500, 400}, b3[] = {300, 250};  // in range: untouched
  updateFreeVar(&ipm, a3, b3);
  EXPECT_EQ(a3[0], 500);

  Problem p({{1, 1}}, "E", {1}, {1, 1}, {0, 0}, {kInf, kInf});
  p.x = {7, 3};
  p.storage.numFreeVar = 1;
  p.storage.freeVarPlus = plus;
  p.storage.freeVarMinus = minus;
  uint8_t flags[2] = {0, 0};
  mergeFreeVar(&env, &p.model, &p.storage, nullptr, flags);
  EXPECT_EQ(p.x[0], 4);
  EXPECT_EQ(flags[0], 1);
  EXPECT_LT(p.lower[0], -1e300);
  EXPECT_GT(p.upper[0], 1e300);
}

}  // namespace

// The active-set finish on small models whose optima are known: a point near
// the optimum is handed in with its pairs separated (or not), and the reset
// must either land exactly on the vertex or leave the record as it was.
#include <gtest/gtest.h>

#include <string.h>

#include <memory>

#include "ipm/reset.h"
#include "support/ipm_support.h"
#include "support/oom.h"

using namespace ipmtest;

namespace {

// Everything of the record that a reset could touch, taken as bytes.
struct Snapshot {
  std::vector<unsigned char> record;
  std::vector<double> values;
  bool operator==(const Snapshot& o) const { return record == o.record && values == o.values; }
};

class IpmReset : public IpmFixture {
 protected:
  void setUp(Problem model) {
    IpmFixture::setUp(std::move(model));
    // Measures of an unfinished point, so that an accepted reset shows.
    ipm->status = IPM_STATUS_FAILED;
    ipm->primalInfeas = ipm->dualInfeas = ipm->boundInfeas = 1e-3;
    ipm->dualityGap = ipm->complementarity = 1e-3;
  }
  // A column's pairs: a bound with a slack and a dual.
  void lowerPair(int32_t j, double slack, double dual) {
    ipm->lowerSlack[j] = slack;
    ipm->lowerDual[j] = dual;
  }
  void upperPair(int32_t j, double slack, double dual) {
    ipm->upperSlack[j] = slack;
    ipm->upperDual[j] = dual;
  }
  Snapshot snapshot() const {
    Snapshot s;
    s.record.resize(sizeof(Ipm));
    memcpy(s.record.data(), ipm, sizeof(Ipm));
    const int32_t n = ipm->numCol, m = ipm->numRow, w = n > m ? n : m;
    using Part = std::pair<const double*, int32_t>;
    for (const Part& v : std::initializer_list<Part>{
             {ipm->solPrimal, n}, {ipm->lowerSlack, n}, {ipm->upperSlack, n}, {ipm->lowerDual, n},
             {ipm->upperDual, n}, {ipm->solDual, m}, {ipm->ineqnSlack, m},
             {ipm->vecRhs, ipm->numDim}, {ipm->kktValue, ipm->numIpmCoef}, {ipm->scratchA, w},
             {ipm->scratchB, w}})
      s.values.insert(s.values.end(), v.first, v.first + v.second);
    return s;
  }
};

// min -x1 - x2, x1 + 2x2 <= 4, 3x1 + x2 <= 6, x >= 0: vertex (1.6, 1.2) with
// both rows active; in the iteration's G form the duals are (0.4, 0.2).
Problem textbook() { return textbookLP(); }

// min x1 + 2x2 + 3x3 with x1 + x2 + x3 = 10 (scaled by sign), x1 - x2 >= -2,
// x2 + x3 <= 8, 0 <= x1 <= 6, x2 free, x3 >= 0: optimum (6, 4, 0), the
// equation's dual 2 * sign, x1 at its upper bound with dual 1, x3 at its lower
// bound with dual 1, both inequalities slack by 4.
Problem mixed(double sign) {
  return Problem({{sign, sign, sign}, {1, -1, 0}, {0, 1, 1}}, "EGL", {10 * sign, -2, 8},
                 {1, 2, 3}, {0, -kInf, 0}, {6, kInf, kInf});
}

// The point of mixed() near its optimum with the pairs well apart.
void nearMixed(Ipm* ipm, double sign) {
  const double x[3] = {6 - 2e-7, 4 + 3e-7, 1e-7};
  for (int32_t j = 0; j < 3; j++) ipm->solPrimal[j] = x[j];
  ipm->lowerSlack[0] = x[0];
  ipm->lowerDual[0] = 2e-8;
  ipm->upperSlack[0] = 2e-7;
  ipm->upperDual[0] = 1 + 1e-6;
  ipm->lowerSlack[2] = 1e-7;
  ipm->lowerDual[2] = 1 - 2e-6;
  ipm->solDual[0] = (2 + 1e-6) * sign;
  for (int32_t i = 1; i < 3; i++) {
    ipm->ineqnSlack[i] = 4 + 1e-7;
    ipm->solDual[i] = 3e-8;
  }
}

TEST_F(IpmReset, AcceptsTheRightActiveSetAndLandsOnTheVertex) {
  setUp(textbook());
  ipm->solPrimal[0] = 1.6 + 1e-6;
  ipm->solPrimal[1] = 1.2 - 2e-6;
  lowerPair(0, 1.6 + 1e-6, 1e-7);
  lowerPair(1, 1.2 - 2e-6, 2e-7);
  ipm->ineqnSlack[0] = ipm->ineqnSlack[1] = 1e-7;
  ipm->solDual[0] = 0.4 + 1e-6;
  ipm->solDual[1] = 0.2 - 1e-6;
  const int64_t live = liveBlocks();

  // The KKT conditions hold at the one optimum (1.6, 1.2), (0.4, 0.2); the
  // active side of each pair is exact.
  ASSERT_EQ(ipmReset(ipm), 0);
  EXPECT_EQ(ipm->ineqnSlack[0], 0.0);
  EXPECT_EQ(ipm->ineqnSlack[1], 0.0);
  EXPECT_EQ(ipm->lowerDual[0], 0.0);
  EXPECT_EQ(ipm->lowerSlack[1], ipm->solPrimal[1]);
  EXPECT_LT(kktError(), 1e-12);
  // The record carries the measures of the new point.
  EXPECT_EQ(ipm->status, IPM_STATUS_OPTIMAL);
  EXPECT_LT(ipm->primalInfeas, 1e-13);
  EXPECT_LT(ipm->dualInfeas, 1e-13);
  EXPECT_LT(ipm->dualityGap, 1e-13);
  EXPECT_EQ(ipm->complementarity, 0.0);
  EXPECT_EQ(liveBlocks(), live);
}

TEST_F(IpmReset, FixedColumnsAndDroppedRowsGetTheirSlacksAndDualsBack) {
  // The equation's dual is negative in one orientation: it has no sign to
  // keep, so both must be accepted.  x3's pair has a zero dual and a slack
  // of 5e-5, which still says active.  The self-checks of the reset, run in
  // the second orientation, must find nothing wrong.
  for (double sign : {1.0, -1.0}) {
    SCOPED_TRACE(sign);
    setUp(mixed(sign));
    nearMixed(ipm, sign);
    lowerPair(2, 5e-5, 0.0);
    ipm->verifyLevel = sign < 0 ? 1 : 0;
    ASSERT_EQ(ipmReset(ipm), 0);
    EXPECT_EQ(ipm->solPrimal[0], 6.0);
    EXPECT_EQ(ipm->solPrimal[2], 0.0);
    // Dropped rows and held columns: exact zeros on the inactive side, and
    // x1 at its upper bound keeps the whole range as its lower slack.
    for (double zero : {ipm->solDual[1], ipm->solDual[2], ipm->ineqnSlack[0], ipm->upperSlack[0],
                        ipm->lowerDual[0], ipm->lowerSlack[2]})
      EXPECT_EQ(zero, 0.0);
    EXPECT_EQ(ipm->lowerSlack[0], 6.0);
    EXPECT_LT(kktError(), 1e-12);
    EXPECT_EQ(ipm->complementarity, 0.0);
    EXPECT_EQ(ipm->status, IPM_STATUS_OPTIMAL);
  }
}

// min 1/2 x'Qx + c'x, Q = [2 1 0; 1 2 .5; 0 .5 1], c = (-4, -4, 1),
// x1 + x2 + x3 <= 10, x1, x2 >= 0, x3 >= 1.  With x3 held at 1 the first two
// solve 2x1 + x2 = 4, x1 + 2x2 = 3.5: x = (1.5, 1, 1), and x3's dual is
// 1 + .5 + 1 = 2.5.  order[k] is the column that takes variable k, so that
// the held column is once before and once after the kept ones in Q's triangle.
Problem quadModel(const int order[3]) {
  const Dense q = {{2, 1, 0}, {1, 2, 0.5}, {0, 0.5, 1}};
  const double c[3] = {-4, -4, 1}, lo[3] = {0, 0, 1};
  Dense a(1, std::vector<double>(3)), qp(3, std::vector<double>(3));
  std::vector<double> cp(3), lp(3), up(3, kInf);
  for (int k = 0; k < 3; k++) {
    a[0][order[k]] = 1;
    cp[order[k]] = c[k];
    lp[order[k]] = lo[k];
    for (int l = 0; l < 3; l++) qp[order[k]][order[l]] = q[k][l];
  }
  Problem p(a, "L", {10}, cp, lp, up);
  p.setQuad(qp);
  return p;
}

TEST_F(IpmReset, QuadraticCouplingOfHeldColumnsMovesToTheRightSide) {
  const int orders[2][3] = {{0, 1, 2}, {1, 2, 0}};
  for (const auto& order : orders) {
    SCOPED_TRACE(order[2]);
    setUp(quadModel(order));
    const double x[3] = {1.5 + 1e-6, 1 - 1e-6, 1 + 1e-7};
    for (int k = 0; k < 3; k++) ipm->solPrimal[order[k]] = x[k];
    lowerPair(order[0], x[0], 1e-7);
    lowerPair(order[1], x[1], 1e-7);
    lowerPair(order[2], 1e-7, 2.5);
    ipm->ineqnSlack[0] = 6.5;
    ipm->solDual[0] = 1e-7;
    ASSERT_EQ(ipmReset(ipm), 0);
    // Q is positive definite: the KKT conditions leave only the optimum.
    EXPECT_EQ(ipm->solPrimal[order[2]], 1.0);
    EXPECT_LT(kktError(), 1e-12);
    EXPECT_EQ(ipm->status, IPM_STATUS_OPTIMAL);
  }
}

TEST_F(IpmReset, AWrongActiveSetIsRejectedAndTheRecordStaysAsItWas) {
  // The point says x1 sits at zero and only the first row binds.  That is the
  // vertex (0, 2), where x1's bound dual comes out at -0.5.
  setUp(textbook());
  ipm->solPrimal[0] = 1e-7;
  ipm->solPrimal[1] = 2.0;
  lowerPair(0, 1e-7, 0.5);
  lowerPair(1, 2.0, 1e-7);
  ipm->ineqnSlack[0] = 1e-7;
  ipm->solDual[0] = 0.5;
  ipm->ineqnSlack[1] = 4.0;
  ipm->solDual[1] = 1e-7;
  const Snapshot before = snapshot();
  const int64_t live = liveBlocks();
  EXPECT_EQ(ipmReset(ipm), IPM_STATUS_RESET_FAILED);
  EXPECT_TRUE(snapshot() == before);
  EXPECT_EQ(liveBlocks(), live);
}

// Each route, with every one of its allocations refused in turn: -1086, the
// record untouched, nothing leaked; past the last allocation the route's own
// result.
TEST_F(IpmReset, OutOfMemoryOnEveryRouteLeavesNothingBehind) {
  const struct {
    const char* name;
    int32_t result;
    int64_t minRefusals;  // the doubtful route fails after its two maps
  } routes[3] = {{"accept", 0, 9}, {"wrong set", IPM_STATUS_RESET_FAILED, 9},
                 {"in doubt", IPM_STATUS_FAILED, 2}};
  for (const auto& route : routes) {
    SCOPED_TRACE(route.name);
    setUp(mixed(1.0));
    hxtest::OomSweep sweep(host);
    sweep.armAtStart = false;
    const auto result = sweep.run([&](hxtest::OomProbe& probe) {
      nearMixed(ipm, 1.0);
      // The wrong set: x1 held at its lower bound instead of its upper one.
      if (route.result == IPM_STATUS_RESET_FAILED) {
        lowerPair(0, 1e-7, 1.0);
        upperPair(0, 6.0, 1e-7);
      }
      if (route.result == IPM_STATUS_FAILED) lowerPair(2, 1e-3, 1e-3);
      const Snapshot before = snapshot();
      probe.arm();
      const int32_t status = ipmReset(ipm);
      probe.disarm();
      if (probe.refused()) {
        EXPECT_TRUE(snapshot() == before) << probe.k();
      }
      return status;
    });
    EXPECT_EQ(result.finalStatus, route.result);
    EXPECT_GE(result.refusedRuns, route.minRefusals);
  }
}

}  // namespace

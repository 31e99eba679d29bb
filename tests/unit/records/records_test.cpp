#include <cstring>
#include <vector>

#include "frame/qv.h"
#include "records/model.h"
#include "records/statistics.h"
#include "support/support.h"

namespace {

using Records = HostTest;

// A 2x3 QP: 4 entries in (2, 1, 1) columns, a diagonal and one off-diagonal
// entry of Q, two nonzero costs.
struct SmallQP {
  std::vector<double> matValue{1, 2, 3, 4}, quadDiag{1, 0, 2}, quadMatValue{0.5};
  std::vector<int32_t> rowIndex{0, 1, 0, 1}, colBegin{0, 2, 3, 4}, quadRowIndex{2},
      quadColBegin{0, 1, 1, 1};
  std::vector<double> obj{1, -1, 0}, rhs{1, 0}, lower{0, 0, 0}, upper{1, 1, 1};
  std::vector<char> sense{'E', 'L'};
  QPRecord record{};
  SmallQP() {
    record.objSense = -1;
    record.numRow = 2;
    record.numCol = 3;
    record.numCoef = 4;
    record.numQuadCoef = 1;
    record.matValue = matValue.data();
    record.rowIndex = rowIndex.data();
    record.colBegin = colBegin.data();
    record.quadDiag = quadDiag.data();
    record.quadMatValue = quadMatValue.data();
    record.quadRowIndex = quadRowIndex.data();
    record.quadColBegin = quadColBegin.data();
    record.obj = obj.data();
    record.rhs = rhs.data();
    record.lower = lower.data();
    record.upper = upper.data();
    record.rowSense = sense.data();
  }
};

TEST_F(Records, OptionsFollowTheirSourceAndThePrintRule) {
  ScripterOptions so;
  initScripter(&so);
  for (int32_t freq : {0, 5}) {
    so.printFreq = freq;
    ipmOption* o = CreateOptionFromQP(pool, &so);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->printLevel, freq ? 2 : 1);
    DestroyOption(pool, o);
  }
  LPOptions* lpo = createLpOptions(&env);
  ASSERT_NE(lpo, nullptr);
  const struct { int32_t freq, level, expected; } cases[] = {
      {0, 0, 0}, {0, 1, 1}, {0, 3, 1}, {-2, 2, 1}, {1, 3, 3}};
  for (const auto& c : cases) {
    lpo->printFreq = c.freq;
    lpo->printLevel = c.level;
    ipmOption* o = CreateOptionFromLP(pool, lpo);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->printLevel, c.expected) << "printFreq " << c.freq << " printLevel " << c.level;
    DestroyOption(pool, o);
  }
  poolFree(pool, lpo);
  EXPECT_EQ(liveBlocks(), 0);
}

using Statistics = HostTest;

TEST_F(Statistics, FiguresOfASmallQP) {
  SmallQP qp;
  qp.record.rhs[1] = -4.0;
  ASSERT_EQ(getProbStatistics(&env, &qp.record), 0);
  const ProbStatistics& s = qp.record.stats;
  const double got[] = {(double)s.statNumCol, (double)s.statNumRow, (double)s.statNumCoef,
                        s.matMax, s.matMin, s.matAvg, (double)s.colCountMax,
                        (double)s.colCountMin, s.colCountAvg, (double)s.rowCountMax,
                        (double)s.rowCountMin, s.rowCountAvg, (double)s.quadDiagCount,
                        s.quadMax, s.quadMin, (double)s.objCount, s.objMin,
                        (double)s.rhsCount, s.rhsMax, s.rhsAvg};
  // colCountAvg is 4 / 3 in whole numbers.
  const double want[] = {3, 2, 4, 4, 1, 2.5, 2, 1, 1, 2, 2, 2, 2, 2, 0.5, 2, 1, 2, 4, 2.5};
  EXPECT_EQ(std::vector<double>(got, got + 20), std::vector<double>(want, want + 20));
  EXPECT_DOUBLE_EQ(s.quadAvg, (1.0 + 2.0 + 2 * 0.5) / (2 + 2 * 1));
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Statistics, EmptyZeroAndRefusedCases) {
  SmallQP qp;
  std::memset(&qp.record.stats, 0x77, sizeof(ProbStatistics));
  qp.record.numCol = 0;
  ASSERT_EQ(getProbStatistics(&env, &qp.record), 0);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&qp.record.stats);
  for (size_t k = 0; k < sizeof(ProbStatistics); ++k) ASSERT_EQ(bytes[k], 0) << "byte " << k;

  std::memset(&qp.record.stats, 0x77, sizeof(ProbStatistics));
  qp.record.numCol = 3;
  host.failAllocation(0);
  EXPECT_EQ(getProbStatistics(&env, &qp.record), 1);
  host.clearFailures();
  for (size_t k = 0; k < sizeof(ProbStatistics); ++k) ASSERT_EQ(bytes[k], 0x77) << "byte " << k;
}

}  // namespace

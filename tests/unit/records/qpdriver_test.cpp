// The QP entry from the host's record to the return code: the pipeline, the
// in-place preparation of the host's arrays and their restoration.
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <vector>

#include "frame/instance.h"
#include "records/pipeline.h"
#include "records/qpdriver.h"
#include "support/message_log.h"
#include "support/support.h"

namespace {

// minimise 1/2 (x1^2 + x2^2) - 3 x1 - x2 + 4
//   s.t.  x1 + x2 <= 1        (L, active, dual -2)
//         -5 <= x1 - x2 <= 5  (R, inactive)
//         x1 >= 0.5           (G, inactive)
//         0 <= x <= 10
// Optimum x = (1, 0), objective -2.5 + 4 = 1.5; x2 sits on its bound with
// reduced cost 1.
struct SmallQP {
  std::vector<double> matValue{1, 1, 1, 1, -1}, quadDiag{1, 1}, obj{-3, -1}, rhs{1, -5, 0.5},
      range{0, 10, 0}, lower{0, 0}, upper{10, 10}, x = std::vector<double>(2),
      y = std::vector<double>(3), act = std::vector<double>(3);
  std::vector<int32_t> rowIndex{0, 1, 2, 0, 1}, colBegin{0, 3, 5}, quadColBegin{0, 0, 0};
  std::vector<char> sense{'L', 'R', 'G'};
  QPRecord record{};
  SmallQP() {
    record.objSense = 1, record.numRow = 3, record.numCol = 2, record.numCoef = 5;
    record.objConstant = 4.0;
    record.matValue = matValue.data(), record.rowIndex = rowIndex.data();
    record.colBegin = colBegin.data(), record.quadDiag = quadDiag.data();
    record.quadColBegin = quadColBegin.data(), record.obj = obj.data(), record.rhs = rhs.data();
    record.range = range.data(), record.lower = lower.data(), record.upper = upper.data();
    record.rowSense = sense.data(), record.solPrimal = x.data(), record.solDual = y.data();
    record.rowActivity = act.data();
  }
};

class QPDriver : public HostTest {
 protected:
  void SetUp() override {
    instance = static_cast<HalvexInstance*>(halvex_create_instance(nullptr));
    ASSERT_NE(instance, nullptr);
    instance->env.messageLog = &messages.base;
    instance->scripter.primalTol = instance->scripter.dualTol = instance->scripter.gapTol = 1e-8;
  }
  void TearDown() override {
    if (instance) halvex_destroy_instance(instance);
  }
  int32_t solve(QPRecord& r) { return instance->ipqpScripter(instance, &r); }
  int64_t instanceLive() const { return host.poolStats(instance->env.pool).liveBlocks; }

  HalvexInstance* instance = nullptr;
  hxtest::RecordingLog messages;
};

TEST_F(QPDriver, SolvesAndGivesTheHostItsArraysBack) {
  SmallQP qp;
  int64_t before = instanceLive();
  ASSERT_EQ(solve(qp.record), QP_RETURN_OPTIMAL);
  EXPECT_NEAR(qp.x[0], 1.0, 1e-6);
  EXPECT_NEAR(qp.x[1], 0.0, 1e-6);
  for (int i = 0; i < 3; i++) {
    EXPECT_NEAR(qp.y[i], i == 0 ? -2.0 : 0.0, 1e-6) << i;
    EXPECT_NEAR(qp.act[i], 1.0, 1e-6) << i;
  }
  EXPECT_NEAR(qp.record.objValue, 1.5, 1e-6);
  EXPECT_GT(qp.record.iterations, 0);
  EXPECT_LT(qp.record.primalInfeas, 1e-8);
  // The host's numbers are as they came in.
  EXPECT_EQ(qp.range, (std::vector<double>{0, 10, 0}));
  EXPECT_EQ(qp.sense, (std::vector<char>{'L', 'R', 'G'}));
  EXPECT_TRUE(messages.saw(0x827FD001));
  EXPECT_TRUE(messages.saw(0x827FD804));
  EXPECT_EQ(instance->env.preModule, nullptr);
  EXPECT_EQ(instance->env.preObject, nullptr);
  EXPECT_EQ(instanceLive(), before);
}

TEST_F(QPDriver, MaximisationKeepsTheHostsSign) {
  SmallQP qp;
  qp.record.objSense = -1;
  for (double& c : qp.obj) c = -c;
  for (double& q : qp.quadDiag) q = -q;
  qp.record.objConstant = -4.0;
  ASSERT_EQ(solve(qp.record), QP_RETURN_OPTIMAL);
  EXPECT_NEAR(qp.x[0], 1.0, 1e-6);
  EXPECT_NEAR(qp.x[1], 0.0, 1e-6);
  EXPECT_NEAR(qp.record.objValue, -1.5, 1e-6);
  EXPECT_EQ(qp.obj, (std::vector<double>{3, 1}));
  EXPECT_EQ(qp.quadDiag, (std::vector<double>{-1, -1}));
}

TEST_F(QPDriver, ZeroRangeRowEndsAsAnEquation) {
  SmallQP qp;
  qp.range[1] = 0.0;
  qp.rhs[1] = 0.2;  // x1 - x2 = 0.2 moves the optimum to (0.6, 0.4)
  ASSERT_EQ(solve(qp.record), QP_RETURN_OPTIMAL);
  EXPECT_EQ(qp.sense[1], 'E');
  EXPECT_EQ(qp.rhs[1], 0.2);
  EXPECT_NEAR(qp.x[0], 0.6, 1e-6);
  EXPECT_NEAR(qp.x[1], 0.4, 1e-6);
}

TEST_F(QPDriver, LimitsKeepThePointAndBreakStopsTheSolve) {
  SmallQP qp;
  instance->scripter.maxIteration = 2;
  ASSERT_EQ(solve(qp.record), QP_RETURN_ITERATION_LIMIT);
  EXPECT_EQ(qp.record.iterations, 2);
  EXPECT_TRUE(qp.x[0] != 0.0 || qp.x[1] != 0.0);
  EXPECT_TRUE(messages.saw(0x827FD008));

  instance->scripter.maxIteration = 2147483647;
  SmallQP stopped;
  int calls = 0;
  stopped.record.checkSolverBreak = [](void* data) -> int32_t {
    ++*static_cast<int*>(data);
    return 1;
  };
  stopped.record.scripterDataStruct = &calls;
  EXPECT_EQ(solve(stopped.record), QP_RETURN_INTERRUPTED);
  EXPECT_GT(calls, 0);
  // An interrupted solve hands back zeros, not a half-finished point.
  EXPECT_EQ(stopped.x, (std::vector<double>{0, 0}));
  EXPECT_EQ(stopped.y, (std::vector<double>{0, 0, 0}));
}

TEST_F(QPDriver, ModelWithoutMatrixOrRows) {
  // minimise 1/2 x^2 - x over [0, 10]: x = 1.
  double q = 1, c = -1, lo = 0, up = 10, x = 0;
  QPRecord r{};
  r.objSense = 1, r.numCol = 1, r.quadDiag = &q, r.obj = &c, r.lower = &lo, r.upper = &up;
  r.solPrimal = &x;
  ASSERT_EQ(solve(r), QP_RETURN_OPTIMAL);
  EXPECT_NEAR(x, 1.0, 1e-6);
  EXPECT_NEAR(r.objValue, -0.5, 1e-6);
}

// A linear model held in vectors, A column-wise as values, rows and starts.
struct LinearQP {
  std::vector<double> a, obj, rhs, lo, up, x, y, act;
  std::vector<int32_t> idx, beg;
  std::vector<char> sense;
  QPRecord r{};
  LinearQP(std::vector<double> a_, std::vector<int32_t> idx_, std::vector<int32_t> beg_,
           std::vector<double> obj_, std::vector<char> sense_, std::vector<double> rhs_,
           std::vector<double> lo_, std::vector<double> up_)
      : a(a_), obj(obj_), rhs(rhs_), lo(lo_), up(up_), x(obj_.size()), y(rhs_.size()),
        act(rhs_.size()), idx(idx_), beg(beg_), sense(sense_) {
    r.objSense = 1, r.numRow = (int32_t)rhs.size(), r.numCol = (int32_t)obj.size();
    r.numCoef = (int32_t)a.size(), r.matValue = a.data(), r.rowIndex = idx.data();
    r.colBegin = beg.data(), r.obj = obj.data(), r.rhs = rhs.data(), r.lower = lo.data();
    r.upper = up.data(), r.rowSense = sense.data(), r.solPrimal = x.data();
    r.solDual = y.data(), r.rowActivity = act.data();
  }
};

TEST_F(QPDriver, PresolveThatSolvesEverythingDoesNoIteration) {
  // Two singleton equations fix both columns.
  LinearQP m({1, 1}, {0, 1}, {0, 1, 2}, {1, 2}, {'E', 'E'}, {1, 2}, {0, 0}, {5, 5});
  ASSERT_EQ(solve(m.r), QP_RETURN_OPTIMAL);
  EXPECT_EQ(m.r.iterations, 0);
  EXPECT_NEAR(m.x[0], 1.0, 1e-12);
  EXPECT_NEAR(m.x[1], 2.0, 1e-12);
  EXPECT_NEAR(m.r.objValue, 5.0, 1e-12);
  EXPECT_NEAR(m.y[0], 1.0, 1e-12);
  EXPECT_NEAR(m.y[1], 2.0, 1e-12);
}

TEST_F(QPDriver, RangeOfInfinityKeepsTheRowsLowerEnd) {
  // x1 - x2 >= 0.2 given as a range of width 1e20; with the objective
  // turned towards x2 the row binds at (0.6, 0.4).  Adding the width to the
  // right side would lose the 0.2 and end at (0, 1).
  for (double width : {1e20, 3e20}) {
    SmallQP qp;
    qp.obj = {-1, -3};
    qp.rhs[1] = 0.2;
    qp.range[1] = width;
    ASSERT_EQ(solve(qp.record), QP_RETURN_OPTIMAL);
    EXPECT_NEAR(qp.x[0], 0.6, 1e-6);
    EXPECT_NEAR(qp.x[1], 0.4, 1e-6);
    EXPECT_EQ(qp.sense, (std::vector<char>{'L', 'R', 'G'}));
    EXPECT_EQ(qp.rhs, (std::vector<double>{1, 0.2, 0.5}));
    EXPECT_EQ(qp.range, (std::vector<double>{0, width, 0}));
  }
}

TEST_F(QPDriver, BoundsAtExactlyInfinityAreNoBounds) {
  // minimise x  s.t.  y - x <= 0,  x <= 31000,  x >= 0 with no upper bound
  // given as exactly 1e20, 30000 <= y <= 30000.5.  Summing 1e20 into the
  // first row's activity would round the bound it implies on x past 31000.
  LinearQP m({-1, 1, 1}, {0, 1, 0}, {0, 2, 3}, {1, 0}, {'L', 'L'}, {0, 31000}, {0, 30000},
             {1e20, 30000.5});
  ASSERT_EQ(solve(m.r), QP_RETURN_OPTIMAL);
  EXPECT_NEAR(m.x[0], 30000.0, 1e-3);
  EXPECT_NEAR(m.r.objValue, 30000.0, 1e-3);
  EXPECT_EQ(m.up[0], 1e20);
}

TEST_F(QPDriver, BadNumbersAreRefusedAndTheHostArraysStayAsTheyCame) {
  const struct { const char* what; void (*spoil)(SmallQP&); } cases[] = {
      {"NaN objective", [](SmallQP& p) { p.obj[1] = NAN; }},
      {"NaN bound", [](SmallQP& p) { p.upper[0] = NAN; }},
      {"infinite rhs", [](SmallQP& p) { p.rhs[0] = INFINITY; }},
      {"huge entry", [](SmallQP& p) { p.matValue[2] = 1.35e151; }},
      {"huge range", [](SmallQP& p) { p.range[1] = -2e151; }},
      {"row index out of range", [](SmallQP& p) { p.rowIndex[1] = 3; }},
      {"unknown sense", [](SmallQP& p) { p.sense[2] = 'X'; }},
      {"negative count", [](SmallQP& p) { p.record.numRow = -1; }},
      {"missing rhs", [](SmallQP& p) { p.record.rhs = nullptr; }},
      {"column starts off", [](SmallQP& p) { p.colBegin[2] = 4; }},
      {"break data alone", [](SmallQP& p) { p.record.scripterDataStruct = &p; }}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    SmallQP qp;
    c.spoil(qp);
    const std::vector<double> obj = qp.obj, rhs = qp.rhs, range = qp.range, q = qp.quadDiag;
    const int64_t before = instanceLive();
    EXPECT_EQ(solve(qp.record), QP_RETURN_FAILURE);
    // Bit for bit, so that a NaN compares as well.
    EXPECT_EQ(std::memcmp(obj.data(), qp.obj.data(), 16), 0);
    EXPECT_EQ(std::memcmp(rhs.data(), qp.rhs.data(), 24), 0);
    EXPECT_EQ(std::memcmp(range.data(), qp.range.data(), 24), 0);
    EXPECT_EQ(q, qp.quadDiag);
    EXPECT_EQ(instanceLive(), before);
  }
  // The limit itself is allowed: a fixed column may carry it.
  SmallQP edge;
  edge.obj[1] = 1.3407807929943e+151;
  edge.upper[1] = 0.0;
  EXPECT_EQ(solve(edge.record), QP_RETURN_OPTIMAL);
  EXPECT_NEAR(edge.x[0], 1.0, 1e-6);
}

TEST_F(QPDriver, UnknownPresolveSettingGoesOnAndAMissingSiblingIsOutOfMemory) {
  SmallQP qp;
  instance->scripter.presolver = 7;
  EXPECT_EQ(solve(qp.record), QP_RETURN_OPTIMAL);
  EXPECT_TRUE(messages.saw(0x827FD86D));
  EXPECT_TRUE(messages.saw(0x827FD864));
  instance->scripter.presolver = -1;
  host.registerModule("bramlet", nullptr);
  SmallQP other;
  EXPECT_EQ(solve(other.record), QP_RETURN_OUT_OF_MEMORY);
  EXPECT_TRUE(messages.saw(0x827FD806));
  EXPECT_EQ(other.obj, (std::vector<double>{-3, -1}));
}

using StatusReport = HostTest;

TEST_F(StatusReport, CodesFollowTheStatusAndPrintLevelZeroIsSilent) {
  hxtest::RecordingLog messages;
  env.messageLog = &messages.base;
  ipmOption option{};
  option.printLevel = 2;
  iplpReportStatus(1.0, &env, IPM_STATUS_TIME_LIMIT, &option);
  option.timerType = 1;
  iplpReportStatus(1.0, &env, IPM_STATUS_TIME_LIMIT, &option);
  iplpReportStatus(1.0, &env, IPM_STATUS_OUT_OF_MEMORY, &option);
  iplpReportStatus(1.0, &env, IPM_STATUS_INTERRUPTED, &option);
  iplpReportStatus(1.0, &env, IPM_STATUS_SIBLING_INFEASIBLE, &option);
  iplpReportStatus(1.0, &env, 42, &option);
  const std::vector<int64_t> codes{0x827FD00B, 0x827FD002, 0x827FD00C, 0x827FD002,
                                   0x827FD006, 0x827FD010, 0x827FD00E, 0x827FD011};
  const std::vector<int32_t> severities{2, 2, 2, 2, 4, 3, 2, 2};
  EXPECT_EQ(messages.codes, codes);
  EXPECT_EQ(messages.severities, severities);
  option.printLevel = 0;
  iplpReportStatus(1.0, &env, IPM_STATUS_OPTIMAL, &option);
  EXPECT_EQ(messages.codes.size(), codes.size());
  env.messageLog = nullptr;
  option.printLevel = 2;
  iplpReportStatus(1.0, &env, IPM_STATUS_OPTIMAL, &option);  // no log: silent
}

}  // namespace

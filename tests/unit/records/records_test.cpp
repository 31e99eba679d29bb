#include <cstring>
#include <vector>

#include "frame/qv.h"
#include "records/model.h"
#include "records/statistics.h"
#include "support/support.h"

namespace {

using Records = HostTest;

// A 2x3 QP with every array distinct, so that a swapped copy shows.
struct SmallQP {
  std::vector<double> matValue{1, 2, 3, 4}, quadDiag{1, 0, 2}, quadMatValue{0.5};
  std::vector<int32_t> rowIndex{0, 1, 0, 1}, colBegin{0, 2, 3, 4}, quadRowIndex{2},
      quadColBegin{0, 1, 1, 1};
  std::vector<double> obj{1, -1, 0}, rhs{1, 0}, lower{0, 0, 0}, upper{1, 1, 1};
  std::vector<double> x = std::vector<double>(3), y = std::vector<double>(2),
                      act = std::vector<double>(2);
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
    record.range = nullptr;  // legal without R rows
    record.lower = lower.data();
    record.upper = upper.data();
    record.rowSense = sense.data();
    record.solPrimal = x.data();
    record.solDual = y.data();
    record.rowActivity = act.data();
    record.objConstant = 7.5;
  }
};

TEST_F(Records, ModelFromQPBorrowsEveryArrayAndLeavesTheLengthsToThePresolver) {
  SmallQP qp;
  ipmModel* m = CreateModelFromQP(pool, &qp.record);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->typeModel, IPM_MODEL_QP);
  EXPECT_EQ(m->objSense, -1);
  EXPECT_EQ(m->numRow, 2);
  EXPECT_EQ(m->numCol, 3);
  EXPECT_EQ(m->numCoef, 4);
  EXPECT_EQ(m->numQuadCoef, 1);
  EXPECT_EQ(m->matValue, qp.matValue.data());
  EXPECT_EQ(m->rowIndex, qp.rowIndex.data());
  EXPECT_EQ(m->colBegin, qp.colBegin.data());
  EXPECT_EQ(m->quadDiag, qp.quadDiag.data());
  EXPECT_EQ(m->quadMatValue, qp.quadMatValue.data());
  EXPECT_EQ(m->quadRowIndex, qp.quadRowIndex.data());
  EXPECT_EQ(m->quadColBegin, qp.quadColBegin.data());
  EXPECT_EQ(m->obj, qp.obj.data());
  EXPECT_EQ(m->rhs, qp.rhs.data());
  EXPECT_EQ(m->range, nullptr);
  EXPECT_EQ(m->lower, qp.lower.data());
  EXPECT_EQ(m->upper, qp.upper.data());
  EXPECT_EQ(m->rowSense, qp.sense.data());
  EXPECT_EQ(m->solPrimal, qp.x.data());
  EXPECT_EQ(m->solDual, qp.y.data());
  EXPECT_EQ(m->rowActivity, qp.act.data());
  EXPECT_EQ(m->objConstant, 7.5);
  EXPECT_EQ(m->colLength, nullptr);
  EXPECT_EQ(m->quadColLength, nullptr);
  EXPECT_EQ(m->reducedCost, nullptr);
  EXPECT_EQ(m->relaxColBound, nullptr);

  m->status = 1;
  m->objValue = -3.25;
  m->iteration = 17;
  m->primalInfeas = 1e-9;
  m->dualInfeas = 2e-9;
  m->boundInfeas = 3e-9;
  m->dualityGap = 4e-9;
  m->complementarity = 5e-9;
  ReturnModelToQP(m, &qp.record);
  EXPECT_EQ(qp.record.objValue, -3.25);
  EXPECT_EQ(qp.record.iterations, 17);
  EXPECT_EQ(qp.record.primalInfeas, 1e-9);
  EXPECT_EQ(qp.record.dualInfeas, 2e-9);
  EXPECT_EQ(qp.record.boundInfeas, 3e-9);
  EXPECT_EQ(qp.record.dualityGap, 4e-9);
  EXPECT_EQ(qp.record.complementarity, 5e-9);
  EXPECT_EQ(qp.record.objConstant, 7.5);  // the QP's status travels as the return code
  ReturnModelToQP(nullptr, &qp.record);
  ReturnModelToQP(m, nullptr);
  DestroyModel(pool, m);
  DestroyModel(pool, nullptr);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Records, ModelFromLPAndBack) {
  std::vector<double> a{1, 2}, c{1, 1}, b{3}, r{0}, lo{0, 0}, up{5, 5}, x(2), y(1), d(2), act(1);
  std::vector<int32_t> idx{0, 0}, beg{0, 1}, len{1, 1};
  char sense[1] = {'G'};
  LPRecord lp{};
  lp.objSense = 1;
  lp.numRow = 1;
  lp.numCol = 2;
  lp.numCoef = 2;
  lp.matValue = a.data();
  lp.rowIndex = idx.data();
  lp.colBegin = beg.data();
  lp.colLength = len.data();
  lp.obj = c.data();
  lp.rhs = b.data();
  lp.range = r.data();
  lp.lower = lo.data();
  lp.upper = up.data();
  lp.rowSense = sense;
  lp.solPrimal = x.data();
  lp.solDual = y.data();
  lp.reducedCost = d.data();
  lp.rowActivity = act.data();
  lp.objConstant = 2.0;
  ipmModel* m = CreateModelFromLP(pool, &lp);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->typeModel, IPM_MODEL_LP);
  EXPECT_EQ(m->colLength, len.data());
  EXPECT_EQ(m->reducedCost, d.data());
  EXPECT_EQ(m->rowActivity, act.data());
  EXPECT_EQ(m->quadDiag, nullptr);
  EXPECT_EQ(m->numQuadCoef, 0);
  EXPECT_EQ(m->objConstant, 2.0);
  m->status = 3;
  m->objValue = 11.0;
  m->iteration = 9;
  m->dualityGap = 0.5;
  ReturnModelToLP(m, &lp);
  EXPECT_EQ(lp.status, 3);
  EXPECT_EQ(lp.objConstant, 11.0);  // the field carries the objective value back
  EXPECT_EQ(lp.iteration, 9);
  EXPECT_EQ(lp.dualityGap, 0.5);
  DestroyModel(pool, m);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Records, OptionsFollowTheirSourceAndThePrintRule) {
  ScripterOptions so;
  initScripter(&so);
  so.printFreq = 0;
  so.maxIteration = 40;
  so.numThreads = 2;
  ipmOption* o = CreateOptionFromQP(pool, &so);
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(o->printLevel, 1);
  EXPECT_EQ(o->maxIteration, 40);
  EXPECT_EQ(o->numThreads, 2);
  EXPECT_EQ(o->infinity, 1e+20);
  EXPECT_EQ(o->verifyLevel, 0);
  EXPECT_EQ(o->rowScaleOnly, 0);
  EXPECT_EQ(o->presolver, -1);
  DestroyOption(pool, o);
  so.printFreq = 5;
  o = CreateOptionFromQP(pool, &so);
  EXPECT_EQ(o->printLevel, 2);
  DestroyOption(pool, o);

  HalvexEnv e{};
  e.pool = pool;
  LPOptions* lpo = createLpOptions(&e);
  ASSERT_NE(lpo, nullptr);
  struct Case {
    int32_t freq, level, expected;
  } cases[] = {{0, 0, 0}, {0, 1, 1}, {0, 3, 1}, {-2, 2, 1}, {1, 3, 3}};
  for (const Case& c : cases) {
    lpo->printFreq = c.freq;
    lpo->printLevel = c.level;
    lpo->verifyLevel = 5;
    lpo->rowScaleOnly = 1;
    lpo->crossover = 1;
    o = CreateOptionFromLP(pool, lpo);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->printLevel, c.expected) << "printFreq " << c.freq << " printLevel " << c.level;
    EXPECT_EQ(o->verifyLevel, 5);
    EXPECT_EQ(o->rowScaleOnly, 1);
    EXPECT_EQ(o->crossover, 1);
    EXPECT_EQ(o->maxTime, 8.988465674311578e+307);
    DestroyOption(pool, o);
  }
  poolFree(pool, lpo);
  EXPECT_EQ(liveBlocks(), 0);
}

template <typename T>
T at(const void* base, size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const char*>(base) + offset, sizeof(T));
  return value;
}

TEST_F(Records, LpOptionDefaultsSitAtTheirBytePositions) {
  LPOptions* o = createLpOptions(&env);
  ASSERT_NE(o, nullptr);
  std::memset(o, 0x5A, sizeof(*o));
  resetLpOptions(o);
  EXPECT_EQ(at<uint8_t>(o, 0), 0);
  EXPECT_EQ(at<int32_t>(o, 4), -1);
  EXPECT_EQ(at<int32_t>(o, 8), 3);
  EXPECT_EQ(at<int32_t>(o, 12), -1);
  EXPECT_EQ(at<int32_t>(o, 16), -1);
  EXPECT_EQ(at<int32_t>(o, 20), 2147483647);
  EXPECT_EQ(at<double>(o, 24), 8.988465674311578e+307);
  EXPECT_EQ(at<int32_t>(o, 32), 0);
  EXPECT_EQ(at<int32_t>(o, 36), 0);
  EXPECT_EQ(at<int32_t>(o, 40), 100);
  EXPECT_EQ(at<int32_t>(o, 44), 1);
  EXPECT_EQ(at<int32_t>(o, 48), 2);
  EXPECT_EQ(at<double>(o, 56), 1e-06);
  EXPECT_EQ(at<double>(o, 64), 1e-06);
  EXPECT_EQ(at<int32_t>(o, 72), 2000);
  EXPECT_EQ(at<double>(o, 80), 1e-20);
  EXPECT_EQ(at<int32_t>(o, 108), 1);
  EXPECT_EQ(at<double>(o, 128), 1e-06);
  EXPECT_EQ(at<double>(o, 136), 1e-06);
  EXPECT_EQ(at<double>(o, 144), 1e-06);
  EXPECT_EQ(at<int32_t>(o, 156), 1);
  EXPECT_EQ(at<double>(o, 184), 0.0);
  poolFree(pool, o);
}

TEST_F(Records, SolutionVectorsAreZeroAndEveryRefusalIsCleanedUp) {
  double x[4], y[3];
  ipmSolution* s = nullptr;
  ASSERT_EQ(NewSolution(&env, &s, 3, 4, x, y), 0);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->solPrimal, x);
  EXPECT_EQ(s->solDual, y);
  for (int j = 0; j < 4; ++j) {
    EXPECT_EQ(s->lowerSlack[j], 0.0);
    EXPECT_EQ(s->upperDual[j], 0.0);
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(s->ineqnSlack[i], 0.0);
  FreeSolution(&env, s);
  FreeSolution(&env, nullptr);
  EXPECT_EQ(liveBlocks(), 0);

  // Each of the six allocations refused in turn.
  for (int k = 0; k < 6; ++k) {
    host.failAllocation(k);
    ipmSolution* t = reinterpret_cast<ipmSolution*>(0x1);
    EXPECT_EQ(NewSolution(&env, &t, 3, 4, x, y), IPM_STATUS_OUT_OF_MEMORY) << "allocation " << k;
    EXPECT_EQ(t, nullptr);
    host.clearFailures();
    EXPECT_EQ(liveBlocks(), 0) << "allocation " << k;
  }
  // Empty models still get usable records.
  ASSERT_EQ(NewSolution(&env, &s, 0, 0, nullptr, nullptr), 0);
  FreeSolution(&env, s);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Records, PartlyFilledStorageFreesWhatItHas) {
  ipmStorage* st = poolNew<ipmStorage>(pool, 1);
  ASSERT_NE(st, nullptr);
  st->rangeRow = poolNew<int32_t>(pool, 4);
  st->colScale = poolNew<double>(pool, 8);
  st->lcontRow = poolNew<int32_t>(pool, 2);
  EXPECT_EQ(liveBlocks(), 4);
  FreeStorage(&env, st);
  FreeStorage(&env, nullptr);
  EXPECT_EQ(liveBlocks(), 0);
}

using Statistics = HostTest;

TEST_F(Statistics, FiguresOfASmallQP) {
  SmallQP qp;
  qp.record.rhs[1] = -4.0;
  ASSERT_EQ(getProbStatistics(&env, &qp.record), 0);
  const ProbStatistics& s = qp.record.stats;
  EXPECT_EQ(s.statNumCol, 3);
  EXPECT_EQ(s.statNumRow, 2);
  EXPECT_EQ(s.statNumCoef, 4);
  EXPECT_EQ(s.matMax, 4.0);
  EXPECT_EQ(s.matMin, 1.0);
  EXPECT_EQ(s.matAvg, 2.5);
  EXPECT_EQ(s.colCountMax, 2);
  EXPECT_EQ(s.colCountMin, 1);
  EXPECT_EQ(s.colCountAvg, 1.0);  // 4 / 3 in whole numbers
  EXPECT_EQ(s.rowCountMax, 2);
  EXPECT_EQ(s.rowCountMin, 2);
  EXPECT_EQ(s.rowCountAvg, 2.0);
  EXPECT_EQ(s.quadDiagCount, 2);
  EXPECT_EQ(s.quadMax, 2.0);
  EXPECT_EQ(s.quadMin, 0.5);
  EXPECT_DOUBLE_EQ(s.quadAvg, (1.0 + 2.0 + 2 * 0.5) / (2 + 2 * 1));
  EXPECT_EQ(s.objCount, 2);
  EXPECT_EQ(s.objMin, 1.0);
  EXPECT_EQ(s.rhsCount, 2);
  EXPECT_EQ(s.rhsMax, 4.0);
  EXPECT_EQ(s.rhsAvg, 2.5);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Statistics, EmptyZeroAndRefusedCases) {
  SmallQP qp;
  std::memset(&qp.record.stats, 0x77, sizeof(ProbStatistics));
  qp.record.numCol = 0;
  ASSERT_EQ(getProbStatistics(&env, &qp.record), 0);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&qp.record.stats);
  for (size_t k = 0; k < sizeof(ProbStatistics); ++k) ASSERT_EQ(bytes[k], 0) << "byte " << k;

  SmallQP zeroObj;
  std::fill(zeroObj.obj.begin(), zeroObj.obj.end(), 0.0);
  ASSERT_EQ(getProbStatistics(&env, &zeroObj.record), 0);
  EXPECT_EQ(zeroObj.record.stats.objCount, 0);
  EXPECT_EQ(zeroObj.record.stats.objMin, 0.0);
  EXPECT_EQ(zeroObj.record.stats.objAvg, 0.0);

  // 7 entries in 2 columns.
  SmallQP seven;
  seven.matValue = {1, 1, 1, 1, 1, 1, 1};
  seven.rowIndex = {0, 1, 0, 1, 0, 1, 0};
  seven.colBegin = {0, 4, 7};
  seven.record.matValue = seven.matValue.data();
  seven.record.rowIndex = seven.rowIndex.data();
  seven.record.colBegin = seven.colBegin.data();
  seven.record.numCol = 2;
  seven.record.numCoef = 7;
  ASSERT_EQ(getProbStatistics(&env, &seven.record), 0);
  EXPECT_EQ(seven.record.stats.colCountAvg, 3.0);

  std::memset(&qp.record.stats, 0x77, sizeof(ProbStatistics));
  qp.record.numCol = 3;
  host.failAllocation(0);
  EXPECT_EQ(getProbStatistics(&env, &qp.record), 1);
  host.clearFailures();
  for (size_t k = 0; k < sizeof(ProbStatistics); ++k) ASSERT_EQ(bytes[k], 0x77) << "byte " << k;
}

}  // namespace

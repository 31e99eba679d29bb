#include <cstring>
#include <vector>

#include "frame/qv.h"
#include "records/model.h"
#include "records/statistics.h"
#include "support/oom.h"
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

TEST_F(Records, ModelsBorrowTheHostArraysAndGiveTheMeasuresBack) {
  SmallQP qp;
  ipmModel* m = CreateModelFromQP(pool, &qp.record);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->typeModel, IPM_MODEL_QP);
  const void* borrowed[][2] = {
      {m->matValue, qp.matValue.data()}, {m->rowIndex, qp.rowIndex.data()},
      {m->colBegin, qp.colBegin.data()}, {m->quadDiag, qp.quadDiag.data()},
      {m->quadMatValue, qp.quadMatValue.data()}, {m->quadRowIndex, qp.quadRowIndex.data()},
      {m->quadColBegin, qp.quadColBegin.data()}, {m->obj, qp.obj.data()},
      {m->rhs, qp.rhs.data()}, {m->lower, qp.lower.data()}, {m->upper, qp.upper.data()},
      {m->rowSense, qp.sense.data()}, {m->solPrimal, qp.x.data()}, {m->solDual, qp.y.data()},
      {m->rowActivity, qp.act.data()}, {m->range, nullptr},
      // The lengths and the reduced costs are the presolver's to make.
      {m->colLength, nullptr}, {m->quadColLength, nullptr}, {m->reducedCost, nullptr},
      {m->relaxColBound, nullptr}};
  for (size_t k = 0; k < sizeof borrowed / sizeof borrowed[0]; k++)
    EXPECT_EQ(borrowed[k][0], borrowed[k][1]) << "array " << k;
  EXPECT_EQ((std::vector<int32_t>{m->objSense, m->numRow, m->numCol, m->numCoef, m->numQuadCoef}),
            (std::vector<int32_t>{-1, 2, 3, 4, 1}));
  EXPECT_EQ(m->objConstant, 7.5);
  m->objValue = -3.25;
  m->iteration = 17;
  m->primalInfeas = 1e-9;
  m->complementarity = 5e-9;
  ReturnModelToQP(m, &qp.record);
  EXPECT_EQ(qp.record.objValue, -3.25);
  EXPECT_EQ(qp.record.iterations, 17);
  EXPECT_EQ(qp.record.primalInfeas, 1e-9);
  EXPECT_EQ(qp.record.complementarity, 5e-9);
  EXPECT_EQ(qp.record.objConstant, 7.5);  // the QP's status travels as the return code
  ReturnModelToQP(nullptr, &qp.record);
  ReturnModelToQP(m, nullptr);
  DestroyModel(pool, m);
  DestroyModel(pool, nullptr);

  std::vector<double> a{1, 2}, d(2);
  std::vector<int32_t> len{1, 1};
  LPRecord lp{};
  lp.numCol = 2;
  lp.matValue = a.data();
  lp.colLength = len.data();
  lp.reducedCost = d.data();
  lp.objConstant = 2.0;
  m = CreateModelFromLP(pool, &lp);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->typeModel, IPM_MODEL_LP);
  EXPECT_EQ(m->colLength, len.data());
  EXPECT_EQ(m->reducedCost, d.data());
  EXPECT_EQ(m->quadDiag, nullptr);
  EXPECT_EQ(m->objConstant, 2.0);
  m->status = 3;
  m->objValue = 11.0;
  m->iteration = 9;
  ReturnModelToLP(m, &lp);
  EXPECT_EQ(lp.status, 3);
  EXPECT_EQ(lp.objConstant, 11.0);  // the field carries the objective value back
  EXPECT_EQ(lp.iteration, 9);
  DestroyModel(pool, m);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Records, OptionsFollowTheirSourceAndThePrintRule) {
  ScripterOptions so;
  initScripter(&so);
  so.maxIteration = 40;
  so.numThreads = 2;
  for (int32_t freq : {0, 5}) {
    so.printFreq = freq;
    ipmOption* o = CreateOptionFromQP(pool, &so);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->printLevel, freq ? 2 : 1);
    EXPECT_EQ(o->maxIteration, 40);
    EXPECT_EQ(o->numThreads, 2);
    EXPECT_EQ(o->presolver, -1);
    DestroyOption(pool, o);
  }
  LPOptions* lpo = createLpOptions(&env);
  ASSERT_NE(lpo, nullptr);
  const struct { int32_t freq, level, expected; } cases[] = {
      {0, 0, 0}, {0, 1, 1}, {0, 3, 1}, {-2, 2, 1}, {1, 3, 3}};
  for (const auto& c : cases) {
    lpo->printFreq = c.freq;
    lpo->printLevel = c.level;
    lpo->verifyLevel = 5;
    lpo->rowScaleOnly = 1;
    lpo->crossover = 1;
    ipmOption* o = CreateOptionFromLP(pool, lpo);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->printLevel, c.expected) << "printFreq " << c.freq << " printLevel " << c.level;
    EXPECT_EQ((std::vector<int32_t>{o->verifyLevel, o->rowScaleOnly, o->crossover}),
              (std::vector<int32_t>{5, 1, 1}));
    EXPECT_EQ(o->maxTime, 8.988465674311578e+307);
    DestroyOption(pool, o);
  }
  poolFree(pool, lpo);
  EXPECT_EQ(liveBlocks(), 0);
}

TEST_F(Records, SolutionsStartAtZeroAndEveryRefusalIsCleanedUp) {
  double x[4], y[3];
  ipmSolution* s = nullptr;
  ASSERT_EQ(NewSolution(&env, &s, 3, 4, x, y), 0);
  EXPECT_EQ(s->solPrimal, x);
  EXPECT_EQ(s->solDual, y);
  for (int j = 0; j < 4; ++j) {
    EXPECT_EQ(s->lowerSlack[j], 0.0);
    EXPECT_EQ(s->upperDual[j], 0.0);
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(s->ineqnSlack[i], 0.0);
  FreeSolution(&env, s);
  FreeSolution(&env, nullptr);
  hxtest::OomSweep::Result r = hxtest::oomSweep(host, [&](hxtest::OomProbe& probe) {
    ipmSolution* t = reinterpret_cast<ipmSolution*>(0x1);
    int32_t status = NewSolution(&env, &t, 3, 4, x, y);
    if (probe.refused()) {
      EXPECT_EQ(t, nullptr);
    }
    FreeSolution(&env, probe.refused() ? nullptr : t);
    return status;
  });
  EXPECT_EQ(r.refusedRuns, 6);
  // Empty models still get usable records.
  ASSERT_EQ(NewSolution(&env, &s, 0, 0, nullptr, nullptr), 0);
  FreeSolution(&env, s);

  ipmStorage* st = poolNew<ipmStorage>(pool, 1);  // partly filled: frees what it has
  ASSERT_NE(st, nullptr);
  st->rangeRow = poolNew<int32_t>(pool, 4);
  st->colScale = poolNew<double>(pool, 8);
  EXPECT_EQ(liveBlocks(), 3);
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

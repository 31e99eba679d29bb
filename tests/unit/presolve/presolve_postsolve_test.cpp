// Presolve, solve what is left, postsolve: the answer must satisfy the KKT
// conditions of the caller's model, duals of removed rows included, reach the
// optimum a brute-force solve of the caller's model finds, and hand the
// caller's bounds and right side back as they were.  Then what the presolve
// tells the user.
#include <random>

#include "support/message_log.h"
#include "support/presolve_support.h"

namespace {

using namespace pretest;  // the builders are this file's vocabulary

double objective(const ipmModel& md) {
  const pretest::Dense d = pretest::denseOf(md);
  double f = 0.0;
  for (int j = 0; j < d.n; j++) {
    f += d.c[j] * md.solPrimal[j];
    for (int q = 0; q < d.n; q++) f += 0.5 * md.solPrimal[j] * d.q[j][q] * md.solPrimal[q];
  }
  return f;
}

Problem oneRow(Vec row, char sense, double rhs, Vec obj, Vec lower, Vec upper, double range = 0) {
  return lp({row}, std::string(1, sense), {rhs}, obj, lower, upper, {range});
}

class PresolvePostsolve : public HostTest {
 protected:
  PresolvePostsolve() {
    env.textLog = &hxtest::captureText;
    hxtest::textLines().clear();
  }
  // The whole round over p, checked against the caller's model.  Null when
  // that model has no optimum, or when the presolve solved it by itself.
  ipmModel* roundTrip(Round& round, Problem& p, int32_t control = -1) {
    Problem ref = p;
    ipmModel* rm = ref.build();
    ipmSolution* rs = nullptr;
    EXPECT_EQ(NewSolution(&env, &rs, rm->numRow, rm->numCol, rm->solPrimal, rm->solDual), 0);
    const bool bounded = pretest::bruteSolve(*rm, rs);
    FreeSolution(&env, rs);
    if (!bounded) return nullptr;
    ipmModel* m = p.build();
    EXPECT_EQ(round.presolve(m), 0);
    EXPECT_TRUE(control < 0 || round.pre->preControl == control) << round.pre->preControl;
    EXPECT_TRUE(round.pre->preControl == PRECONTROL_REDUCED || round.current == m);
    if (round.pre->preRoute == PREROUTE_SOLVED || round.pre->preRoute == PREROUTE_SPECIAL)
      return nullptr;
    EXPECT_TRUE(round.solveReduced()) << "no KKT point of the reduced model";
    EXPECT_EQ(round.postsolve(), 0);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(round.pre->inModel, nullptr);
    EXPECT_EQ(kktBreach(*m, *round.outer), "");
    // No worse than the brute-force KKT point: for a convex model, where that
    // point is the optimum, this is equality; a concave column must take its
    // better end.
    EXPECT_LE(objective(*m), objective(*rm) + 1e-7);
    EXPECT_NEAR(m->objValue, objective(*m), 1e-7);
    EXPECT_EQ(Vec(m->lower, m->lower + m->numCol), p.lower);
    EXPECT_EQ(Vec(m->upper, m->upper + m->numCol), p.upper);
    EXPECT_EQ(Vec(m->rhs, m->rhs + m->numRow), p.rhs);
    EXPECT_EQ(m->relaxColBound, nullptr);
    return m;
  }
};

// Models built so that a reduction meeting another, an edge of a tolerance or
// a route carries the answer: the duals of removed rows must come back from
// its books.  Plain free, redundant, forcing and implying rows are left to
// the random models below.
TEST_F(PresolvePostsolve, EachReductionKeepsOptimumAndKKT) {
  const struct {
    const char* what;
    Problem p;
    int32_t control;
  } cases[] = {
      {"everything removed", lp({{1, 1, 0, 0, 0}, {0, 2, 0, 0, 0}}, "LE", {10, 4},
                                {1, 3, 1, -2, 0}, {2, 0, 1, 0, -kFree}, {2, 5, 4, 6, kFree}),
       PRECONTROL_REDUCED},
      {"later singleton replaces a bound", lp({{1}, {1}}, "LL", {5, 3}, {-1}, {0}, {10}), -1},
      {"range row keeps its lower side", lp({{1}, {1}}, "RL", {5, 3}, {1}, {0}, {10}, {4, 0}), -1},
      {"forcing on fixed columns", oneRow({1, 1}, 'L', 0, {1, -1}, {0, 0}, {0, 0}), -1},
      {"implied within tol", oneRow({1, 1}, 'L', 10, {-1, -2}, {0, 0}, {10 + 1e-6, 10 + 2e-6}),
       -1},
      {"unreachable range end", oneRow({1, 1}, 'R', 20, {1, 2}, {0, 0}, {5, 5}, 19),
       PRECONTROL_REDUCED},
      {"nothing applies", lp({{1, 1}, {1, -1}}, "GL", {1, 5}, {1, 2}, {0, 0}, {kFree, kFree}),
       PRECONTROL_NONE},
      {"a QP is always reduced",
       qp(lp({{1, 1}, {1, -1}}, "GL", {1, 5}, {1, 2}, {0, 0}, {kFree, kFree}), {1, 1}),
       PRECONTROL_REDUCED},
      {"only bounds moved", lp({{1, 1}, {-1, 1}}, "LL", {10, 5}, {-1, 0}, {0, 0}, {20, 20}),
       PRECONTROL_BOUND},
      {"quadratic columns fixed, empty and live",
       qp(lp({{1, 1, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 1, 1}}, "LE", {4, 2},
             {-4, 0, -2, 3, 0, 0, -2}, {0, 2, 0, 0, -1, 0, 0}, {10, 2, 5, 4, 2, 10, 10}),
          {1, 1, 2, 1, -2, 1, 1}, {{0, 1, 0.5}, {5, 6, 0.5}}),
       PRECONTROL_REDUCED},
      {"fixed column with pairs in both triangles",
       qp(lp({{1, 2, 1}}, "L", {10}, {1, 1, 1}, {0, 3, 0}, {5, 3, 5}), {1, 1, 1},
          {{0, 1, 0.5}, {1, 2, -2}}), -1},
      {"off-diagonal keeps an empty column",
       qp(oneRow({1, 0}, 'L', 1, {1, 1}, {0, 0}, {5, 5}), {1, 1}, {{0, 1, 0.5}}), -1},
      {"free convex empty column",
       qp(oneRow({1, 0, 0}, 'L', 1, {0, 1, 0}, {0, -kFree, -kFree}, {5, kFree, kFree}), {0, 2, 0}),
       -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Problem p = c.p;
    Round round(&env);
    EXPECT_NE(roundTrip(round, p, c.control), nullptr);
  }
}

// Tiny random LPs and diagonal QPs, feasible by construction, with fixed,
// free, empty and singleton structure mixed in.
TEST_F(PresolvePostsolve, RandomModelsKeepTheirOptimumAndKKT) {
  std::mt19937 rng(2024);
  auto uni = [&](int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); };
  int solved = 0, reduced = 0;
  for (int trial = 0; trial < 300 && !HasFailure(); trial++) {
    const int n = uni(1, 4), m = uni(1, 3);
    pretest::Mat a(m, Vec(n, 0.0));
    Vec lo(n), up(n), x0(n), c(n), rhs(m), range(m, 0.0), diag(n);
    for (int j = 0; j < n; j++) {
      lo[j] = uni(-2, 0);
      up[j] = lo[j] + uni(0, 3);
      const int kind = uni(0, 7);
      if (kind == 1 || kind == 3) lo[j] = -kFree;
      if (kind == 2 || kind == 3) up[j] = kFree;
      x0[j] = lo[j] > -kFree ? lo[j] + (up[j] < kFree ? uni(0, (int)(up[j] - lo[j])) : uni(0, 2))
                             : (up[j] < kFree ? up[j] - uni(0, 2) : uni(-2, 2));
      c[j] = uni(-3, 3);
      diag[j] = uni(0, 2);
      for (int i = 0; i < m; i++)
        if (uni(0, 1)) a[i][j] = uni(-2, 2);
    }
    std::string sense;
    for (int i = 0; i < m; i++) {
      double act = 0.0;
      for (int j = 0; j < n; j++) act += a[i][j] * x0[j];
      sense += "ELGRN"[uni(0, 4)];
      rhs[i] = act + (sense[i] == 'E' ? 0 : sense[i] == 'G' ? -uni(0, 1) : uni(0, 1));
      if (sense[i] == 'R') range[i] = uni(1, 3);  // [rhs - range, rhs] holds act
    }
    Problem p = lp(a, sense, rhs, c, lo, up, range);
    if (uni(0, 2) == 0) p = qp(p, diag);
    SCOPED_TRACE(::testing::Message() << "trial " << trial);
    Round round(&env);
    if (!roundTrip(round, p)) continue;
    reduced += round.pre->preControl == PRECONTROL_REDUCED;
    solved++;
  }
  EXPECT_GT(solved, 150);
  EXPECT_GT(reduced, 30);
}

// Where the caller's model leaves a choice, the presolver's is fixed.
TEST_F(PresolvePostsolve, ChoicesLeftOpenByTheModel) {
  // Empty columns without cost: 0 when free, else the finite end nearest 0.
  Problem p = lp({{1, 0, 0, 0}}, "L", {1}, {-1, 0, 0, 0}, {0, -kFree, -kFree, 3},
                 {5, kFree, 7, 9});
  Round round(&env);
  const ipmModel* m = roundTrip(round, p, PRECONTROL_REDUCED);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(Vec(m->solPrimal, m->solPrimal + 4), (Vec{1, 0, 7, 3}));
  EXPECT_EQ(round.outer->upperSlack[3], 6.0);
  // A concave column takes its lower end on a tie.
  Problem q = qp(lp({{1, 0}}, "L", {1}, {-1, 0}, {0, -2}, {5, 2}), {0, -1});
  Round tie(&env);
  ASSERT_NE(m = roundTrip(tie, q, PRECONTROL_REDUCED), nullptr);
  EXPECT_EQ(m->solPrimal[1], -2.0);
  // A singleton row that moves the bound 5 by less than tol leaves the bound
  // the caller's own, and its dual on it.
  Problem s = lp({{1, 1}, {1, 0}}, "LL", {100, 5 - 5e-8}, {-1, 1}, {0, 0}, {5, 5});
  Round small(&env);
  ASSERT_NE(roundTrip(small, s, PRECONTROL_REDUCED), nullptr);
  EXPECT_EQ(small.pre->rowMap[1], ROWMAP_UPPER);
  EXPECT_NEAR(small.outer->upperDual[0], 1.0, 1e-12);
  EXPECT_EQ(small.current->solDual[1], 0.0);
}

// Verdicts the presolve reaches on its own, and what it leaves behind then.
TEST_F(PresolvePostsolve, InfeasibleAndUnboundedModelsStopThePresolve) {
  const int32_t kPrimal = IPM_STATUS_PRIMAL_INFEASIBLE, kDual = IPM_STATUS_DUAL_INFEASIBLE;
  const struct {
    const char* what;
    Problem p;
    int32_t status;
  } cases[] = {
      {"singleton equation off the box", oneRow({2}, 'E', 4, {0}, {0}, {1}), kPrimal},
      {"singleton row below the bound", oneRow({1}, 'L', 5, {0}, {6}, {kFree}), kPrimal},
      {"forcing row out of reach", oneRow({1, 1}, 'G', 11, {0, 0}, {0, 0}, {5, 5}), kPrimal},
      {"crossed bounds", oneRow({1}, 'L', 1, {0}, {2}, {1}), kPrimal},
      {"crossed within tol", oneRow({1}, 'L', 1, {0}, {1 + 1e-7}, {1}), 0},
      {"no finite bound at all", oneRow({1}, 'L', 1, {0}, {kFree}, {kFree}), kDual},
      {"empty row above tol", lp({{0}}, "G", {2e-6}, {1}, {0}, {1}), kPrimal},
      {"empty row within tol", lp({{0}}, "G", {1e-6}, {1}, {0}, {1}), 0},
      {"empty range row", lp({{0}}, "R", {1}, {1}, {0}, {1}, {0.5}), kPrimal},
      {"singleton fixing a column twice", lp({{1, 1}, {2, 0}}, "LE", {5, 4}, {1, 1}, {0, 0}, {1, 1}),
       kPrimal},
      {"empty column falling", oneRow({1, 0}, 'L', 1, {0, 1}, {0, -kFree}, {5, 0}), kDual},
      {"empty column rising", oneRow({1, 0}, 'L', 1, {0, -1}, {0, 0}, {5, kFree}), kDual},
      {"concave free empty column",
       qp(oneRow({1, 0}, 'L', 1, {0, 0}, {0, -kFree}, {5, kFree}), {0, -1}), kDual},
  };
  for (const auto& c : cases) {
    Problem p = c.p;
    {
      Round round(&env);
      EXPECT_EQ(round.presolve(p.build()), c.status) << c.what;
    }
    EXPECT_EQ(liveBlocks(), 0) << c.what;
  }
}

// A failed solve is mapped back but neither evaluated nor repaired.
TEST_F(PresolvePostsolve, FailedSolveIsMappedBackAsItIs) {
  Problem p = lp({{1, 1}, {1, 0}}, "LL", {4, 3}, {-1, -1}, {0, 0}, {10, 10});
  Round round(&env);
  ipmModel* m = p.build();
  ASSERT_EQ(round.presolve(m), 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
  round.current->status = IPM_STATUS_FAILED;
  m->reducedCost[0] = 1234.0;
  ASSERT_EQ(round.postsolve(), 0);
  EXPECT_EQ(round.current, m);
  EXPECT_EQ(m->status, IPM_STATUS_FAILED);
  EXPECT_EQ(m->reducedCost[0], 1234.0);
}

TEST_F(PresolvePostsolve, QpSummaryGoesToTheMessageLog) {
  Problem p = qp(lp({{1, 1}}, "L", {4}, {1, 1}, {0, 0}, {kFree, 3}), {1, 1});
  hxtest::RecordingLog messages{{0x827FD86D, 0x827FD86E}};
  env.messageLog = &messages.base;
  using Seen = std::vector<std::vector<int64_t>>;
  auto seen = [&] {  // severity, low half of the code, first value
    Seen all;
    for (size_t k = 0; k < messages.codes.size(); k++)
      all.push_back({messages.severities[k], messages.codes[k] & 0xFFFF, messages.values[k]});
    return all;
  };
  auto run = [&](int32_t presolver, Problem& q, int32_t printLevel = 2) {
    messages.clear();
    Round round(&env);
    round.option.printLevel = printLevel;
    round.option.presolver = presolver;
    EXPECT_EQ(round.presolve(q.build()), 0);
    return round.pre->numRemovedCol;
  };
  // Unknown value 7: an error naming it, then on, removed, elements, done.
  const int32_t removed = run(7, p);
  EXPECT_EQ(seen(), (Seen{{MSG_ERROR, 0xD86D, 7}, {MSG_INFO, 0xD869, 0},
                          {MSG_INFO, 0xD86E, removed}, {MSG_INFO, 0xD86F, 0},
                          {MSG_INFO, 0xD864, 0}}));
  run(0, p);
  EXPECT_EQ(seen(), (Seen{{MSG_INFO, 0xD868, 0}, {MSG_INFO, 0xD864, 0}}));
  run(2, p);
  ASSERT_FALSE(hxtest::textLines().empty());
  EXPECT_EQ(hxtest::textLines().back().format, "%3zThe PRESOLVER value MODERATE (2) is mapped to value AUTOMATIC.");
  run(0, p, 0);  // silent with printLevel 0, and for an LP
  EXPECT_TRUE(messages.codes.empty());
  Problem linear = p;
  linear.type = IPM_MODEL_LP;
  run(0, linear);
  EXPECT_TRUE(messages.codes.empty());
  env.messageLog = nullptr;
}

// What the books and the sense check tell of a broken model.
TEST_F(PresolvePostsolve, BooksReportBoundsTakenFromFinishedRows) {
  int32_t rowMap[3] = {ROWMAP_FIXED, ROWMAP_EMPTY, 0};
  int32_t ubMap[2] = {0, 1};
  updateMapUpper(&env, rowMap, ubMap, 0, 2);
  updateMapLower(&env, rowMap, ubMap, 1, 2);
  ASSERT_EQ(hxtest::textLines().size(), 2u);
  EXPECT_EQ(hxtest::textLines()[0].text, "Error updateMapUpper: col=0  row=2  ROWMAP_FIXED shall never change bound again.");
  EXPECT_EQ(hxtest::textLines()[1].text, "Error updateMapLower: col=1  row=2  ROWMAP_EMPTY shall never change bound again.");
  // The map takes the new row all the same.
  EXPECT_EQ(ubMap[0], 2);
  EXPECT_EQ(ubMap[1], 2);
  Problem p = lp({{1}}, "x", {1}, {1}, {0}, {1});
  Round round(&env);
  EXPECT_EQ(round.presolve(p.build()), IPM_STATUS_FAILED);
  EXPECT_EQ(hxtest::textLines().back().text, "unknown row type x.");
}

}  // namespace

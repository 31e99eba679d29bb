// The presolver's reductions one by one: what each does to the working
// copies, the counters and the books of which row defines which bound.
#include <stdarg.h>
#include <stdio.h>

#include "support/message_log.h"
#include "support/presolve_support.h"

namespace {

using pretest::kFree;
using pretest::lp;
using pretest::Problem;
using pretest::Vec;

// A presolver made over a problem, as ipmPresolve makes it.
struct Made {
  HalvexEnv* env;
  Problem p;
  ipmOption option = pretest::defaultOption();
  presolver* pre = nullptr;
  ipmModel* m = nullptr;
  int32_t status;
  Made(HalvexEnv* e, Problem problem) : env(e), p(std::move(problem)) {
    m = p.build();
    pre = poolNew<presolver>(env->pool, 1);
    status = CreatePresolver(env, m, &option, pre);
  }
  ~Made() { DestroyPresolver(env, m, pre); }
  int32_t singleton() { return removeSingletonRow(env, m, &option, pre, 0); }
  int32_t tighten() { return tightenBound(env, m, &option, pre, 0); }
  int32_t loop() { return ipmPreLoop(env, m, &option, pre); }
};

Problem oneRow(Vec row, char sense, double rhs, Vec lower, Vec upper, double range = 0.0) {
  return lp({row}, std::string(1, sense), {rhs}, Vec(row.size(), 0.0), lower, upper, {range});
}

class PresolveRows : public HostTest {};
class PresolveBounds : public HostTest {};
class PresolveColumns : public HostTest {};
class PresolveControl : public HostTest {};

TEST_F(PresolveRows, FreeRowsGoAndSensesAreNormalised) {
  Problem p = lp({{1, 2, 3}, {1, 1, 0}, {0, 1, 1}}, "nlg", {0, 4, 1}, {1, 1, 1}, {0, 0, 0},
                 {5, 5, 5});
  Made made(&env, p);
  ASSERT_EQ(made.status, 0);
  presolver* pre = made.pre;
  ASSERT_EQ(removeFreeRow(&env, made.m, pre), 0);
  EXPECT_EQ(std::string(pre->rowSense, 3), "NLG");
  EXPECT_EQ(pre->rowMap[0], ROWMAP_FREE);
  EXPECT_EQ(pre->rowMap[1], 0);
  EXPECT_EQ(pre->numRemovedRow, 1);
  EXPECT_EQ(pre->numRemovedElement, 3);
  // The free row's entries left every column's live part.
  const int32_t lengths[] = {1, 2, 1};
  for (int j = 0; j < 3; j++) {
    EXPECT_EQ(pre->colLength[j], lengths[j]);
    for (int k = pre->colBegin[j]; k < pre->colBegin[j] + pre->colLength[j]; k++)
      EXPECT_NE(pre->rowIndex[k], 0);
  }
  // An unknown sense stops the pass and leaves the counters alone.
  p.sense = "nLx";
  Made bad(&env, p);
  EXPECT_EQ(removeFreeRow(&env, bad.m, bad.pre), IPM_STATUS_FAILED);
  EXPECT_EQ(bad.pre->numRemovedRow, 0);
  EXPECT_EQ(bad.pre->numRemovedElement, 0);
}

TEST_F(PresolveRows, EmptyRowsMustHoldAtZeroActivity) {
  const double tol = 1e-6;
  Made made(&env, lp({{0}, {0}, {0}, {0}, {0}, {0}, {0}}, "GGELRRE",
                     {tol, 2 * tol, 1e-3, -1, 1, 1, 7}, {1}, {0}, {1}, {0, 0, 0, 0, 3, 0.5, 0}));
  const int32_t expected[] = {0, 3, 3, 3, 0, 3, 3};
  for (int i = 0; i < 7; i++) {
    EXPECT_EQ(removeEmptyRow(&env, made.m, &made.option, made.pre, i), expected[i]) << "row " << i;
    EXPECT_EQ(made.pre->rowMap[i], ROWMAP_EMPTY);
  }
  EXPECT_EQ(made.pre->numRemovedRow, 7);
  // The equation solver's models do not look at the right side.
  made.pre->typeModel = PRESOLVE_MODEL_EQUATION;
  EXPECT_EQ(removeEmptyRow(&env, made.m, &made.option, made.pre, 6), 0);
}

TEST_F(PresolveRows, SingletonRowsBecomeBoundsOrFail) {
  const double none = -99;  // the bound map is not looked at
  const struct {
    double coef;
    char sense;
    double rhs, lower, upper, range;
    int32_t status, rowMap;
    double newLower, newUpper;
    int32_t lbMap, ubMap;
  } cases[] = {
      {2, 'E', 4, 0, 1, 0, IPM_STATUS_PRIMAL_INFEASIBLE, 0, 0, 0, -1, -1},
      {2, 'E', 4, 2, 2, 0, 0, ROWMAP_FREE, 2, 2, -1, -1},  // already fixed there
      {2, 'E', 4, 0, 5, 0, 0, ROWMAP_FIXED, 2, 2, 0, 0},
      {1, 'L', 5, 0, 3, 0, 0, ROWMAP_FREE, 0, 3, -1, -1},  // adds nothing to the bound 3
      {-1, 'L', 5, -10, kFree, 0, 0, ROWMAP_LOWER, -5, kFree, 0, -1},  // -x <= 5 is x >= -5
      {2, 'G', 2, 0, kFree, 0, 0, ROWMAP_LOWER, 1, kFree, 0, -1},
      {1, 'L', 5, 6, kFree, 0, IPM_STATUS_PRIMAL_INFEASIBLE, 0, 0, 0, -1, -1},
      {-1, 'R', -1, 0, 10, 4, 0, ROWMAP_RANGE, 1, 5, 0, 0},  // -x in [-5, -1]
      // A range narrower than a hundredth of tol fixes the column exactly.
      {1, 'R', 2 + 1e-10, 0, 10, 1e-10, 0, ROWMAP_RANGE, none, none, 0, 0},
  };
  for (const auto& c : cases) {
    Made made(&env, oneRow({c.coef}, c.sense, c.rhs, {c.lower}, {c.upper}, c.range));
    const std::string at = std::string(1, c.sense) + " " + std::to_string(c.rhs);
    ASSERT_EQ(made.singleton(), c.status) << at;
    if (c.status != 0) continue;
    EXPECT_EQ(made.pre->rowMap[0], c.rowMap) << at;
    EXPECT_EQ(made.pre->lbMap[0], c.lbMap) << at;
    EXPECT_EQ(made.pre->ubMap[0], c.ubMap) << at;
    if (c.newLower == none) {
      EXPECT_EQ(made.pre->lowerBound[0], made.pre->upperBound[0]);
    } else {
      EXPECT_EQ(made.pre->lowerBound[0], c.newLower) << at;
      EXPECT_EQ(made.pre->upperBound[0], c.newUpper) << at;
    }
    if (c.rowMap == ROWMAP_FIXED) {  // the entry leaves with the row
      EXPECT_EQ(made.pre->colLength[0], 0);
      EXPECT_EQ(made.pre->numRemovedElement, 1);
    }
  }
}

TEST_F(PresolveRows, LaterSingletonDemotesTheRowItReplaces) {
  {  // x <= 5, then x <= 3: the first row defines nothing any more
    Made made(&env, lp({{1}, {1}}, "LL", {5, 3}, {-1}, {0}, {10}));
    ASSERT_EQ(made.loop(), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->rowMap[1], ROWMAP_UPPER);
    EXPECT_EQ(made.pre->ubMap[0], 1);
    EXPECT_EQ(made.pre->upperBound[0], 3.0);
  }
  {  // 1 <= x <= 5, then x <= 3: the range row keeps its lower side
    Made made(&env, lp({{1}, {1}}, "RL", {5, 3}, {-1}, {0}, {10}, {4, 0}));
    ASSERT_EQ(made.loop(), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_LOWER);
    EXPECT_EQ(made.pre->rowMap[1], ROWMAP_UPPER);
    EXPECT_EQ(made.pre->lbMap[0], 0);
    EXPECT_EQ(made.pre->ubMap[0], 1);
    EXPECT_EQ(made.pre->lowerBound[0], 1.0);
    EXPECT_EQ(made.pre->upperBound[0], 3.0);
  }
}

TEST_F(PresolveBounds, RedundantAndForcingRowsGoOrFail) {
  {  // x + y <= 10 with both in [0, 5] can never bind
    Made made(&env, oneRow({1, 1}, 'L', 10, {0, 0}, {5, 5}));
    made.pre->colDone[0] = made.pre->colDone[1] = 1;
    ASSERT_EQ(made.tighten(), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FREE);
    EXPECT_EQ(made.pre->colLength[0] + made.pre->colLength[1], 0);
    EXPECT_EQ(made.pre->colDone[0] + made.pre->colDone[1], 0);
    EXPECT_EQ(made.pre->numRemovedElement, 2);
  }
  {  // -x + y >= 5 with x, y in [0, 5] forces x down and y up
    Made made(&env, oneRow({-1, 1}, 'G', 5, {0, 0}, {5, 5}));
    ASSERT_EQ(made.tighten(), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_FIXED);
    EXPECT_EQ(made.pre->upperBound[0], 0.0);
    EXPECT_EQ(made.pre->lowerBound[1], 5.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->lbMap[1], 0);
    // Forcing leaves the entries to the removal of the fixed columns.
    EXPECT_EQ(made.pre->rowLength[0], 2);
  }
  {  // already fixed: forcing without effect
    Made made(&env, oneRow({1, 1}, 'L', 0, {0, 0}, {0, 0}));
    ASSERT_EQ(made.tighten(), 0);
    EXPECT_EQ(made.pre->rowMap[0], ROWMAP_EMPTY);
    EXPECT_EQ(made.pre->lbMap[0], -1);
    EXPECT_EQ(made.pre->ubMap[0], -1);
  }
  Made infeasible(&env, oneRow({1, 1}, 'G', 11, {0, 0}, {5, 5}));
  EXPECT_EQ(infeasible.tighten(), IPM_STATUS_PRIMAL_INFEASIBLE);
}

TEST_F(PresolveBounds, ImpliedBoundsFromActivity) {
  {  // an improvement of exactly tol is not taken, one of 2 tol is
    Made made(&env, oneRow({1, 1}, 'L', 10, {0, 0}, {10 + 1e-6, 10 + 2e-6}));
    ASSERT_EQ(made.tighten(), 0);
    EXPECT_EQ(made.pre->upperBound[0], 10 + 1e-6);
    EXPECT_EQ(made.pre->ubMap[0], -1);
    EXPECT_EQ(made.pre->upperBound[1], 10.0);
    EXPECT_EQ(made.pre->ubMap[1], 0);
  }
  {  // negative coefficient on a G row bounds from above: -x + y >= 2, y <= 5
    Made made(&env, oneRow({-1, 1}, 'G', 2, {0, 0}, {kFree, 5}));
    ASSERT_EQ(made.tighten(), 0);
    EXPECT_DOUBLE_EQ(made.pre->upperBound[0], 3.0);
    EXPECT_DOUBLE_EQ(made.pre->lowerBound[1], 2.0);
    EXPECT_EQ(made.pre->ubMap[0], 0);
    EXPECT_EQ(made.pre->lbMap[1], 0);
  }
}

TEST_F(PresolveBounds, RangeRowGivesUpAnUnreachableEnd) {
  Problem p = oneRow({1, 1}, 'R', 20, {0, 0}, {5, 5}, 19);
  p.obj = {1, 2};
  ipmModel* m = p.build();
  pretest::Round round(&env);
  ASSERT_EQ(round.presolve(m), 0);
  EXPECT_EQ(round.pre->numChangeRange, 1);
  EXPECT_EQ(round.pre->numRemovedRow + round.pre->numRemovedCol, 0);
  ASSERT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
  EXPECT_EQ(round.current->rowSense[0], 'G');
  EXPECT_EQ(round.current->rhs[0], 1.0);
  EXPECT_EQ(round.current->range[0], 0.0);
  EXPECT_EQ(round.storage->numRange, 0);
  // The caller's model is untouched meanwhile.
  EXPECT_EQ(m->rowSense[0], 'R');
  EXPECT_EQ(m->rhs[0], 20.0);
}

TEST_F(PresolveBounds, InfeasibleOrMeaninglessBounds) {
  const struct {
    double lower, upper;
    int32_t status;
  } cases[] = {{2, 1, IPM_STATUS_PRIMAL_INFEASIBLE},
               {kFree, kFree, IPM_STATUS_DUAL_INFEASIBLE},
               {1 + 1e-7, 1, 0}};  // crossing within tol is accepted
  for (const auto& c : cases) {
    Made made(&env, oneRow({1}, 'L', 1, {c.lower}, {c.upper}));
    EXPECT_EQ(detectInfeasBound(&env, made.m, &made.option, made.pre), c.status) << c.lower;
  }
}

TEST_F(PresolveColumns, EmptyColumnsAndTheirDirection) {
  {  // cost 1 and no lower bound: unbounded
    Problem p = oneRow({1, 0}, 'L', 1, {0, -kFree}, {5, 0});
    p.obj = {0, 1};
    Made made(&env, p);
    EXPECT_EQ(made.loop(), IPM_STATUS_DUAL_INFEASIBLE);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_EMPTY);
  }
  {  // cost -1 and no upper bound
    Problem p = oneRow({1, 0}, 'L', 1, {0, 0}, {5, kFree});
    p.obj = {0, -1};
    Made made(&env, p);
    EXPECT_EQ(made.loop(), IPM_STATUS_DUAL_INFEASIBLE);
  }
  {  // convex QP column without bounds is fine, a concave one is not
    Problem p = pretest::qp(oneRow({1, 0, 0}, 'L', 1, {0, -kFree, -kFree}, {5, kFree, kFree}),
                            {0, 2, 0});
    p.obj = {0, 1, 0};
    Made made(&env, p);
    EXPECT_EQ(removeEmptyCol(&env, made.m, &made.option, made.pre, 1), 0);
    EXPECT_EQ(made.pre->colMap[1], COLMAP_EMPTY);
    made.m->quadDiag[2] = -1;
    EXPECT_EQ(removeEmptyCol(&env, made.m, &made.option, made.pre, 2),
              IPM_STATUS_DUAL_INFEASIBLE);
  }
  {  // an off-diagonal entry keeps an otherwise empty column live
    Problem p = pretest::qp(oneRow({1, 0}, 'L', 1, {0, 0}, {5, 5}), {1, 1}, {{0, 1, 0.5}});
    p.obj = {1, 1};
    Made made(&env, p);
    ASSERT_EQ(made.loop(), 0);
    EXPECT_EQ(made.pre->colMap[1], 0);
    EXPECT_EQ(made.pre->numRemovedCol, 0);
  }
}

TEST_F(PresolveColumns, FixedColumnMovesIntoRightSideAndCosts) {
  // Pairs (0,1) in column 1 and (1,2) in column 2.
  Made made(&env, pretest::qp(lp({{1, 2, 1}}, "L", {10}, {1, 1, 1}, {0, 3, 0}, {5, 3, 5}),
                              {1, 1, 1}, {{0, 1, 0.5}, {1, 2, -2}}));
  ASSERT_EQ(removeFixedCol(&env, made.m, &made.option, made.pre, 1), 0);
  presolver* pre = made.pre;
  EXPECT_EQ(pre->colMap[1], COLMAP_FIXED);
  EXPECT_DOUBLE_EQ(pre->rhs[0], 10 - 2 * 3);
  EXPECT_EQ(pre->rowLength[0], 2);
  EXPECT_DOUBLE_EQ(pre->obj[0], 1 + 0.5 * 3);
  EXPECT_DOUBLE_EQ(pre->obj[2], 1 - 2 * 3);
  EXPECT_EQ(pre->numRemovedElement, 1);
  EXPECT_EQ(pre->numRemovedQuadElement, 2);
  EXPECT_EQ(pre->quadColLength[1] + pre->quadRowLength[1], 0);
  EXPECT_EQ(pre->quadColLength[2] + pre->quadRowLength[0], 0);
  // The entries stay behind the column's length for the structure check.
  EXPECT_EQ(pre->colLength[1], 1);
}

TEST_F(PresolveControl, ResultDependsOnWhatChanged) {
  // x + y >= 1, x - y <= 5 on x, y >= 0: no row can be removed or imply a
  // bound.
  Problem loose = lp({{1, 1}, {1, -1}}, "GL", {1, 5}, {-1, -1}, {0, 0}, {kFree, kFree});
  {  // nothing applies
    ipmModel* m = loose.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_NONE);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(round.pre->numPass, 0);
  }
  {  // the same as a QP always gets a reduced model
    Problem q = pretest::qp(loose, {1, 1});
    ipmModel* m = q.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    EXPECT_EQ(round.pre->preControl, PRECONTROL_REDUCED);
    EXPECT_NE(round.current, m);
    EXPECT_EQ(round.current->numCoef, 4);
    EXPECT_EQ(round.current->quadDiag[1], 1.0);
  }
  {  // only bounds moved: the caller's model serves with swapped bounds
    Problem p = lp({{1, 1}, {1, -1}}, "LG", {10, -3}, {-1, -1}, {0, 0}, {20, 20});
    ipmModel* m = p.build();
    pretest::Round round(&env);
    ASSERT_EQ(round.presolve(m), 0);
    ASSERT_EQ(round.pre->preControl, PRECONTROL_BOUND);
    EXPECT_EQ(round.current, m);
    EXPECT_EQ(m->upper[0], 10.0);  // x <= 10 - y
    EXPECT_EQ(round.pre->upperBound[0], 20.0);
    // The row that implied the bound stays, so the bound may be relaxed.
    ASSERT_NE(m->relaxColBound, nullptr);
    EXPECT_TRUE(m->relaxColBound[0] & RELAX_NO_UPPER);
  }
}

TEST_F(PresolveControl, PassLimitStopsWithWorkLeft) {
  const Problem p = lp({{1, 1}, {0, 1}}, "EE", {2, 1}, {1, 1}, {0, 0}, {5, 5});
  Made limited(&env, p);
  limited.pre->maxPass = 1;
  ASSERT_EQ(limited.loop(), 0);
  EXPECT_EQ(limited.pre->numPass, 1);
  // y was fixed by its singleton row but the sweep that removes it never came.
  EXPECT_EQ(limited.pre->rowMap[1], ROWMAP_FIXED);
  EXPECT_EQ(limited.pre->colMap[1], 0);
  Made made(&env, p);
  ASSERT_EQ(made.loop(), 0);
  EXPECT_EQ(made.pre->colMap[0], COLMAP_FIXED);
  EXPECT_EQ(made.pre->colMap[1], COLMAP_FIXED);
  EXPECT_DOUBLE_EQ(made.pre->lowerBound[0], 1.0);
  EXPECT_EQ(made.pre->numRemovedRow, 2);
}

TEST_F(PresolveControl, FreeColumnsWithOnlyEquationsGoToTheSpecialSolve) {
  Problem p = lp({{1, 1}, {1, -1}}, "EE", {2, 0}, {1, 1}, {-kFree, -kFree}, {kFree, kFree});
  pretest::Round round(&env);
  const int32_t status = round.presolve(p.build());
  // The presolver is never made on this road.
  EXPECT_EQ(round.pre->rowMap, nullptr);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(round.pre->preRoute, PREROUTE_SOLVED);
}

TEST_F(PresolveControl, DisabledPresolveOnlyCountsAndAllocates) {
  Problem p = lp({{1, 1}, {1, -1}, {1, 0}}, "RLL", {4, 1, 3}, {1, 1}, {0, 0}, {5, 5}, {2, 0, 0});
  Problem empty = lp({}, "", {}, {1}, {0}, {1});
  pretest::Round round(&env), other(&env);
  round.prepare();
  other.prepare();
  ASSERT_EQ(ipmPresolveDisabled(&env, p.build(), &round.option, round.pre, round.storage,
                                &round.outer, &round.inner),
            0);
  EXPECT_EQ(round.pre->preControl, PRECONTROL_NONE);
  EXPECT_EQ(round.storage->numRange, 1);
  EXPECT_EQ(round.storage->numLcont, 2);
  EXPECT_EQ(round.inner, round.outer);
  EXPECT_EQ(round.pre->rowMap, nullptr);
  EXPECT_EQ(ipmPresolveDisabled(&env, empty.build(), &other.option, other.pre, other.storage,
                                &other.outer, &other.inner),
            IPM_STATUS_FAILED);
}

TEST_F(PresolveControl, QpSummaryGoesToTheMessageLog) {
  Problem p = pretest::qp(oneRow({1, 1}, 'L', 4, {0, 0}, {kFree, 3}), {1, 1});
  p.obj = {1, 1};
  hxtest::RecordingLog messages{{0x827FD86D, 0x827FD86E}};
  env.messageLog = &messages.base;
  env.textLog = &hxtest::captureText;
  hxtest::textLines().clear();
  using Seen = std::vector<std::vector<int64_t>>;
  auto seen = [&] {  // severity, low half of the code, first value
    Seen all;
    for (size_t k = 0; k < messages.codes.size(); k++)
      all.push_back({messages.severities[k], messages.codes[k] & 0xFFFF, messages.values[k]});
    return all;
  };
  auto run = [&](int32_t presolver, Problem& q, int32_t printLevel = 2) {
    messages.clear();
    pretest::Round round(&env);
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
  env.textLog = nullptr;
}

TEST_F(PresolveRows, BooksReportBoundsTakenFromFinishedRows) {
  env.textLog = &hxtest::captureText;
  hxtest::textLines().clear();
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
  Made made(&env, lp({{1}}, "x", {1}, {1}, {0}, {1}));
  EXPECT_EQ(removeFreeRow(&env, made.m, made.pre), IPM_STATUS_FAILED);
  EXPECT_EQ(hxtest::textLines().back().text, "unknown row type x.");
  env.textLog = nullptr;
}

}  // namespace

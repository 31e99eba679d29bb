// bramlet: LP presolve and postsolve checked through the KKT conditions of the
// caller's LP, and scaling and unscaling round trips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "siblings/bramlet/bramlet.h"
#include "support/lp_builder.h"
#include "support/presolve_support.h"

namespace {

const double kInf = hxtest::kLpInf;
using hxtest::TestLP;

int colEnd(const LPRecord& lp, int j) {
  return lp.colLength ? lp.colBegin[j] + lp.colLength[j] : lp.colBegin[j + 1];
}

// The reference for tiny LPs: the caller's LP in the solver's own form,
// solved by trying every active set.  Free rows are left out with a zero
// dual; bounds flagged in relax count as absent.  Writes x and y in the
// caller's sense.
bool solveDense(const LPRecord& lp, const uint8_t* relax, std::vector<double>* xOut,
                std::vector<double>* yOut) {
  const int m = lp.numRow, n = lp.numCol;
  std::vector<int> kept;
  for (int i = 0; i < m; i++)
    if (lp.rowSense[i] != 'N') kept.push_back(i);
  pretest::Mat a(kept.size(), pretest::Vec(n, 0.0));
  std::vector<int> at(m, -1);
  std::string sense;
  pretest::Vec rhs, range, c(n), lo(n), up(n);
  for (size_t k = 0; k < kept.size(); k++) {
    const int i = kept[k];
    at[i] = (int)k;
    const double width = lp.rowSense[i] == 'R' ? lp.range[i] : 0.0;
    sense += lp.rowSense[i];
    rhs.push_back(lp.rhs[i] + width);  // the solver's range rows end at their right side
    range.push_back(width);
  }
  for (int j = 0; j < n; j++) {
    for (int p = lp.colBegin[j]; p < colEnd(lp, j); p++)
      if (at[lp.rowIndex[p]] >= 0) a[at[lp.rowIndex[p]]][j] += lp.matValue[p];
    c[j] = lp.objSense * lp.obj[j];
    lo[j] = relax && (relax[j] & RELAX_NO_LOWER) ? -pretest::kFree : lp.lower[j];
    up[j] = relax && (relax[j] & RELAX_NO_UPPER) ? pretest::kFree : lp.upper[j];
  }
  pretest::Problem p = pretest::lp(a, sense, rhs, c, lo, up, range);
  ipmModel* md = p.build();
  std::vector<double> y(kept.size() + 1), work(5 * (n + 1) + m);
  xOut->assign(n + 1, 0.0);
  ipmSolution s{xOut->data(), y.data(), &work[0], &work[n + 1], &work[2 * (n + 1)],
                &work[3 * (n + 1)], &work[4 * (n + 1)]};
  if (!pretest::bruteSolve(*md, &s)) return false;
  xOut->resize(n);
  yOut->assign(m, 0.0);
  for (int i = 0; i < m; i++)
    if (at[i] >= 0) (*yOut)[i] = lp.objSense * y[at[i]];
  return true;
}

double objectiveOf(const TestLP& lp, const std::vector<double>& x) {
  if ((int)x.size() < lp.n) return NAN;
  double v = lp.objConstant;
  for (int j = 0; j < lp.n; j++) v += lp.obj[j] * x[j];
  return v;
}

// The KKT conditions of the caller's LP at what postsolve wrote.
void expectKKT(TestLP& lp, double tol = 1e-7) {
  const LPRecord& r = lp.rec;
  std::vector<double> act(lp.m, 0.0), z(lp.obj);
  for (int j = 0; j < lp.n; j++)
    for (int p = lp.colBegin[j]; p < lp.colBegin[j] + lp.colLength[j]; p++) {
      act[lp.rowIndex[p]] += lp.val[p] * lp.x[j];
      z[j] -= lp.val[p] * lp.y[lp.rowIndex[p]];
    }
  for (int i = 0; i < lp.m; i++) {
    double lo, hi;
    lp.rowBounds(i, &lo, &hi);
    EXPECT_NEAR(lp.act[i], act[i], tol) << "activity of row " << i;
    if (lo > -kInf) { EXPECT_GE(act[i], lo - tol) << "row " << i; }
    if (hi < kInf) { EXPECT_LE(act[i], hi + tol) << "row " << i; }
    const double y = lp.sense * lp.y[i];
    if (y > tol) { EXPECT_NEAR(act[i], lo, tol) << "row " << i << " dual " << y; }
    if (y < -tol) { EXPECT_NEAR(act[i], hi, tol) << "row " << i << " dual " << y; }
  }
  for (int j = 0; j < lp.n; j++) {
    EXPECT_NEAR(lp.z[j], z[j], tol) << "reduced cost of column " << j;
    if (lp.lower[j] > -kInf) { EXPECT_GE(lp.x[j], lp.lower[j] - tol) << "column " << j; }
    if (lp.upper[j] < kInf) { EXPECT_LE(lp.x[j], lp.upper[j] + tol) << "column " << j; }
    const double d = lp.sense * z[j];
    if (d > tol) { EXPECT_NEAR(lp.x[j], lp.lower[j], tol) << "column " << j << " rc " << d; }
    if (d < -tol) { EXPECT_NEAR(lp.x[j], lp.upper[j], tol) << "column " << j << " rc " << d; }
  }
  EXPECT_NEAR(r.objConstant, objectiveOf(lp, lp.x), tol * (1 + std::fabs(r.objConstant)));
}

struct PipelineRun {
  int32_t code = 0;
  LPRecord presolved{};
  // Copies of the presolved arrays, which go with the problem.
  std::string senses;
  std::vector<double> lower, upper, range;
  std::vector<uint8_t> relax;
  bool relaxGiven = false;
  bool solved = false;
};

// Presolve, solve what is left with the dense solver, postsolve.  With
// keepRelaxed the flagged bounds stay real in the solve, as the solver keeps
// a lone one, so that their duals reach postsolve.
PipelineRun presolveSolvePostsolve(TestLP& lp, int level, bool loadFirst = false,
                                   bool keepRelaxed = false) {
  PipelineRun run;
  LPOptions options{};
  options.presolver = level;
  options.primalTol = 1e-6;
  options.maxTime = 50.0;
  int32_t status = 99;
  bramlet::Context* ctx = bramlet::createContext(nullptr, &options, &status);
  EXPECT_EQ(status, 0);
  // What the driver hands the simplex sibling through the blocks, and the
  // flag of a reused presolve that every presolve clears.
  EXPECT_EQ(ctx->limits->timeLimit, 50.0);
  ctx->params->presolveReuse = 1;
  LPRecord* rec = lp.record();
  // The load path needs an instance; make one through the module.
  QVModule* module = nullptr;
  bramlet::Instance* inst = nullptr;
  if (loadFirst) {
    module = bramlet::createModule(nullptr);
    inst = static_cast<bramlet::Instance*>(module->moduleCreateInstance(module));
    EXPECT_EQ(0, inst->load(inst, lp.n, lp.m, (int32_t)lp.rowIndex.size(), lp.obj.data(),
                            lp.lower.data(), lp.upper.data(), lp.rhs.data(), lp.range.data(),
                            lp.rowSense.data(), lp.colBegin.data(), lp.colLength.data(),
                            lp.rowIndex.data(), lp.val.data(), nullptr, &rec->loadArea));
  }
  bramlet::Problem* problem = bramlet::presolve(inst, ctx, 3, rec, &status);
  run.code = status;
  EXPECT_NE(problem, nullptr);
  EXPECT_EQ(ctx->params->presolveReuse, 0);
  if (!problem) return run;
  if (status == 0) {
    LPRecord* p = problem->lp;
    run.relaxGiven = problem->relaxColBound != nullptr;
    if (run.relaxGiven)
      run.relax.assign(problem->relaxColBound, problem->relaxColBound + p->numCol);
    std::vector<double> x, y;
    run.solved = solveDense(*p, keepRelaxed ? nullptr : problem->relaxColBound, &x, &y);
    EXPECT_TRUE(run.solved) << "presolved LP has no optimal vertex";
    // A bound left to its row must still hold where the row puts the point.
    for (int j = 0; run.solved && j < p->numCol; j++) {
      EXPECT_GE(x[j], p->lower[j] - 1e-9) << "presolved column " << j;
      EXPECT_LE(x[j], p->upper[j] + 1e-9) << "presolved column " << j;
    }
    for (int j = 0; j < p->numCol; j++) p->solPrimal[j] = run.solved ? x[j] : 0.0;
    for (int i = 0; i < p->numRow; i++) p->solDual[i] = run.solved ? y[i] : 0.0;
    p->status = run.solved ? IPM_STATUS_OPTIMAL : IPM_STATUS_FAILED;
    p->iteration = 3;
    run.presolved = *p;
    run.senses.assign(p->rowSense, p->rowSense + p->numRow);
    run.range.assign(p->range, p->range + p->numRow);
    run.lower.assign(p->lower, p->lower + p->numCol);
    run.upper.assign(p->upper, p->upper + p->numCol);
    // The solver appends one column and entry per range row and writes into
    // every column array up to the last slack; under a sanitiser an array
    // too short shows here.
    for (int i = 0, k = 0; i < p->numRow; i++) {
      if (p->rowSense[i] != 'R') continue;
      const int col = p->numCol + k, pos = p->numCoef + k++;
      p->colBegin[col + 1] = pos + 1;
      p->colLength[col] = 1;
      p->rowIndex[pos] = i;
      p->matValue[pos] = -1.0;
      p->obj[col] = p->lower[col] = p->upper[col] = p->solPrimal[col] = p->reducedCost[col] = 0.0;
    }
  }
  EXPECT_EQ(0, bramlet::postsolve(problem));
  bramlet::freeProblem(inst, &problem);
  EXPECT_EQ(problem, nullptr);
  bramlet::freeContext(nullptr, &ctx);
  if (inst) {
    inst->destroy(inst);
    module->moduleUnload(module);
  }
  return run;
}

// ---- reductions one by one ------------------------------------------------------------

// LPs that presolve decides or refuses: the status still reaches the caller
// through postsolve.
TEST(BramletPresolve, DecidedAndRefusedLPsReportThroughPostsolve) {
  TestLP emptyRow, contradictory, unbounded, badSense, badIndex;
  emptyRow.addRow('G', 1.0);  // 0 >= 1
  emptyRow.addRow('L', 4.0);
  emptyRow.addCol(1.0, 0.0, 1.0, {{1, 1.0}});
  contradictory.addRow('G', 3.0);
  contradictory.addRow('L', 2.0);
  contradictory.addCol(1.0, 0.0, 10.0, {{0, 1.0}, {1, 1.0}});
  unbounded.sense = -1;  // maximise x1: nothing stops it
  unbounded.addRow('L', 1.0);
  unbounded.addCol(0.0, 0.0, 1.0, {{0, 1.0}});
  unbounded.addCol(1.0, 0.0, kInf, {});
  badSense.addRow('Q', 1.0);
  badSense.addCol(1.0, 0.0, 1.0, {{0, 1.0}});
  badIndex.addRow('L', 1.0);
  badIndex.addCol(1.0, 0.0, 1.0, {{3, 1.0}});  // row out of range
  const struct { const char* name; TestLP* lp; int level; int32_t code; } cases[] = {{"empty row", &emptyRow, -1, IPM_STATUS_PRIMAL_INFEASIBLE},
               {"contradictory singletons", &contradictory, 1, IPM_STATUS_PRIMAL_INFEASIBLE},
               {"unbounded empty column", &unbounded, -1, IPM_STATUS_DUAL_INFEASIBLE},
               {"bad sense", &badSense, -1, IPM_STATUS_FAILED},
               {"bad index, bad level", &badIndex, 7, IPM_STATUS_FAILED}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(presolveSolvePostsolve(*c.lp, c.level).code, c.code);
    if (c.lp != &badIndex) {
      EXPECT_EQ(c.lp->rec.status, c.code);
    }
  }
  EXPECT_NEAR(emptyRow.rec.primalInfeas, 1.0, 1e-12);
  EXPECT_EQ(emptyRow.x[0], 0.0);
  EXPECT_EQ(emptyRow.act[1], 0.0);
}

TEST(BramletPresolve, BoundsImpliedByAKeptRowAreMarked) {
  // x0 = x1 + x2 with x1, x2 in [0, 1] implies x0 in [0, 2]; the column's
  // own [0, 10] may go, but x1 and x2 must keep theirs.
  TestLP lp;
  lp.addRow('E', 0.0);
  lp.addRow('L', 1.5);
  lp.addCol(-1.0, 0.0, 10.0, {{0, 1.0}});
  lp.addCol(0.0, 0.0, 1.0, {{0, -1.0}, {1, 1.0}});
  lp.addCol(0.0, 0.0, 1.0, {{0, -1.0}, {1, 2.0}});
  PipelineRun run = presolveSolvePostsolve(lp, 3);
  ASSERT_EQ(run.code, 0);
  ASSERT_EQ(run.presolved.numCol, 3);
  EXPECT_EQ(run.relax[0], RELAX_NO_UPPER);
  EXPECT_EQ(run.upper[0], 2.0);
  EXPECT_EQ(run.relax[1], 0);
  EXPECT_EQ(run.relax[2], 0);
  expectKKT(lp);
  EXPECT_NEAR(lp.rec.objConstant, -1.25, 1e-9);
}

TEST(BramletPresolve, ABoundedColumnLeavesWithTheEquationThatKeepsItInside) {
  // x0 + x1 + x2 = 5 with x1, x2 in [0, 1] keeps x0 in [3, 5]: inside [0, 10]
  // the column leaves with its row, its cost moving onto x1 and x2; inside
  // [0, 4.5] it must stay, the row may push it to its upper bound.
  for (double upper : {10.0, 4.5}) {
    SCOPED_TRACE(testing::Message() << "upper " << upper);
    TestLP lp;
    lp.addRow('E', 5.0);
    lp.addRow('L', 1.5);
    lp.addCol(2.0, 0.0, upper, {{0, 1.0}});
    lp.addCol(1.0, 0.0, 1.0, {{0, 1.0}, {1, 1.0}});
    lp.addCol(0.5, 0.0, 1.0, {{0, 1.0}, {1, 1.0}});
    lp.addCol(-1.0, 0.0, 2.0, {{1, 1.0}});
    TestLP ref = lp;
    std::vector<double> xr, yr;
    ASSERT_TRUE(solveDense(*ref.record(), nullptr, &xr, &yr));
    PipelineRun run = presolveSolvePostsolve(lp, 3);
    ASSERT_EQ(run.code, 0);
    const bool leaves = upper == 10.0;
    EXPECT_EQ(run.presolved.numRow, leaves ? 1 : 2);
    EXPECT_EQ(run.presolved.numCol, leaves ? 3 : 4);
    expectKKT(lp);
    EXPECT_NEAR(lp.rec.objConstant, objectiveOf(lp, xr), 1e-9);
  }
}

// Random tiny LPs with fixed, free, empty and singleton columns, free,
// redundant and forcing rows at either end, at every kind of level, some
// read through the load path, every other one solved with the implied
// bounds kept as real ones;
// presolve and postsolve must agree with the dense solve of the caller's LP
// and satisfy its KKT conditions, the duals of removed rows included.
TEST(BramletPresolve, RandomLPsKeepOptimumAndKKT) {
  std::mt19937 rng(20240611);
  auto uni = [&](int a, int b) { return std::uniform_int_distribution<int>(a, b)(rng); };
  int solvedCount = 0, reducedCount = 0, decidedCount = 0;
  for (int trial = 0; trial < 400; trial++) {
    TestLP lp;
    lp.sense = uni(0, 3) == 0 ? -1 : 1;
    const int n = uni(1, 5), m = uni(1, 4);
    std::vector<std::vector<double>> A(m, std::vector<double>(n, 0.0));
    std::vector<double> x0(n), lo(n), up(n);
    for (int j = 0; j < n; j++) {
      const int kind = uni(0, 9);
      lo[j] = uni(-2, 0);
      up[j] = lo[j] + uni(1, 4);
      if (kind == 0) up[j] = lo[j];
      if (kind == 1) lo[j] = -kInf;
      if (kind == 2) up[j] = kInf;
      if (kind == 3) lo[j] = -kInf, up[j] = kInf;
      x0[j] = lo[j] > -kInf ? lo[j] + (up[j] < kInf ? uni(0, (int)(up[j] - lo[j])) : uni(0, 2))
                            : (up[j] < kInf ? up[j] - uni(0, 2) : uni(-2, 2));
      for (int i = 0; i < m; i++)
        if (uni(0, 1)) A[i][j] = uni(1, 3) * (uni(0, 1) ? 1 : -1);
    }
    for (int i = 0; i < m; i++) {
      double ax = 0.0, minAct = 0.0, maxAct = 0.0;
      bool finite = true;
      for (int j = 0; j < n; j++) {
        ax += A[i][j] * x0[j];
        const double a = A[i][j];
        if (a == 0) continue;
        const double lb = a > 0 ? lo[j] : up[j], ub = a > 0 ? up[j] : lo[j];
        if (std::fabs(lb) >= kInf || std::fabs(ub) >= kInf) finite = false;
        else minAct += a * lb, maxAct += a * ub;
      }
      const int kind = uni(0, 6);
      if (kind == 0) lp.addRow('E', ax);
      else if (kind == 1) lp.addRow('G', ax - uni(0, 2));
      else if (kind == 2) lp.addRow('L', ax + uni(0, 2));
      else if (kind == 3) lp.addRow('R', ax - uni(0, 2), uni(0, 4) + 2);
      else if (kind == 4) lp.addRow('N', 0.0);
      else if (kind == 5 && finite) lp.addRow('G', maxAct);  // forcing at its lower end
      else if (kind == 6 && finite) lp.addRow('L', minAct);  // forcing at its upper end
      else lp.addRow('G', ax - 1);
    }
    // A forcing row may conflict with x0: the dense solve skips such trials.
    for (int j = 0; j < n; j++) {
      std::vector<std::pair<int, double>> entries;
      for (int i = 0; i < m; i++)
        if (A[i][j] != 0) entries.push_back({i, A[i][j]});
      lp.addCol(uni(-3, 3), lo[j], up[j], entries);
    }
    TestLP ref = lp;
    std::vector<double> xr, yr;
    if (!solveDense(*ref.record(), nullptr, &xr, &yr)) continue;  // infeasible or unbounded
    const double refObj = objectiveOf(lp, xr);
    SCOPED_TRACE(testing::Message() << "trial " << trial);
    const int level = uni(0, 4) == 0 ? 1 : uni(0, 4) == 0 ? 0 : -1;
    PipelineRun run = presolveSolvePostsolve(lp, level, uni(0, 3) == 0, trial % 2 == 1);
    ASSERT_TRUE(run.code == 0 || run.code == IPM_STATUS_OPTIMAL) << run.code;
    if (level == 0) {  // handed over unchanged, without flags of ours
      EXPECT_EQ(run.code, 0);
      EXPECT_EQ(run.presolved.numCol, n);
      EXPECT_EQ(run.senses, std::string(lp.rowSense.begin(), lp.rowSense.end()));
      EXPECT_EQ(run.lower, lp.lower);
      EXPECT_FALSE(run.relaxGiven);
    }
    if (run.code == 0) {
      EXPECT_EQ(lp.rec.iteration, 3);  // the solver's count comes back
    }
    if (run.code == 0 && run.presolved.numCol < n) reducedCount++;
    decidedCount += run.code == IPM_STATUS_OPTIMAL;  // nothing left to solve
    ASSERT_EQ(lp.rec.status, IPM_STATUS_OPTIMAL);
    expectKKT(lp);
    EXPECT_NEAR(lp.rec.objConstant, refObj, 1e-7 * (1 + std::fabs(refObj)));
    solvedCount++;
    if (testing::Test::HasFailure()) break;
  }
  EXPECT_GT(solvedCount, 150);
  EXPECT_GT(reducedCount, 30);
  EXPECT_GT(decidedCount, 10);
}

// ---- scaling ------------------------------------------------------------------------------

struct ScaleCase {
  TestLP lp;
  std::vector<double> rowScale, colScale;
};

ScaleCase badlyScaled() {
  ScaleCase s;
  TestLP& lp = s.lp;
  lp.addRow('E', 3e4);
  lp.addRow('L', 2e-3);
  lp.addRow('R', -5.0, 10.0);
  lp.addRow('G', -kInf);
  lp.addCol(1e3, 0.0, 1e5, {{0, 1e4}, {1, 1e-3}, {2, 3.0}});
  lp.addCol(-2e-2, -kInf, 7.0, {{0, 2e6}, {2, 0.5}, {3, 1.0}});
  lp.addCol(0.0, -3.0, kInf, {{1, 4e-4}, {3, 0.0}});
  lp.addCol(5.0, 1.0, 1.0, {});
  return s;
}

int64_t runScale(ScaleCase& s, int direction) {
  TestLP& lp = s.lp;
  s.rowScale.assign(lp.m + 1, 1.0);
  s.colScale.assign(lp.n + 1, 1.0);
  return bramlet::scale(1e-6, nullptr, direction, lp.m, lp.n, (int64_t)lp.rowIndex.size(),
                        lp.colBegin.data(), lp.colLength.data(), lp.rowIndex.data(),
                        lp.val.data(), lp.obj.data(), lp.lower.data(), lp.upper.data(),
                        s.rowScale.data(), s.colScale.data(), nullptr, nullptr, lp.rhs.data(),
                        lp.rowSense.data(), lp.range.data(), nullptr, nullptr, nullptr, nullptr);
}

bool isPowerOfTwo(double f) {
  int e;
  return f > 0 && std::frexp(f, &e) == 0.5;
}

// Factors are powers of two, so that everything comes back bit for bit.  The
// solver's run (1) equilibrates the columns; neither run sizes the objective.
TEST(BramletScale, ScaledLPKeepsTheScaledSolutionAndUnscaleRestoresBoth) {
  for (int direction : {1, -1}) {
    SCOPED_TRACE(direction);
    ScaleCase s = badlyScaled();
    const TestLP orig = s.lp;
    TestLP& lp = s.lp;
    ASSERT_EQ(runScale(s, direction), 0);
    for (double f : s.rowScale) EXPECT_TRUE(isPowerOfTwo(f)) << f;
    for (double f : s.colScale) EXPECT_TRUE(isPowerOfTwo(f)) << f;
    EXPECT_EQ(s.rowScale[lp.m], 1.0);
    for (int j = 0; j < lp.n; j++) {
      const double c = s.colScale[j];
      EXPECT_EQ(lp.lower[j], orig.lower[j] > -kInf ? orig.lower[j] / c : -kInf) << j;
      EXPECT_EQ(lp.upper[j], orig.upper[j] < kInf ? orig.upper[j] / c : kInf) << j;
    }
    for (int i = 0; i < lp.m; i++) {
      const double r = s.rowScale[i];
      EXPECT_EQ(lp.rhs[i], std::fabs(orig.rhs[i]) < kInf ? r * orig.rhs[i] : orig.rhs[i]) << i;
      EXPECT_EQ(lp.range[i], r * orig.range[i]) << i;
    }
    if (direction == 1) {
      double mn = HUGE_VAL, mx = 0.0;
      for (int j = 0; j < lp.n; j++) {
        double colMax = 0.0;
        for (int p = lp.colBegin[j]; p < lp.colBegin[j + 1]; p++) {
          colMax = std::max(colMax, std::fabs(lp.val[p]));
          if (lp.val[p] != 0) mn = std::min(mn, std::fabs(lp.val[p]));
        }
        if (colMax > 0) {
          EXPECT_GE(colMax, std::sqrt(0.5)) << "column " << j;
          EXPECT_LE(colMax, std::sqrt(2.0)) << "column " << j;
        }
        mx = std::max(mx, colMax);
      }
      EXPECT_LT(mx / mn, 1e4);  // from 2e9 before
    }
    // A point of the caller's LP, taken into the scaled space by hand, has
    // the scaled activities and reduced costs in the scaled LP.
    std::vector<double> x = {1.0, -2.0, 0.5, 1.0}, y = {0.25, -1.0, 3.0, 0.0};
    std::vector<double> z(orig.obj), act(lp.m, 0.0);
    for (int j = 0; j < lp.n; j++)
      for (int p = orig.colBegin[j]; p < orig.colBegin[j + 1]; p++) {
        z[j] -= orig.val[p] * y[orig.rowIndex[p]];
        act[orig.rowIndex[p]] += orig.val[p] * x[j];
      }
    std::vector<double> xs(lp.n), ys(lp.m), zs(lp.n), as(lp.m), scaledAct(lp.m, 0.0);
    for (int j = 0; j < lp.n; j++) xs[j] = x[j] / s.colScale[j], zs[j] = z[j] * s.colScale[j];
    for (int i = 0; i < lp.m; i++) ys[i] = y[i] / s.rowScale[i], as[i] = act[i] * s.rowScale[i];
    for (int j = 0; j < lp.n; j++) {
      double v = lp.obj[j];
      for (int p = lp.colBegin[j]; p < lp.colBegin[j + 1]; p++) {
        v -= lp.val[p] * ys[lp.rowIndex[p]];
        scaledAct[lp.rowIndex[p]] += lp.val[p] * xs[j];
      }
      EXPECT_NEAR(v, zs[j], 1e-9 * (1 + std::fabs(zs[j])));
    }
    for (int i = 0; i < lp.m; i++) EXPECT_NEAR(scaledAct[i], as[i], 1e-9 * (1 + std::fabs(as[i])));
    ASSERT_EQ(bramlet::unscale(direction, lp.m, lp.n, lp.colBegin.data(), lp.colLength.data(),
                               lp.rowIndex.data(), lp.val.data(), lp.rhs.data(),
                               lp.range.data(), lp.obj.data(), lp.lower.data(),
                               lp.upper.data(), nullptr, nullptr, s.rowScale.data(),
                               s.colScale.data(), xs.data(), ys.data(), zs.data(), as.data()),
              0);
    EXPECT_EQ((std::vector<std::vector<double>>{lp.val, lp.obj, lp.rhs, lp.range, lp.lower,
                                                 lp.upper, xs, ys, zs, as}),
              (std::vector<std::vector<double>>{orig.val, orig.obj, orig.rhs, orig.range,
                                                 orig.lower, orig.upper, x, y, z, act}));
  }
}

TEST(BramletScale, DegenerateInputs) {
  // No rows and no columns: factors stay 1.
  std::vector<double> r(1, 1.0), c(1, 1.0);
  int32_t begin[1] = {0};
  EXPECT_EQ(bramlet::scale(1e-6, nullptr, 1, 0, 0, 0, begin, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, r.data(), c.data(), nullptr, nullptr, nullptr,
                           nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            0);
  EXPECT_EQ(r[0], 1.0);
  // Bad sizes and a row index out of range are refused before anything moves.
  ScaleCase t = badlyScaled();
  const std::vector<double> before = t.lp.val;
  t.lp.rowIndex[0] = 9;
  EXPECT_EQ(runScale(t, 1), IPM_STATUS_FAILED);
  EXPECT_EQ(t.lp.val, before);
  EXPECT_EQ(bramlet::unscale(1, -1, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr, nullptr, r.data(), c.data(),
                             nullptr, nullptr, nullptr, nullptr),
            IPM_STATUS_FAILED);
}

}  // namespace

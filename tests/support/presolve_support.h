// Test support of the presolver: small models built from dense rows, a
// brute-force solver for the tiny reduced models, and a check of the KKT
// conditions of the caller's model after the postsolve.
#ifndef HALVEX_TESTS_PRESOLVE_SUPPORT_H
#define HALVEX_TESTS_PRESOLVE_SUPPORT_H

#include <math.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "frame/qv.h"
#include "presolve/stage.h"
#include "records/model.h"
#include "support/dense_ref.h"
#include "support/support.h"

namespace pretest {

const double kInf = 1e20;
const double kFree = 1e30;  // beyond the solver's infinity: no bound
using Vec = std::vector<double>;
using Mat = std::vector<Vec>;

// A model given densely; build() makes fresh column-wise arrays each time,
// since the presolver and postsolver write into the caller's model.
struct Problem {
  int type = IPM_MODEL_LP;
  Mat a;  // rows of A
  std::string sense;
  Vec rhs, range, obj, lower, upper, quadDiag;
  struct Pair {
    int row, col;  // row < col; stored in column col
    double value;
  };
  std::vector<Pair> quad;

  std::vector<int32_t> colBegin, colLength, rowIndex, qBegin, qLength, qIndex;
  Vec matValue, qValue, solPrimal, solDual, reducedCost, rowActivity;
  Vec rhsCopy, rangeCopy, objCopy, lowerCopy, upperCopy, diagCopy;
  std::string senseCopy;
  ipmModel model{};

  ipmModel* build() {
    const int m = (int)a.size(), n = (int)obj.size();
    colBegin.assign(n + 1, 0);
    colLength.assign(n, 0);
    qBegin.assign(n + 1, 0);
    qLength.assign(n, 0);
    rowIndex.clear();
    matValue.clear();
    qIndex.clear();
    qValue.clear();
    for (int j = 0; j < n; j++) {
      colBegin[j] = (int32_t)rowIndex.size();
      for (int i = 0; i < m; i++)
        if (a[i][j] != 0.0) rowIndex.push_back(i), matValue.push_back(a[i][j]);
      colLength[j] = (int32_t)rowIndex.size() - colBegin[j];
      qBegin[j] = (int32_t)qIndex.size();
      for (const Pair& p : quad)
        if (p.col == j) qIndex.push_back(p.row), qValue.push_back(p.value);
      qLength[j] = (int32_t)qIndex.size() - qBegin[j];
    }
    colBegin[n] = (int32_t)rowIndex.size();
    qBegin[n] = (int32_t)qIndex.size();
    rhsCopy = rhs;
    rangeCopy = range.empty() ? Vec(m, 0.0) : range;
    objCopy = obj;
    lowerCopy = lower;
    upperCopy = upper;
    senseCopy = sense;
    if (type == IPM_MODEL_QP && quadDiag.empty()) quadDiag.assign(n, 0.0);
    diagCopy = quadDiag;
    solPrimal.assign(n + m + 1, 0.0);
    solDual.assign(m + 1, 0.0);
    reducedCost.assign(n + 1, 0.0);
    rowActivity.assign(m + 1, 0.0);
    model = ipmModel{};
    model.typeModel = type;
    model.numRow = m;
    model.numCol = n;
    model.numCoef = (int32_t)rowIndex.size();
    model.colBegin = colBegin.data();
    model.colLength = colLength.data();
    model.rowIndex = rowIndex.data();
    model.matValue = matValue.data();
    if (type == IPM_MODEL_QP) {
      model.numQuadCoef = (int32_t)qIndex.size();
      model.quadDiag = diagCopy.data();
      model.quadColBegin = qBegin.data();
      model.quadColLength = qLength.data();
      model.quadRowIndex = qIndex.data();
      model.quadMatValue = qValue.data();
    }
    model.objSense = 1;
    model.obj = objCopy.data();
    model.rowSense = &senseCopy[0];
    model.rhs = rhsCopy.data();
    model.range = rangeCopy.data();
    model.lower = lowerCopy.data();
    model.upper = upperCopy.data();
    model.solPrimal = solPrimal.data();
    model.solDual = solDual.data();
    model.reducedCost = reducedCost.data();
    model.rowActivity = rowActivity.data();
    return &model;
  }
};

inline Problem lp(Mat a, std::string sense, Vec rhs, Vec obj, Vec lower, Vec upper,
                  Vec range = {}) {
  Problem p;
  p.a = std::move(a);
  p.sense = std::move(sense);
  p.rhs = std::move(rhs);
  p.obj = std::move(obj);
  p.lower = std::move(lower);
  p.upper = std::move(upper);
  p.range = std::move(range);
  return p;
}

inline Problem qp(Problem p, Vec diag, std::vector<Problem::Pair> pairs = {}) {
  p.type = IPM_MODEL_QP;
  p.quadDiag = std::move(diag);
  p.quad = std::move(pairs);
  return p;
}

inline ipmOption defaultOption() {
  ipmOption o{};
  o.primalTol = o.dualTol = o.gapTol = 1e-6;
  o.infinity = kInf;
  o.maxIteration = 100;
  return o;
}

// Dense view of any model's arrays, reduced or not.
struct Dense {
  int m = 0, n = 0;
  Mat a, q;
  Vec c, lo, up, b, range;
  std::string sense;
  // The row's activity interval; N and G rows have no upper end.
  double hi(int i) const { return (sense[i] == 'G' || sense[i] == 'N') ? kInf : b[i]; }
  double low(int i) const {
    const char t = sense[i];
    return (t == 'L' || t == 'N') ? -kInf : (t == 'R' ? b[i] - range[i] : b[i]);
  }
};

inline Dense denseOf(const ipmModel& md) {
  Dense d;
  d.m = md.numRow;
  d.n = md.numCol;
  d.a.assign(d.m, Vec(d.n, 0.0));
  d.q.assign(d.n, Vec(d.n, 0.0));
  for (int j = 0; j < d.n; j++)
    for (int k = md.colBegin[j]; k < md.colBegin[j] + md.colLength[j]; k++)
      d.a[md.rowIndex[k]][j] += md.matValue[k];
  if (md.typeModel == IPM_MODEL_QP)
    for (int j = 0; j < d.n; j++) {
      d.q[j][j] = md.quadDiag[j];
      for (int k = md.quadColBegin[j];
           md.numQuadCoef > 0 && k < md.quadColBegin[j] + md.quadColLength[j]; k++) {
        d.q[md.quadRowIndex[k]][j] += md.quadMatValue[k];
        d.q[j][md.quadRowIndex[k]] += md.quadMatValue[k];
      }
    }
  d.c.assign(md.obj, md.obj + d.n);
  d.lo.assign(md.lower, md.lower + d.n);
  d.up.assign(md.upper, md.upper + d.n);
  d.b.assign(md.rhs, md.rhs + d.m);
  d.range = md.range ? Vec(md.range, md.range + d.m) : Vec(d.m, 0.0);
  d.sense.assign(md.rowSense, md.rowSense + d.m);
  return d;
}

// Solves a tiny convex LP or QP by trying every active set: each column at
// its lower end (0, or pinned at 0 when free), its upper end (1) or between
// (2); each inequality row at its upper end (0), its lower end (1) or
// inactive (2).  The first KKT point found is the optimum.  Fills the solution record in the iteration's
// sign convention.
inline bool bruteSolve(const ipmModel& md, ipmSolution* s, double tol = 1e-9) {
  const Dense d = denseOf(md);
  const int n = d.n, m = d.m;
  long combos = 1;
  for (int j = 0; j < n + m; j++) combos *= 3;
  for (long code = 0; code < combos; code++) {
    std::vector<int> st(n + m);
    for (long k = 0, rest = code; k < n + m; k++, rest /= 3) st[k] = (int)(rest % 3);
    bool usable = true;
    // A free column may be pinned at 0 (state 0) where the model leaves it a
    // line of optima; the pin carries no multiplier.
    auto pinned = [&](int j) { return st[j] == 0 && d.lo[j] <= -kInf && d.up[j] >= kInf; };
    for (int j = 0; j < n; j++)
      usable &= !(st[j] == 0 && d.lo[j] <= -kInf && !pinned(j)) && !(st[j] == 1 && d.up[j] >= kInf);
    for (int i = 0; i < m; i++) {
      const char t = d.sense[i];
      usable &= !(t == 'E' && st[n + i] != 0) && !(t == 'L' && st[n + i] == 1) &&
                !(t == 'G' && st[n + i] == 0) && !(t == 'N' && st[n + i] != 2);
    }
    if (!usable) continue;
    Mat k(n + m, Vec(n + m, 0.0));  // unknowns x (n) and y (m)
    Vec rhs(n + m, 0.0), z;
    for (int j = 0; j < n; j++) {
      if (st[j] < 2) {
        k[j][j] = 1.0;
        rhs[j] = pinned(j) ? 0.0 : st[j] == 0 ? d.lo[j] : d.up[j];
        continue;
      }
      for (int q = 0; q < n; q++) k[j][q] = d.q[j][q];
      for (int i = 0; i < m; i++) k[j][n + i] = -d.a[i][j];
      rhs[j] = -d.c[j];
    }
    for (int i = 0; i < m; i++) {
      if (st[n + i] == 2) {
        k[n + i][n + i] = 1.0;
        continue;
      }
      for (int j = 0; j < n; j++) k[n + i][j] = d.a[i][j];
      rhs[n + i] = (st[n + i] == 1 && d.sense[i] == 'R') ? d.b[i] - d.range[i] : d.b[i];
    }
    if (!hxtest::luSolve(k, rhs, &z)) continue;
    bool ok = true;
    Vec rc(n);
    for (int j = 0; j < n; j++) {
      double r = d.c[j];
      for (int q = 0; q < n; q++) r += d.q[j][q] * z[q];
      for (int i = 0; i < m; i++) r -= d.a[i][j] * z[n + i];
      rc[j] = r;
      ok &= z[j] >= d.lo[j] - tol && z[j] <= d.up[j] + tol;
      ok &= !(st[j] == 0 && r < -tol) && !(st[j] == 1 && r > tol) &&
            !((st[j] == 2 || pinned(j)) && fabs(r) > tol);
    }
    for (int i = 0; i < m; i++) {
      double act = 0.0;
      for (int j = 0; j < n; j++) act += d.a[i][j] * z[j];
      ok &= act <= d.hi(i) + tol && act >= d.low(i) - tol;
      // At the upper end y <= 0, at the lower end y >= 0.
      if (d.sense[i] != 'E') ok &= !(st[n + i] == 0 && z[n + i] > tol) && !(st[n + i] == 1 && z[n + i] < -tol);
    }
    if (!ok) continue;
    for (int j = 0; j < n; j++) {
      s->solPrimal[j] = z[j];
      s->lowerDual[j] = rc[j] > 0.0 ? rc[j] : 0.0;
      s->upperDual[j] = rc[j] < 0.0 ? -rc[j] : 0.0;
      s->lowerSlack[j] = d.lo[j] > -kInf ? z[j] - d.lo[j] : 0.0;
      s->upperSlack[j] = d.up[j] < kInf ? d.up[j] - z[j] : 0.0;
    }
    for (int i = 0; i < m; i++) s->solDual[i] = z[n + i];
    return true;
  }
  return false;
}

// The KKT conditions of a model at its solution, checked from scratch:
// bounds and rows hold, obj + Qx - A'y - lowerDual + upperDual = 0, the bound
// duals are non-negative and sit on finite bounds, row duals have the sign of
// their row, and every dual is complementary to its slack.  Returns a
// description of the first breach, empty when none.
inline std::string kktBreach(const ipmModel& md, const ipmSolution& s, double tol = 1e-7) {
  const Dense d = denseOf(md);
  const double* x = md.solPrimal;
  char buf[160];
  auto breach = [&](const char* what, int at, double v1, double v2, double v3) {
    snprintf(buf, sizeof buf, "%s %d: %g %g %g", what, at, v1, v2, v3);
    return std::string(buf);
  };
  for (int j = 0; j < d.n; j++) {
    if (x[j] < d.lo[j] - tol || x[j] > d.up[j] + tol)
      return breach("column outside its bounds", j, x[j], d.lo[j], d.up[j]);
    double r = d.c[j];
    for (int q = 0; q < d.n; q++) r += d.q[j][q] * x[q];
    for (int i = 0; i < d.m; i++) r -= d.a[i][j] * md.solDual[i];
    const double zl = s.lowerDual[j], zu = s.upperDual[j];
    if (fabs(r - zl + zu) > tol) return breach("stationarity of column", j, r, zl, zu);
    if (zl < -tol || zu < -tol) return breach("negative bound dual of column", j, x[j], zl, zu);
    const double gapLow = d.lo[j] > -kInf ? x[j] - d.lo[j] : kInf;
    const double gapUp = d.up[j] < kInf ? d.up[j] - x[j] : kInf;
    if ((zl > tol && gapLow > tol) || (zu > tol && gapUp > tol))
      return breach("complementarity of column", j, x[j], zl, zu);
  }
  for (int i = 0; i < d.m; i++) {
    double act = 0.0;
    for (int j = 0; j < d.n; j++) act += d.a[i][j] * x[j];
    const double y = md.solDual[i], hi = d.hi(i), lo = d.low(i);
    if (act > hi + tol || act < lo - tol) return breach("activity outside row", i, act, lo, hi);
    if (d.sense[i] != 'E' && ((y > tol && act > lo + tol) || (y < -tol && act < hi - tol)))
      return breach("dual sign of row", i, y, act, lo);
  }
  return "";
}

// One presolve and postsolve round, as the pipeline runs it, with the
// reduced model solved by bruteSolve in between.
struct Round {
  HalvexEnv* env;
  ipmOption option = defaultOption();
  presolver* pre = nullptr;
  ipmStorage* storage = nullptr;
  ipmSolution* outer = nullptr;
  ipmSolution* inner = nullptr;
  ipmModel* current = nullptr;

  explicit Round(HalvexEnv* e) : env(e) {}
  ~Round() { release(); }

  // The records the pipeline makes before it calls the presolver.
  void prepare() {
    if (!pre) pre = poolNew<presolver>(env->pool, 1);
    if (!storage) storage = poolNew<ipmStorage>(env->pool, 1);
  }
  int32_t presolve(ipmModel* m) {
    prepare();
    current = m;
    return ipmPresolve(env, &current, &option, pre, storage, &outer, &inner);
  }
  // Solves what the iteration would see; false when no KKT point was found.
  bool solveReduced() {
    const bool found = pre->preRoute == PREROUTE_KNOWN || bruteSolve(*current, inner);
    current->status = found ? IPM_STATUS_OPTIMAL : IPM_STATUS_FAILED;
    return found;
  }
  int32_t postsolve() { return ipmPostsolve(env, &current, &option, pre, inner, outer); }
  void release() {
    if (inner && inner != outer) FreeSolution(env, inner);
    FreeSolution(env, outer);
    inner = outer = nullptr;
    if (pre && pre->inModel) {
      FreeReducedModel(env, current, nullptr);
      current = pre->inModel;
      pre->inModel = nullptr;
    }
    DestroyPresolver(env, current, pre);
    pre = nullptr;
    FreeStorage(env, storage);
    storage = nullptr;
  }
};

}  // namespace pretest

#endif  // HALVEX_TESTS_PRESOLVE_SUPPORT_H

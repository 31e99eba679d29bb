// Test support of the presolver: small models built from dense rows, a
// brute-force solver for the tiny reduced models, and a check of the KKT
// conditions of the caller's model after the postsolve.
#ifndef HALVEX_TESTS_PRESOLVE_SUPPORT_H
#define HALVEX_TESTS_PRESOLVE_SUPPORT_H

#include <math.h>

#include <string>
#include <vector>

#include "frame/qv.h"
#include "presolve/presolver.h"
#include "records/model.h"
#include "unit/support.h"

namespace pretest {

const double kInf = 1e20;
const double kFree = 1e30;  // beyond the solver's infinity: no bound

// A model given densely; build() makes the column-wise arrays the solver
// sees.  Q is given as its diagonal and a list of off-diagonal pairs.
struct Problem {
  int type = IPM_MODEL_LP;
  std::vector<std::vector<double>> a;  // rows of A
  std::string sense;
  std::vector<double> rhs, range, obj, lower, upper;
  std::vector<double> quadDiag;
  struct Pair {
    int row, col;  // row < col; stored in column col
    double value;
  };
  std::vector<Pair> quad;
  double objConstant = 0.0;

  // made by build()
  std::vector<int32_t> colBegin, colLength, rowIndex;
  std::vector<double> matValue;
  std::vector<int32_t> quadColBegin, quadColLength, quadRowIndex;
  std::vector<double> quadMatValue;
  std::vector<double> solPrimal, solDual, reducedCost, rowActivity;
  std::vector<double> rhsCopy, rangeCopy, objCopy, lowerCopy, upperCopy, diagCopy;
  std::string senseCopy;
  ipmModel model{};

  int numRow() const { return (int)a.size(); }
  int numCol() const { return (int)obj.size(); }

  ipmModel* build() {
    const int m = numRow(), n = numCol();
    colBegin.assign(n + 1, 0);
    colLength.assign(n, 0);
    rowIndex.clear();
    matValue.clear();
    for (int j = 0; j < n; j++) {
      colBegin[j] = (int32_t)rowIndex.size();
      for (int i = 0; i < m; i++)
        if (a[i][j] != 0.0) {
          rowIndex.push_back(i);
          matValue.push_back(a[i][j]);
        }
      colLength[j] = (int32_t)rowIndex.size() - colBegin[j];
    }
    colBegin[n] = (int32_t)rowIndex.size();
    quadColBegin.assign(n + 1, 0);
    quadColLength.assign(n, 0);
    quadRowIndex.clear();
    quadMatValue.clear();
    for (int j = 0; j < n; j++) {
      quadColBegin[j] = (int32_t)quadRowIndex.size();
      for (const Pair& p : quad)
        if (p.col == j) {
          quadRowIndex.push_back(p.row);
          quadMatValue.push_back(p.value);
        }
      quadColLength[j] = (int32_t)quadRowIndex.size() - quadColBegin[j];
    }
    quadColBegin[n] = (int32_t)quadRowIndex.size();
    rhsCopy = rhs;
    rangeCopy = range.empty() ? std::vector<double>(m, 0.0) : range;
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
      model.numQuadCoef = (int32_t)quadRowIndex.size();
      model.quadDiag = diagCopy.data();
      model.quadColBegin = quadColBegin.data();
      model.quadColLength = quadColLength.data();
      model.quadRowIndex = quadRowIndex.data();
      model.quadMatValue = quadMatValue.data();
    }
    model.objSense = 1;
    model.objConstant = objConstant;
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

inline ipmOption defaultOption() {
  ipmOption o{};
  o.presolver = 0;
  o.primalTol = 1e-6;
  o.dualTol = 1e-6;
  o.gapTol = 1e-6;
  o.infinity = kInf;
  o.maxIteration = 100;
  o.printLevel = 0;
  return o;
}

// Dense view of a model's arrays (any model, reduced or not).
struct Dense {
  int m = 0, n = 0;
  std::vector<std::vector<double>> a, q;
  std::vector<double> c, lo, up, b, range;
  std::string sense;
};

inline Dense denseOf(const ipmModel& md) {
  Dense d;
  d.m = md.numRow;
  d.n = md.numCol;
  d.a.assign(d.m, std::vector<double>(d.n, 0.0));
  d.q.assign(d.n, std::vector<double>(d.n, 0.0));
  for (int j = 0; j < d.n; j++)
    for (int k = md.colBegin[j]; k < md.colBegin[j] + md.colLength[j]; k++)
      d.a[md.rowIndex[k]][j] += md.matValue[k];
  if (md.typeModel == IPM_MODEL_QP) {
    for (int j = 0; j < d.n; j++) d.q[j][j] = md.quadDiag[j];
    if (md.numQuadCoef > 0)
      for (int j = 0; j < d.n; j++)
        for (int k = md.quadColBegin[j]; k < md.quadColBegin[j] + md.quadColLength[j]; k++) {
          d.q[md.quadRowIndex[k]][j] += md.quadMatValue[k];
          d.q[j][md.quadRowIndex[k]] += md.quadMatValue[k];
        }
  }
  d.c.assign(md.obj, md.obj + d.n);
  d.lo.assign(md.lower, md.lower + d.n);
  d.up.assign(md.upper, md.upper + d.n);
  d.b.assign(md.rhs, md.rhs + d.m);
  d.range.assign(d.m, 0.0);
  if (md.range)
    for (int i = 0; i < d.m; i++) d.range[i] = md.range[i];
  d.sense.assign(md.rowSense, md.rowSense + d.m);
  return d;
}

// Gaussian elimination with partial pivoting; false when singular.
inline bool solveDense(std::vector<std::vector<double>> k, std::vector<double> b,
                       std::vector<double>* z) {
  const size_t n = b.size();
  for (size_t c = 0; c < n; c++) {
    size_t best = c;
    for (size_t r = c + 1; r < n; r++)
      if (fabs(k[r][c]) > fabs(k[best][c])) best = r;
    if (fabs(k[best][c]) < 1e-12) return false;
    std::swap(k[c], k[best]);
    std::swap(b[c], b[best]);
    for (size_t r = c + 1; r < n; r++) {
      const double f = k[r][c] / k[c][c];
      for (size_t q = c; q < n; q++) k[r][q] -= f * k[c][q];
      b[r] -= f * b[c];
    }
  }
  z->assign(n, 0.0);
  for (size_t i = n; i-- > 0;) {
    double s = b[i];
    for (size_t q = i + 1; q < n; q++) s -= k[i][q] * (*z)[q];
    (*z)[i] = s / k[i][i];
  }
  return true;
}

// Solves a tiny convex LP or QP by trying every active set: each column at
// its lower end, its upper end or between; each inequality row at its
// upper end, its lower end or inactive.  The first KKT point found is the
// optimum.  Fills the solution record in the iteration's sign convention.
inline bool bruteSolve(const ipmModel& md, ipmSolution* s, double tol = 1e-9) {
  const Dense d = denseOf(md);
  const int n = d.n, m = d.m;
  long combos = 1;
  for (int j = 0; j < n + m; j++) combos *= 3;
  for (long code = 0; code < combos; code++) {
    std::vector<int> state(n + m);
    long rest = code;
    for (int k = 0; k < n + m; k++) {
      state[k] = (int)(rest % 3);
      rest /= 3;
    }
    bool usable = true;
    for (int j = 0; j < n && usable; j++) {
      if (state[j] == 0 && d.lo[j] <= -kInf) usable = false;
      if (state[j] == 1 && d.up[j] >= kInf) usable = false;
    }
    for (int i = 0; i < m && usable; i++) {
      const char t = d.sense[i];
      const int st = state[n + i];
      if (t == 'E' && st != 0) usable = false;
      if (t == 'L' && st == 1) usable = false;
      if (t == 'G' && st == 0) usable = false;
    }
    if (!usable) continue;
    // unknowns x (n) and y (m)
    std::vector<std::vector<double>> k(n + m, std::vector<double>(n + m, 0.0));
    std::vector<double> rhs(n + m, 0.0);
    for (int j = 0; j < n; j++) {
      if (state[j] == 0) {
        k[j][j] = 1.0;
        rhs[j] = d.lo[j];
      } else if (state[j] == 1) {
        k[j][j] = 1.0;
        rhs[j] = d.up[j];
      } else {
        for (int q = 0; q < n; q++) k[j][q] = d.q[j][q];
        for (int i = 0; i < m; i++) k[j][n + i] = -d.a[i][j];
        rhs[j] = -d.c[j];
      }
    }
    for (int i = 0; i < m; i++) {
      const int st = state[n + i];
      if (st == 2) {
        k[n + i][n + i] = 1.0;
      } else {
        for (int j = 0; j < n; j++) k[n + i][j] = d.a[i][j];
        // state 0: upper end (rhs), 1: lower end (rhs - range, or rhs for G)
        rhs[n + i] = (st == 1 && d.sense[i] == 'R') ? d.b[i] - d.range[i] : d.b[i];
      }
    }
    std::vector<double> z;
    if (!solveDense(k, rhs, &z)) continue;
    bool ok = true;
    std::vector<double> rc(n);
    for (int j = 0; j < n && ok; j++) {
      const double x = z[j];
      if (x < d.lo[j] - tol || x > d.up[j] + tol) ok = false;
      double r = d.c[j];
      for (int q = 0; q < n; q++) r += d.q[j][q] * z[q];
      for (int i = 0; i < m; i++) r -= d.a[i][j] * z[n + i];
      rc[j] = r;
      if (state[j] == 0 && r < -tol) ok = false;
      if (state[j] == 1 && r > tol) ok = false;
      if (state[j] == 2 && fabs(r) > tol) ok = false;
    }
    for (int i = 0; i < m && ok; i++) {
      double act = 0.0;
      for (int j = 0; j < n; j++) act += d.a[i][j] * z[j];
      const double y = z[n + i];
      const char t = d.sense[i];
      const double hi = (t == 'G') ? kInf : d.b[i];
      const double lo = (t == 'L') ? -kInf : (t == 'R' ? d.b[i] - d.range[i] : d.b[i]);
      if (act > hi + tol || act < lo - tol) ok = false;
      const int st = state[n + i];
      if (t != 'E') {
        if (st == 0 && y > tol) ok = false;   // at the upper end: y <= 0
        if (st == 1 && y < -tol) ok = false;  // at the lower end: y >= 0
      }
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
  char buf[256];
  std::vector<double> act(d.m, 0.0);
  for (int i = 0; i < d.m; i++)
    for (int j = 0; j < d.n; j++) act[i] += d.a[i][j] * md.solPrimal[j];
  for (int j = 0; j < d.n; j++) {
    const double x = md.solPrimal[j];
    if (x < d.lo[j] - tol || x > d.up[j] + tol) {
      snprintf(buf, sizeof buf, "column %d: x=%g outside [%g, %g]", j, x, d.lo[j], d.up[j]);
      return buf;
    }
    double r = d.c[j];
    for (int q = 0; q < d.n; q++) r += d.q[j][q] * md.solPrimal[q];
    for (int i = 0; i < d.m; i++) r -= d.a[i][j] * md.solDual[i];
    const double zl = s.lowerDual[j], zu = s.upperDual[j];
    if (fabs(r - zl + zu) > tol) {
      snprintf(buf, sizeof buf, "column %d: stationarity rc=%g zl=%g zu=%g", j, r, zl, zu);
      return buf;
    }
    if (zl < -tol || zu < -tol) {
      snprintf(buf, sizeof buf, "column %d: negative bound dual zl=%g zu=%g", j, zl, zu);
      return buf;
    }
    const double gapLow = d.lo[j] > -kInf ? x - d.lo[j] : kInf;
    const double gapUp = d.up[j] < kInf ? d.up[j] - x : kInf;
    if ((zl > tol && gapLow > tol) || (zu > tol && gapUp > tol)) {
      snprintf(buf, sizeof buf, "column %d: not complementary x=%g zl=%g zu=%g", j, x, zl, zu);
      return buf;
    }
  }
  for (int i = 0; i < d.m; i++) {
    const char t = d.sense[i];
    const double y = md.solDual[i];
    const double hi = (t == 'G' || t == 'N') ? kInf : d.b[i];
    const double lo = (t == 'L' || t == 'N') ? -kInf : (t == 'R' ? d.b[i] - d.range[i] : d.b[i]);
    if (act[i] > hi + tol || act[i] < lo - tol) {
      snprintf(buf, sizeof buf, "row %d: activity %g outside [%g, %g]", i, act[i], lo, hi);
      return buf;
    }
    if (t == 'E') continue;
    const bool atHi = act[i] >= hi - tol, atLo = act[i] <= lo + tol;
    if ((y > tol && !atLo) || (y < -tol && !atHi)) {
      snprintf(buf, sizeof buf, "row %d: dual %g with activity %g in [%g, %g]", i, y, act[i], lo,
               hi);
      return buf;
    }
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
  int32_t presolveStatus = 0;

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
    presolveStatus = ipmPresolve(env, &current, &option, pre, storage, &outer, &inner);
    return presolveStatus;
  }
  // Solves what the iteration would see; false when no KKT point was found.
  bool solveReduced() {
    if (pre->preRoute == PREROUTE_KNOWN) {
      current->status = IPM_STATUS_OPTIMAL;
      return true;
    }
    const bool found = bruteSolve(*current, inner);
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

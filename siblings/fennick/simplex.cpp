// The crossover proper.  Variables are the columns x and one logical per row,
// r = Ax, so that every row is a bound on its logical and the slack basis is
// minus the identity.  The run:
//  1. From the interior point, columns within reach of a bound go there; the
//     rest stay superbasic at their interior value, the logicals are basic.
//  2. Push: each superbasic column, the most interior first, moves in the
//     direction that does not worsen the objective until it meets a bound or
//     a basic variable does; in the latter case it enters the basis.  So the
//     interior columns become basic and the basis stays regular by
//     construction.
//  3. A bounded primal simplex, with a composite phase 1 while basics are
//     infeasible, finishes.  Harris's two-pass ratio test with bound flips,
//     devex pricing, a cost perturbation once it stalls, which is taken off
//     again before the end.
#include <suitesparse/klu.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "siblings/fennick/factor.h"
#include "siblings/fennick/fennick.h"

namespace fennick {
namespace {

constexpr double kInfinity = 1e20;
// The eta file's size (BasisFactor::outgrown) decides first on LPs whose
// updates are dense (dfl001); this bounds the file of sparse ones.  200,
// since the btran meets only the etas in the rows it reaches: at 100,
// dfl001 spent a third of its instructions in KLU.
constexpr int32_t kRefactorEvery = 200;
// The push solves columns only, and the ftran meets every eta: pilot and
// pilotnov push fastest between factors of 100 updates.
constexpr int32_t kPushRefactorEvery = 100;
constexpr double kPivotTol = 1e-7;  // smallest |alpha| accepted as a pivot
constexpr int32_t kStallBeforePerturb = 60;
// A stall after the costs came back gets a fresh perturbation, a few times.
constexpr int32_t kMaxPerturbRounds = 8;
constexpr int32_t kCapReached = -3;
// The polish finds what it finds within a few pivots, or not at all: at a
// degenerate vertex (dfl001) it went round for the whole of a cap of 1000,
// a third of the crossover's pivots, and its basis was thrown away.
constexpr int64_t kPolishIterations = 100;
// The largest infeasibility of a basic, relative to its value, at which the
// crash basis stands: dfl001's points leave up to 3e-6 (the repair pivots
// are few), the inexact ones of greenbea or 80bau3b 1 and more.
constexpr double kCrashInfeasibility = 1e-4;
// Whatever limit the caller sets, a run this long on its size is cycling
// (badly scaled costs of 1e20 and more make every pivot look like a gain),
// and it stops at the iteration limit.
constexpr int64_t kCycleGuardBase = 100000, kCycleGuardPerColumn = 1000;
inline int64_t cycleGuard(int64_t columns) { return kCycleGuardBase + kCycleGuardPerColumn * columns; }

enum State : uint8_t { kBasic, kAtLower, kAtUpper, kFreeZero, kFixed, kSuper };

class Simplex {
 public:
  Simplex(const LpView& lp, const Settings& s) : lp_(lp), set_(s) {}
  int32_t run(const double* x0, const double* y0, const double* z0, Result* out);

 private:
  // Column j of [A -I].
  template <typename F>
  void forColumn(int32_t j, F f) const {
    if (j >= n_) {
      f(j - n_, -1.0);
      return;
    }
    const int32_t b = lp_.colBegin[j];
    const int32_t e = lp_.colLength ? b + lp_.colLength[j] : lp_.colBegin[j + 1];
    for (int32_t p = b; p < e; p++) f(lp_.rowIndex[p], lp_.matValue[p]);
  }
  double dotColumn(int32_t j, const Vec<double>& v) const {
    double s = 0.0;
    forColumn(j, [&](int32_t i, double a) { s += a * v[i]; });
    return s;
  }

  void setup(const double* x0, const double* y0, const double* z0);
  int32_t refactor(bool keepBasics = false);
  void computeBasics();
  double basicInfeasibility(int32_t p) const;
  int8_t infeasibleSide(int32_t j) const;
  bool primalFeasible() const;
  void computeDuals(bool phase1);
  int32_t ratioTest(int32_t q, int32_t dir, bool phase1, double* theta, bool* flip);
  void pivot(int32_t q, int32_t dir, int32_t r, double theta, bool flip, bool keepLeaving = false);
  void ftranColumn(int32_t q);
  void pivotRow(int32_t r);
  void updateDevex(int32_t q, int32_t r, bool updateDuals);
  int32_t dualSimplex();
  bool preferDual();
  void perturbCosts();
  int32_t push();
  int32_t crashBasis();
  int32_t simplex(double td, int64_t cap);
  bool outOfTime();
  void finish(Result* out, int32_t status);
  void placeNonbasic(int32_t j);

  const LpView& lp_;
  Settings set_;
  int32_t m_ = 0, n_ = 0, N_ = 0;
  Vec<double> cost_, trueCost_, lb_, ub_, x_, y_, d_, alpha_, work_, devex_;
  Vec<uint8_t> state_;
  // |reduced cost| of each variable at the interior point, 0 without one.
  Vec<double> ipmDual_, candTheta_;
  Vec<int32_t> candidates_;
  Vec<bool> candLower_;
  bool leaveToLower_ = true;  // the bound that the leaving variable of the last ratio test reaches
  Vec<int32_t> head_, posOf_;
  // A by rows, for pivot rows; rowAlpha_ and rowMark_ stay zero between uses.
  Vec<int32_t> rowStart_, rowCol_, rowTouched_;
  Vec<double> rowVal_, rowAlpha_;
  Vec<uint8_t> rowMark_;
  Vec<int8_t> sideBefore_;
  // The last pivot row: nonbasic variables and their entries.
  Vec<int32_t> rowIndex_;
  Vec<double> rowValue_;
  // The dual simplex: weights of the basic positions, its candidates.
  Vec<double> dualWeight_, flipDelta_;
  Vec<int32_t> dualCand_;
  BasisFactor factor_;
  Vec<int32_t> bStart_, bIndex_, depPos_, depRow_;
  Vec<int32_t> factoredHead_;  // the basis that factor_ holds without updates, empty if none
  Vec<double> bValue_;
  bool perturbed_ = false;
  bool crashing_ = false;
  int32_t perturbRounds_ = 0;
  int64_t pushCount_ = 0, iterations_ = 0, dualIterations_ = 0;
  std::chrono::steady_clock::time_point start_;
};

bool finiteLower(double v) { return v > -kInfinity; }
bool finiteUpper(double v) { return v < kInfinity; }

void Simplex::placeNonbasic(int32_t j) {
  const double l = lb_[j], u = ub_[j];
  if (finiteLower(l) && finiteUpper(u) && l == u) {
    state_[j] = kFixed;
    x_[j] = l;
  } else if (finiteLower(l) && (!finiteUpper(u) || std::fabs(x_[j] - l) <= std::fabs(u - x_[j]))) {
    state_[j] = kAtLower;
    x_[j] = l;
  } else if (finiteUpper(u)) {
    state_[j] = kAtUpper;
    x_[j] = u;
  } else {
    state_[j] = kFreeZero;
    x_[j] = 0.0;
  }
}

void Simplex::setup(const double* x0, const double* y0, const double* z0) {
  m_ = lp_.numRow;
  n_ = lp_.numCol;
  N_ = n_ + m_;
  const double sense = lp_.objSense < 0 ? -1.0 : 1.0;
  cost_.assign(N_, 0.0);
  lb_.assign(N_, -kInfinity);
  ub_.assign(N_, kInfinity);
  x_.assign(N_, 0.0);
  state_.assign(N_, kBasic);
  devex_.assign(N_, 1.0);
  for (int32_t j = 0; j < n_; j++) {
    cost_[j] = sense * lp_.obj[j];
    lb_[j] = lp_.lower[j] <= -kInfinity ? -kInfinity : lp_.lower[j];
    ub_[j] = lp_.upper[j] >= kInfinity ? kInfinity : lp_.upper[j];
  }
  for (int32_t i = 0; i < m_; i++) {
    const double b = lp_.rhs[i];
    double& l = lb_[n_ + i];
    double& u = ub_[n_ + i];
    switch (lp_.rowSense[i]) {
      case 'E': l = u = b; break;
      case 'G': l = b; break;
      case 'L': u = b; break;
      case 'R': l = b; u = b + (lp_.range ? std::fabs(lp_.range[i]) : 0.0); break;
      default: break;
    }
  }
  trueCost_ = cost_;
  ipmDual_.assign(N_, 0.0);
  if (set_.fromPoint) {
    for (int32_t j = 0; j < n_ && z0; j++)
      if (std::isfinite(z0[j])) ipmDual_[j] = std::fabs(z0[j]);
    // The logical's reduced cost is its row's dual.
    for (int32_t i = 0; i < m_ && y0; i++)
      if (std::isfinite(y0[i])) ipmDual_[n_ + i] = std::fabs(y0[i]);
  }

  for (int32_t j = 0; j < n_; j++) {
    const double l = lb_[j], u = ub_[j];
    double v = x0 && set_.fromPoint ? x0[j] : 0.0;
    if (!std::isfinite(v)) v = 0.0;
    if (!set_.fromPoint) {
      x_[j] = 0.0;
      placeNonbasic(j);
      continue;
    }
    x_[j] = std::min(std::max(v, l), u);
    // A column goes to a bound when it is within the tolerance of it, or
    // when the interior point's reduced cost says it is active there: the
    // distance to the bound is smaller than the reduced cost of that side.
    const double z = z0 ? sense * z0[j] : 0.0;
    const double dl = finiteLower(l) ? x_[j] - l : HUGE_VAL;
    const double du = finiteUpper(u) ? u - x_[j] : HUGE_VAL;
    const double tl = 1e-7 * (1.0 + std::fabs(l)), tu = 1e-7 * (1.0 + std::fabs(u));
    if (finiteLower(l) && finiteUpper(u) && l == u) {
      placeNonbasic(j);
    } else if (dl <= tl || (z > 0.0 && dl < z && dl <= du)) {
      state_[j] = kAtLower;
      x_[j] = l;
    } else if (du <= tu || (z < 0.0 && du < -z)) {
      state_[j] = kAtUpper;
      x_[j] = u;
    } else {
      state_[j] = kSuper;
    }
  }
  head_.resize(m_);
  posOf_.assign(N_, -1);
  for (int32_t i = 0; i < m_; i++) {
    head_[i] = n_ + i;
    posOf_[n_ + i] = i;
    state_[n_ + i] = kBasic;
  }
  rowStart_.assign(m_ + 1, 0);
  for (int32_t j = 0; j < n_; j++) forColumn(j, [&](int32_t i, double) { rowStart_[i + 1]++; });
  for (int32_t i = 0; i < m_; i++) rowStart_[i + 1] += rowStart_[i];
  rowCol_.resize(rowStart_[m_]);
  rowVal_.resize(rowStart_[m_]);
  {
    Vec<int32_t> next(rowStart_.begin(), rowStart_.end() - 1);
    for (int32_t j = 0; j < n_; j++)
      forColumn(j, [&](int32_t i, double a) {
        rowCol_[next[i]] = j;
        rowVal_[next[i]++] = a;
      });
  }
  rowAlpha_.assign(n_, 0.0);
  rowMark_.assign(n_, 0);
  y_.assign(m_, 0.0);
  d_.assign(N_, 0.0);
  alpha_.assign(m_, 0.0);
  work_.assign(m_, 0.0);
}

// Factors the basis; a singular one gets the logicals of the rows it leaves
// uncovered in place of the dependent columns.  keepBasics keeps the basic
// values of the updates where the basis stands as it was: the push, whose
// superbasics can be huge (pilot's 1e8 after an inexact interior run),
// would otherwise take the error of B x_B = -N x_N, amplified by an
// ill-conditioned basis, at every refactorisation (pilot: basics 1e9 out
// of bounds after the push, and 7600 pivots of phase 1 to repair them).
int32_t Simplex::refactor(bool keepBasics) {
  // The factor of this very basis, without updates: nothing to do but the
  // basic values (after an optimal run the polish and the vertex would
  // otherwise factor the same basis again; maros-r7 crosses over with
  // no pivot at all).
  if (factor_.numUpdates() == 0 && factoredHead_ == head_) {
    if (!keepBasics) computeBasics();
    return 0;
  }
  factoredHead_.clear();
  for (int attempt = 0; attempt < 3; attempt++) {
    bStart_.assign(1, 0);
    bIndex_.clear();
    bValue_.clear();
    for (int32_t p = 0; p < m_; p++) {
      forColumn(head_[p], [&](int32_t i, double a) {
        bIndex_.push_back(i);
        bValue_.push_back(a);
      });
      bStart_.push_back((int32_t)bIndex_.size());
    }
    const int rc = factor_.factor(m_, bStart_, bIndex_, bValue_, &depPos_, &depRow_);
    if (rc < 0) return IPM_STATUS_OUT_OF_MEMORY;
    if (rc == 0) {
      factoredHead_ = head_;
      if (!keepBasics || attempt > 0) computeBasics();
      return 0;
    }
    bool changed = false;
    for (size_t k = 0; k < depPos_.size(); k++) {
      const int32_t p = depPos_[k], logical = n_ + depRow_[k];
      if (posOf_[logical] >= 0) continue;
      const int32_t out = head_[p];
      posOf_[out] = -1;
      // A column of the crash basis keeps its interior value for the push.
      if (crashing_ && out < n_ && state_[out] == kBasic && x_[out] != lb_[out] &&
          x_[out] != ub_[out])
        state_[out] = kSuper;
      else placeNonbasic(out);
      head_[p] = logical;
      posOf_[logical] = p;
      state_[logical] = kBasic;
      changed = true;
    }
    if (!changed) break;
  }
  return IPM_STATUS_FAILED;
}

// x_B from B x_B = -N x_N.
void Simplex::computeBasics() {
  std::fill(work_.begin(), work_.end(), 0.0);
  for (int32_t j = 0; j < N_; j++) {
    if (state_[j] == kBasic || x_[j] == 0.0) continue;
    const double v = x_[j];
    forColumn(j, [&](int32_t i, double a) { work_[i] -= a * v; });
  }
  factor_.ftran(work_.data());
  for (int32_t p = 0; p < m_; p++) x_[head_[p]] = work_[p];
}

// -1 below the lower bound, 1 above the upper, 0 inside: the sign of the
// variable's phase 1 cost.
int8_t Simplex::infeasibleSide(int32_t j) const {
  const double v = x_[j];
  return v < lb_[j] - set_.primalTol ? -1 : v > ub_[j] + set_.primalTol ? 1 : 0;
}

double Simplex::basicInfeasibility(int32_t p) const {
  const int32_t j = head_[p];
  const double v = x_[j];
  if (v < lb_[j]) return lb_[j] - v;
  if (v > ub_[j]) return v - ub_[j];
  return 0.0;
}

bool Simplex::primalFeasible() const {
  for (int32_t p = 0; p < m_; p++)
    if (basicInfeasibility(p) > set_.primalTol) return false;
  return true;
}

// y = B^-T c_B and the reduced costs of the nonbasics.  Phase 1 prices the
// sum of the basics' infeasibilities.
void Simplex::computeDuals(bool phase1) {
  for (int32_t p = 0; p < m_; p++) {
    const int32_t j = head_[p];
    if (!phase1) {
      y_[p] = cost_[j];
    } else {
      y_[p] = infeasibleSide(j);
    }
  }
  factor_.btran(y_.data());
  for (int32_t j = 0; j < N_; j++)
    d_[j] = state_[j] == kBasic ? 0.0 : (phase1 ? 0.0 : cost_[j]) - dotColumn(j, y_);
}

// Harris's two passes.  Returns the leaving position, -1 for a bound flip of
// the entering column, -2 when nothing blocks.  In phase 1 a basic variable
// outside its bounds blocks only where it becomes feasible; elsewhere (the
// push, phase 2) it must not get worse, so it blocks at once when the step
// would take it further out.
int32_t Simplex::ratioTest(int32_t q, int32_t dir, bool phase1, double* theta, bool* flip) {
  const double tol = set_.primalTol;
  double bound = HUGE_VAL;
  for (int32_t p = 0; p < m_; p++) {
    const double a = alpha_[p];
    if (std::fabs(a) < kPivotTol) continue;
    const double rate = -dir * a;  // change of the basic per unit step
    const int32_t j = head_[p];
    const double v = x_[j];
    double limit;
    if (rate < 0) {
      if (v > ub_[j] + tol) limit = (v - ub_[j] + tol) / -rate;
      else if (finiteLower(lb_[j]) && v >= lb_[j] - tol) limit = (v - lb_[j] + tol) / -rate;
      else if (!phase1 && finiteLower(lb_[j])) limit = tol / -rate;
      else continue;
    } else {
      if (v < lb_[j] - tol) limit = (lb_[j] - v + tol) / rate;
      else if (finiteUpper(ub_[j]) && v <= ub_[j] + tol) limit = (ub_[j] - v + tol) / rate;
      else if (!phase1 && finiteUpper(ub_[j])) limit = tol / rate;
      else continue;
    }
    bound = std::min(bound, limit);
  }
  // The entering column's own range.
  double own = HUGE_VAL;
  if (dir > 0 && finiteUpper(ub_[q])) own = ub_[q] - x_[q];
  if (dir < 0 && finiteLower(lb_[q])) own = x_[q] - lb_[q];
  if (own < 0) own = 0;
  if (own <= bound) {
    if (own == HUGE_VAL) return -2;
    *theta = own;
    *flip = true;
    return -1;
  }
  int32_t best = -1;
  double bestAlpha = 0.0, bestTheta = 0.0;
  for (int32_t p = 0; p < m_; p++) {
    const double a = alpha_[p];
    if (std::fabs(a) < kPivotTol) continue;
    const double rate = -dir * a;
    const int32_t j = head_[p];
    const double v = x_[j];
    double t;
    bool toLower;
    if (rate < 0) {
      toLower = !(v > ub_[j] + tol);
      if (!toLower) t = (v - ub_[j]) / -rate;
      else if (finiteLower(lb_[j]) && v >= lb_[j] - tol) t = (v - lb_[j]) / -rate;
      else if (!phase1 && finiteLower(lb_[j])) t = 0.0;
      else continue;
    } else {
      toLower = v < lb_[j] - tol;
      if (toLower) t = (lb_[j] - v) / rate;
      else if (finiteUpper(ub_[j]) && v <= ub_[j] + tol) t = (ub_[j] - v) / rate;
      else if (!phase1 && finiteUpper(ub_[j])) t = 0.0;
      else continue;
    }
    if (t <= bound) {
      candidates_.push_back(p);
      candTheta_.push_back(t);
      candLower_.push_back(toLower);
      bestAlpha = std::max(bestAlpha, std::fabs(a));
    }
  }
  // Among the pivots that are not much smaller than the largest, the one
  // whose variable the interior point saw with the largest reduced cost
  // leaves: it belongs at its bound, and a basis that keeps it gets the
  // duals wrong, which costs many degenerate pivots later.
  double bestWeight = -1.0, bestSize = 0.0;
  for (size_t k = 0; k < candidates_.size(); k++) {
    const int32_t p = candidates_[k];
    const double size = std::fabs(alpha_[p]);
    if (size < 0.1 * bestAlpha) continue;
    const double weight = ipmDual_[head_[p]];
    if (weight > bestWeight || (weight == bestWeight && size > bestSize)) {
      best = p;
      bestWeight = weight;
      bestSize = size;
      bestTheta = candTheta_[k];
      leaveToLower_ = candLower_[k];
    }
  }
  candidates_.clear();
  candTheta_.clear();
  candLower_.clear();
  if (best < 0) return -2;
  *theta = std::max(bestTheta, 0.0);
  *flip = false;
  return best;
}

void Simplex::pivot(int32_t q, int32_t dir, int32_t r, double theta, bool flip, bool keepLeaving) {
  const double step = dir * theta;
  if (step != 0.0) {
    x_[q] += step;
    for (int32_t p = 0; p < m_; p++)
      if (alpha_[p] != 0.0) x_[head_[p]] -= step * alpha_[p];
  }
  if (flip) {
    state_[q] = dir > 0 ? kAtUpper : kAtLower;
    x_[q] = dir > 0 ? ub_[q] : lb_[q];
    return;
  }
  const int32_t out = head_[r];
  // The leaving variable sits at the bound that it reached.
  const bool toLower = leaveToLower_;
  posOf_[out] = -1;
  if (keepLeaving) {
    // A pivot without a step: the leaving variable keeps its value.
    state_[out] = kSuper;
  } else if (finiteLower(lb_[out]) && lb_[out] == ub_[out]) {
    state_[out] = kFixed;
    x_[out] = lb_[out];
  } else if (toLower && finiteLower(lb_[out])) {
    state_[out] = kAtLower;
    x_[out] = lb_[out];
  } else if (finiteUpper(ub_[out])) {
    state_[out] = kAtUpper;
    x_[out] = ub_[out];
  } else {
    state_[out] = kAtLower;
    x_[out] = lb_[out];
  }
  head_[r] = q;
  posOf_[q] = r;
  state_[q] = kBasic;
  factor_.update(r, alpha_.data());
}

bool Simplex::outOfTime() {
  if (clockExpired()) return true;
  const double used =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return used > set_.timeLimit;
}


void Simplex::ftranColumn(int32_t q) {
  std::fill(alpha_.begin(), alpha_.end(), 0.0);
  forColumn(q, [&](int32_t i, double a) { alpha_[i] += a; });
  factor_.ftran(alpha_.data());
}

// Row r of B^-1 [A -I] over the nonbasic variables that can move, into
// rowIndex_ and rowValue_; rho, row r of B^-1, stays in work_.  A sparse
// rho (the usual case) meets only the rows of A where it is nonzero.
void Simplex::pivotRow(int32_t r) {
  std::fill(work_.begin(), work_.end(), 0.0);
  work_[r] = 1.0;
  factor_.btran(work_.data());
  rowIndex_.clear();
  rowValue_.clear();
  auto keep = [&](int32_t j, double arj) {
    if (arj == 0.0 || state_[j] == kBasic || state_[j] == kFixed) return;
    rowIndex_.push_back(j);
    rowValue_.push_back(arj);
  };
  int32_t nonzeros = 0;
  for (int32_t i = 0; i < m_; i++) nonzeros += work_[i] != 0.0;
  if (nonzeros * 10 < m_) {
    for (int32_t i = 0; i < m_; i++) {
      const double w = work_[i];
      if (w == 0.0) continue;
      for (int32_t p = rowStart_[i]; p < rowStart_[i + 1]; p++) {
        const int32_t j = rowCol_[p];
        if (!rowMark_[j]) {
          rowMark_[j] = 1;
          rowTouched_.push_back(j);
        }
        rowAlpha_[j] += w * rowVal_[p];
      }
      keep(n_ + i, -w);
    }
    for (const int32_t j : rowTouched_) {
      keep(j, rowAlpha_[j]);
      rowAlpha_[j] = 0.0;
      rowMark_[j] = 0;
    }
    rowTouched_.clear();
  } else {
    for (int32_t j = 0; j < N_; j++)
      if (state_[j] != kBasic && state_[j] != kFixed) keep(j, dotColumn(j, work_));
  }
}

// Devex weights from the pivot row, before the basis changes.
// The pivot row serves the reduced costs too, which then need no btran of
// the costs and no pass over the matrix of their own.
void Simplex::updateDevex(int32_t q, int32_t r, bool updateDuals) {
  pivotRow(r);
  const double aq = alpha_[r];
  const double wq = std::max(devex_[q], 1.0);
  const double step = d_[q] / aq;
  for (size_t k = 0; k < rowIndex_.size(); k++) {
    const int32_t j = rowIndex_[k];
    if (j == q) continue;
    const double arj = rowValue_[k];
    const double ratio = arj / aq;
    devex_[j] = std::max(devex_[j], ratio * ratio * wq);
    if (updateDuals) d_[j] -= step * arj;
  }
  if (updateDuals) {
    d_[head_[r]] = -step;
    d_[q] = 0.0;
  }
  devex_[head_[r]] = std::max(wq / (aq * aq), 1.0);
  // Weights that have grown out of proportion make a fresh reference frame.
  if (devex_[head_[r]] > 1e6)
    std::fill(devex_.begin(), devex_.end(), 1.0);
}

// Small random shifts of the costs, in the direction that keeps the nonbasic
// columns dual feasible; they break the ties that make a degenerate vertex
// cycle or stall.  Taken off again once the perturbed problem is optimal.
void Simplex::perturbCosts() {
  cost_ = trueCost_;
  uint32_t seed = 12345u + 7919u * (uint32_t)perturbRounds_++;
  for (int32_t j = 0; j < n_; j++) {
    seed = seed * 1103515245u + 12345u;
    const double u = 0.5 + 0.5 * (double)(seed >> 8) / (double)(1u << 24);
    const double eps = 1e-6 * u * (1.0 + std::fabs(trueCost_[j]));
    if (state_[j] == kAtLower) cost_[j] += eps;
    else if (state_[j] == kAtUpper) cost_[j] -= eps;
    else if (state_[j] == kBasic) cost_[j] += (seed & 1) ? 0.1 * eps : -0.1 * eps;
  }
  perturbed_ = true;
}

// The first basis: the columns strictly inside their bounds, the most
// interior first, then the logicals of the rows that the point leaves
// inactive, then the variables at a bound with the smallest reduced costs
// at the point.  At a strictly complementary point these are the basis,
// and one factorisation replaces a push of every interior column; columns
// that make the basis singular stay superbasic for the push.
int32_t Simplex::crashBasis() {
  Vec<double> act(m_, 0.0), score(N_, 0.0);
  Vec<int32_t> order;
  for (int32_t j = 0; j < n_; j++) {
    const double v = x_[j];
    if (v != 0.0) forColumn(j, [&](int32_t i, double a) { act[i] += a * v; });
    if (state_[j] != kSuper) continue;
    const double dl = finiteLower(lb_[j]) ? x_[j] - lb_[j] : HUGE_VAL;
    const double du = finiteUpper(ub_[j]) ? ub_[j] - x_[j] : HUGE_VAL;
    score[j] = std::min(dl, du) / (1.0 + std::fabs(x_[j]));
    order.push_back(j);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](int32_t a, int32_t b) { return score[a] > score[b]; });
  Vec<int32_t> rows;
  for (int32_t i = 0; i < m_; i++) {
    const int32_t j = n_ + i;
    const double dl = finiteLower(lb_[j]) ? act[i] - lb_[j] : HUGE_VAL;
    const double du = finiteUpper(ub_[j]) ? ub_[j] - act[i] : HUGE_VAL;
    // Inactive rows first (large distance), then the smallest duals.
    score[j] = std::min(dl, du) > set_.primalTol * (1.0 + std::fabs(act[i])) ? 1.0
                                                                                : -ipmDual_[j];
    rows.push_back(j);
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [&](int32_t a, int32_t b) { return score[a] > score[b]; });
  // More interior columns and inactive rows than rows: the point is not at
  // a vertex (not converged), and a truncated basis costs many pivots
  // later; the push from the slack basis makes the better one.
  int32_t inactive = 0;
  for (const int32_t j : rows) inactive += score[j] > 0.0;
  const int64_t filler = (int64_t)m_ - (int64_t)order.size() - inactive;
  if (filler < 0) return refactor();
  // The rest of the basis: the variables at a bound whose reduced cost at
  // the interior point is smallest, columns and logicals of active rows
  // alike.  At a degenerate vertex (dfl001: 2700 of 6000 rows) they are
  // the basics at a bound, and logicals of equality rows in their place
  // would each cost a degenerate pivot to drive out.
  Vec<int32_t> fill;
  for (int32_t j = 0; j < n_; j++)
    if (state_[j] == kAtLower || state_[j] == kAtUpper) fill.push_back(j);
  for (const int32_t j : rows)
    if (score[j] <= 0.0) fill.push_back(j);
  std::stable_sort(fill.begin(), fill.end(),
                   [&](int32_t a, int32_t b) { return ipmDual_[a] < ipmDual_[b]; });
  if ((int64_t)fill.size() > filler) fill.resize(filler);
  const Vec<double> savedX(x_.begin(), x_.begin() + n_);
  const Vec<uint8_t> savedState(state_.begin(), state_.begin() + n_);
  for (int32_t i = 0; i < m_; i++) posOf_[n_ + i] = -1;
  int32_t p = 0;
  for (const int32_t j : order) {
    head_[p] = j;
    posOf_[j] = p++;
    state_[j] = kBasic;
  }
  for (const int32_t j : rows)
    if (score[j] > 0.0) {
      head_[p] = j;
      posOf_[j] = p++;
      state_[j] = kBasic;
    }
  for (const int32_t j : fill) {
    head_[p] = j;
    posOf_[j] = p++;
    state_[j] = kBasic;
  }
  for (const int32_t j : rows)
    if (posOf_[j] < 0) {
      x_[j] = act[j - n_];
      placeNonbasic(j);
    }
  crashing_ = true;
  const int32_t rc = refactor();
  crashing_ = false;
  if (rc != 0 && rc != IPM_STATUS_FAILED) return rc;
  // A basis of at-bound columns from an inexact point (greenbea's ends
  // "dual infeasible") leaves basics far outside their bounds, which cost
  // more pivots to repair than the push from the slack basis takes.
  double worst = 0.0;
  if (rc == 0)
    for (int32_t q = 0; q < m_; q++) {
      const int32_t j = head_[q];
      worst = std::max(worst, basicInfeasibility(q) / (1.0 + std::fabs(x_[j])));
    }
  if (rc == 0 && worst <= kCrashInfeasibility) return 0;
  // Too singular to repair in a few rounds, or too far from feasible: the
  // slack basis, and the push.
  std::copy(savedX.begin(), savedX.end(), x_.begin());
  std::copy(savedState.begin(), savedState.end(), state_.begin());
  for (int32_t j = 0; j < n_; j++) posOf_[j] = -1;
  for (int32_t i = 0; i < m_; i++) {
    head_[i] = n_ + i;
    posOf_[n_ + i] = i;
    state_[n_ + i] = kBasic;
  }
  return refactor();
}

int32_t Simplex::push() {
  Vec<int32_t> order;
  Vec<double> score(N_, 0.0);
  for (int32_t j = 0; j < N_; j++) {
    if (state_[j] != kSuper) continue;
    const double dl = finiteLower(lb_[j]) ? x_[j] - lb_[j] : HUGE_VAL;
    const double du = finiteUpper(ub_[j]) ? ub_[j] - x_[j] : HUGE_VAL;
    score[j] = std::min(dl, du) / (1.0 + std::fabs(x_[j]));
    order.push_back(j);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](int32_t a, int32_t b) { return score[a] > score[b]; });
  const double td = set_.dualTol;
  for (size_t k = 0; k < order.size(); k++) {
    const int32_t j = order[k];
    if (state_[j] != kSuper) continue;
    if ((k & 63) == 0 && outOfTime()) return IPM_STATUS_TIME_LIMIT;
    if (factor_.numUpdates() >= kPushRefactorEvery || factor_.outgrown()) {
      const int32_t rc = refactor(true);
      if (rc != 0) return rc;
      if (state_[j] != kSuper) continue;
    }
    // The reduced cost from the column itself, c_j - c_B' B^-1 a_j: the
    // ftran is needed anyway, and a btran of the costs would be a second
    // solve for every column pushed.
    ftranColumn(j);
    double dj = cost_[j];
    for (int32_t p = 0; p < m_; p++)
      if (alpha_[p] != 0.0) dj -= cost_[head_[p]] * alpha_[p];
    const double dl = finiteLower(lb_[j]) ? x_[j] - lb_[j] : HUGE_VAL;
    const double du = finiteUpper(ub_[j]) ? ub_[j] - x_[j] : HUGE_VAL;
    int32_t dir = dj < -td ? 1 : dj > td ? -1 : (dl <= du ? -1 : 1);
    if (dl == HUGE_VAL && du == HUGE_VAL && std::fabs(dj) <= td) dir = 1;
    double theta = 0.0;
    bool flip = false;
    int32_t r = ratioTest(j, dir, false, &theta, &flip);
    if (r == -2 && std::fabs(dj) <= td) {
      dir = -dir;
      r = ratioTest(j, dir, false, &theta, &flip);
    }
    pushCount_++;
    if (r == -2) {
      // Nothing bounds the move either way: take the column into the basis
      // where its pivot is largest, without a step.
      int32_t best = -1;
      double bestAlpha = kPivotTol;
      for (int32_t p = 0; p < m_; p++)
        if (std::fabs(alpha_[p]) > bestAlpha) {
          bestAlpha = std::fabs(alpha_[p]);
          best = p;
        }
      if (best >= 0) {
        pivot(j, dir, best, 0.0, false, true);
      } else {
        // The column does not reach the basis at all (an empty one): it
        // can sit anywhere, so it goes where a basis puts a nonbasic.
        placeNonbasic(j);
        computeBasics();
      }
      continue;
    }
    pivot(j, dir, r, theta, flip);
  }
  return 0;
}

// td is the dual tolerance of this run; cap bounds its iterations, after
// which it returns kCapReached.
int32_t Simplex::simplex(double td, int64_t cap) {
  const int64_t first = iterations_;
  int32_t stall = 0, singularRetry = 0;
  // Reduced costs are updated from the pivot row between fresh computations,
  // which come with every factorisation, before a claim of optimality or
  // infeasibility, and in phase 1 whenever a basic variable crosses a bound
  // (its phase 1 cost changes then).
  int freshPhase = -1;  // the phase whose reduced costs d_ holds, -1 none
  int32_t updated = 0;
  const int64_t guard = cycleGuard(N_);
  for (;;) {
    if (iterations_ >= set_.iterationLimit || iterations_ >= guard)
      return IPM_STATUS_ITERATION_LIMIT;
    if (iterations_ - first >= cap) return kCapReached;
    if ((iterations_ & 15) == 0 && outOfTime()) return IPM_STATUS_TIME_LIMIT;
    if (factor_.numUpdates() >= kRefactorEvery || factor_.outgrown()) {
      const int32_t rc = refactor();
      if (rc != 0) return rc;
      freshPhase = -1;
    }
    const bool phase1 = !primalFeasible();
    if (freshPhase != (int)phase1) {
      computeDuals(phase1);
      freshPhase = phase1;
      updated = 0;
    }
    int32_t q = -1, dir = 0;
    double best = 0.0;
    for (int32_t j = 0; j < N_; j++) {
      const uint8_t s = state_[j];
      const double dj = d_[j];
      int32_t dj_dir;
      if (s == kAtLower && dj < -td) dj_dir = 1;
      else if (s == kAtUpper && dj > td) dj_dir = -1;
      else if ((s == kFreeZero || s == kSuper) && std::fabs(dj) > td) dj_dir = dj < 0 ? 1 : -1;
      else continue;
      const double score = dj * dj / devex_[j];
      if (score > best) {
        best = score;
        q = j;
        dir = dj_dir;
      }
    }
    if (q < 0) {
      if (updated > 0) {
        freshPhase = -1;
        continue;
      }
      if (phase1) return IPM_STATUS_PRIMAL_INFEASIBLE;
      if (perturbed_) {
        cost_ = trueCost_;
        perturbed_ = false;
        freshPhase = -1;
        continue;
      }
      return IPM_STATUS_OPTIMAL;
    }
    ftranColumn(q);
    double theta = 0.0;
    bool flip = false;
    const int32_t r = ratioTest(q, dir, phase1, &theta, &flip);
    if (r == -2) {
      // An unbounded ray in phase 1 is a sign of a stale factor; so is one
      // in phase 2 until a fresh factor confirms it.
      if (factor_.numUpdates() > 0 && singularRetry < 2) {
        singularRetry++;
        const int32_t rc = refactor();
        if (rc != 0) return rc;
        freshPhase = -1;
        continue;
      }
      if (phase1) return IPM_STATUS_FAILED;
      if (perturbed_) {
        cost_ = trueCost_;
        perturbed_ = false;
        freshPhase = -1;
        continue;
      }
      return IPM_STATUS_DUAL_INFEASIBLE;
    }
    singularRetry = 0;
    const double gain = theta * std::fabs(d_[q]);
    if (phase1) {
      sideBefore_.clear();
      for (int32_t p = 0; p < m_; p++)
        if (alpha_[p] != 0.0 || p == r) sideBefore_.push_back(infeasibleSide(head_[p]));
    }
    if (r >= 0) {
      updateDevex(q, r, true);
      updated++;
    }
    pivot(q, dir, r, theta, flip);
    if (phase1) {
      size_t k = 0;
      for (int32_t p = 0; p < m_ && freshPhase >= 0; p++) {
        if (alpha_[p] == 0.0 && p != r) continue;
        // The leaving variable's cost goes to zero with it; that is a change
        // unless it left from inside its bounds.
        if (infeasibleSide(head_[p]) != sideBefore_[k] || (p == r && sideBefore_[k] != 0))
          freshPhase = -1;
        k++;
      }
    }
    iterations_++;
    stall = gain > 1e-12 ? 0 : stall + 1;
    if (stall > kStallBeforePerturb && perturbRounds_ < kMaxPerturbRounds && !phase1) {
      perturbCosts();
      freshPhase = -1;
      stall = 0;
    }
  }
}

// Whether the dual simplex should make the basis primal feasible: when it
// is not, and fewer costs need a shift to make it dual feasible than there
// are infeasible basics for the primal phase 1 to repair.  A point far from
// optimal on both sides (an interior run that ended "dual infeasible")
// goes the primal way; a slack basis usually the dual way.
bool Simplex::preferDual() {
  int32_t primal = 0;
  for (int32_t p = 0; p < m_; p++) primal += basicInfeasibility(p) > set_.primalTol;
  if (primal == 0) return false;
  computeDuals(false);
  int32_t dual = 0;
  const double td = set_.dualTol;
  for (int32_t j = 0; j < N_; j++) {
    const uint8_t st = state_[j];
    if (finiteLower(lb_[j]) && finiteUpper(ub_[j]) && (st == kAtLower || st == kAtUpper)) continue;
    const double dj = d_[j];
    dual += (st == kAtLower && dj < -td) || (st == kAtUpper && dj > td) ||
            ((st == kFreeZero || st == kSuper) && std::fabs(dj) > td);
  }
  return dual < primal;
}

// A dual simplex for a basis that is not primal feasible, as after an
// interior run that ended inexact.  The basis is made dual feasible by
// flipping boxed columns to the bound their reduced cost wants and by
// shifting the costs of the others; the shifts are taken off once the basis
// is primal feasible, and the primal simplex deals with what they hid.
// Dual devex pricing of the leaving row, Harris's two passes with long steps
// over boxed columns (bound flips while the leaving row stays infeasible).
// Returns 0 when primal feasible, kCapReached when the dual ratio test finds
// no entering column (left to the primal phase 1), or a status.
int32_t Simplex::dualSimplex() {
  const double tp = set_.primalTol, td = set_.dualTol;
  auto makeDualFeasible = [&]() {
    computeDuals(false);
    bool flipped = false;
    uint32_t seed = 2654435761u;
    for (int32_t j = 0; j < N_; j++) {
      const uint8_t st = state_[j];
      if (st == kBasic || st == kFixed) continue;
      const double dj = d_[j];
      const bool boxed = finiteLower(lb_[j]) && finiteUpper(ub_[j]);
      if (st == kAtLower && dj < -td && boxed) {
        state_[j] = kAtUpper;
        x_[j] = ub_[j];
        flipped = true;
      } else if (st == kAtUpper && dj > td && boxed) {
        state_[j] = kAtLower;
        x_[j] = lb_[j];
        flipped = true;
      } else {
        // A shift to a small reduced cost of the right sign, varied against
        // ties in the ratio test.
        seed = seed * 1103515245u + 12345u;
        const double target = td * (1.0 + (double)(seed >> 16) / 65536.0);
        double shift = 0.0;
        if (st == kAtLower && dj < 0.0) shift = target - dj;
        else if (st == kAtUpper && dj > 0.0) shift = -target - dj;
        else if (st == kFreeZero || st == kSuper) shift = -dj;
        cost_[j] += shift;
        d_[j] += shift;
        if (shift != 0.0) perturbed_ = true;
      }
    }
    if (flipped) computeBasics();
  };
  makeDualFeasible();
  dualWeight_.assign(m_, 1.0);
  flipDelta_.assign(m_, 0.0);
  int32_t trouble = 0;
  const int64_t guard = cycleGuard(N_);
  for (;;) {
    if (iterations_ >= set_.iterationLimit || iterations_ >= guard)
      return IPM_STATUS_ITERATION_LIMIT;
    if ((iterations_ & 15) == 0 && outOfTime()) return IPM_STATUS_TIME_LIMIT;
    if (factor_.numUpdates() >= kRefactorEvery || factor_.outgrown()) {
      const int32_t rc = refactor();
      if (rc != 0) return rc;
      makeDualFeasible();
    }
    // The leaving row: the largest infeasibility for its weight.
    int32_t r = -1;
    double best = 0.0;
    for (int32_t p = 0; p < m_; p++) {
      const double v = basicInfeasibility(p);
      if (v <= tp) continue;
      const double score = v * v / dualWeight_[p];
      if (score > best) {
        best = score;
        r = p;
      }
    }
    if (r < 0) return 0;
    const int32_t leaving = head_[r];
    const bool toLower = x_[leaving] < lb_[leaving];
    const double bound = toLower ? lb_[leaving] : ub_[leaving];
    // d_j moves by s * t * alpha_rj with the dual step t >= 0.
    const double s = toLower ? 1.0 : -1.0;
    pivotRow(r);
    dualCand_.clear();
    for (size_t k = 0; k < rowIndex_.size(); k++) {
      const int32_t j = rowIndex_[k];
      const double a = s * rowValue_[k];
      const uint8_t st = state_[j];
      if (std::fabs(a) < kPivotTol) continue;
      if ((st == kAtLower && a < 0) || (st == kAtUpper && a > 0) || st == kFreeZero || st == kSuper)
        dualCand_.push_back((int32_t)k);
    }
    // The reduced cost's distance from zero on its feasible side; a column
    // a little on the wrong side (within the tolerance) is a breakpoint at 0.
    auto slack = [&](int32_t k) {
      const int32_t j = rowIndex_[k];
      const double dj = d_[j];
      return state_[j] == kAtLower ? dj : state_[j] == kAtUpper ? -dj : std::fabs(dj);
    };
    auto ratio = [&](int32_t k) { return std::max(slack(k), 0.0) / std::fabs(rowValue_[k]); };
    // Long steps, a group of breakpoints at a time: Harris's bound over the
    // candidates left, and those within it; while the leaving row stays
    // infeasible past the whole group and all of it is boxed, the group
    // flips to its other bounds and the walk goes on.  Otherwise the
    // largest pivot of the group enters.
    double slope = std::fabs(x_[leaving] - bound);
    size_t first = 0;  // dualCand_[0, first) flip
    int32_t enterK = -1;
    while (first < dualCand_.size()) {
      double tmax = HUGE_VAL;
      for (size_t c = first; c < dualCand_.size(); c++) {
        const int32_t k = dualCand_[c];
        tmax = std::min(tmax, (std::max(slack(k), 0.0) + td) / std::fabs(rowValue_[k]));
      }
      size_t end = first;
      double drop = 0.0, bestAlpha = 0.0;
      bool allBoxed = true;
      int32_t pick = -1;
      for (size_t c = first; c < dualCand_.size(); c++) {
        const int32_t k = dualCand_[c];
        if (ratio(k) > tmax) continue;
        std::swap(dualCand_[c], dualCand_[end++]);
        const int32_t j = rowIndex_[k];
        if (finiteLower(lb_[j]) && finiteUpper(ub_[j]))
          drop += std::fabs(rowValue_[k]) * (ub_[j] - lb_[j]);
        else
          allBoxed = false;
        if (std::fabs(rowValue_[k]) > bestAlpha) {
          bestAlpha = std::fabs(rowValue_[k]);
          pick = k;
        }
      }
      if (allBoxed && slope - drop > 0.0 && end < dualCand_.size()) {
        slope -= drop;
        first = end;
        continue;
      }
      enterK = pick;
      break;
    }
    if (enterK < 0) {
      // No column can enter: the LP looks infeasible, which the primal
      // phase 1 decides with the true costs.
      return kCapReached;
    }
    const int32_t q = rowIndex_[enterK];
    const double arq = rowValue_[enterK];
    const double t = ratio(enterK);
    ftranColumn(q);
    if (std::fabs(alpha_[r] - arq) > 1e-6 * (1.0 + std::fabs(arq))) {
      // Row and column disagree on the pivot: the factor has drifted.
      if (++trouble > 3) return IPM_STATUS_FAILED;
      const int32_t rc = refactor();
      if (rc != 0) return rc;
      makeDualFeasible();
      continue;
    }
    // Flips of the columns passed over; the basics follow.
    bool anyFlip = false;
    std::fill(flipDelta_.begin(), flipDelta_.end(), 0.0);
    for (size_t c = 0; c < first; c++) {
      const int32_t j = rowIndex_[dualCand_[c]];
      if (j == q) continue;
      const double to = state_[j] == kAtLower ? ub_[j] : lb_[j];
      const double change = to - x_[j];
      state_[j] = state_[j] == kAtLower ? kAtUpper : kAtLower;
      x_[j] = to;
      forColumn(j, [&](int32_t i, double a) { flipDelta_[i] -= a * change; });
      anyFlip = true;
    }
    if (anyFlip) {
      factor_.ftran(flipDelta_.data());
      for (int32_t p = 0; p < m_; p++) x_[head_[p]] += flipDelta_[p];
    }
    // Duals: the step t along the pivot row.
    for (size_t k = 0; k < rowIndex_.size(); k++) d_[rowIndex_[k]] += s * t * rowValue_[k];
    // Dual devex weights.
    const double wr = dualWeight_[r];
    for (int32_t p = 0; p < m_; p++) {
      if (p == r || alpha_[p] == 0.0) continue;
      const double ratioP = alpha_[p] / alpha_[r];
      dualWeight_[p] = std::max(dualWeight_[p], ratioP * ratioP * wr);
    }
    dualWeight_[r] = std::max(wr / (alpha_[r] * alpha_[r]), 1.0);
    // The primal step takes the leaving variable to its bound.
    const double dq = (x_[leaving] - bound) / alpha_[r];
    leaveToLower_ = toLower;
    pivot(q, dq >= 0 ? 1 : -1, r, std::fabs(dq), false);
    d_[q] = 0.0;
    d_[leaving] = s * t;
    devex_[leaving] = 1.0;
    iterations_++;
    dualIterations_++;
  }
}

void Simplex::finish(Result* out, int32_t status) {
  out->status = status;
  out->stats.pushIterations = (int32_t)std::min<int64_t>(pushCount_, INT32_MAX);
  out->stats.simplexIterations = (int32_t)std::min<int64_t>(iterations_, INT32_MAX);
  out->dualIterations = dualIterations_;
  if (status != IPM_STATUS_OPTIMAL) return;
  const double sense = lp_.objSense < 0 ? -1.0 : 1.0;
  cost_ = trueCost_;
  // The vertex from a fresh factor, not through the eta file, and two
  // steps of refinement: badly conditioned bases of large values otherwise
  // leave row residuals well above the tolerances.
  if (factor_.numUpdates() == 0 || refactor() != 0) computeBasics();
  for (int step = 0; step < 2; step++) {
    std::fill(work_.begin(), work_.end(), 0.0);
    for (int32_t j = 0; j < N_; j++) {
      const double v = x_[j];
      if (v != 0.0) forColumn(j, [&](int32_t i, double a) { work_[i] -= a * v; });
    }
    factor_.ftran(work_.data());
    for (int32_t p = 0; p < m_; p++) x_[head_[p]] += work_[p];
  }
  computeDuals(false);
  // The duals get the same refinement: B' y = c_B.
  for (int step = 0; step < 2; step++) {
    for (int32_t p = 0; p < m_; p++) work_[p] = cost_[head_[p]] - dotColumn(head_[p], y_);
    factor_.btran(work_.data());
    for (int32_t p = 0; p < m_; p++) y_[p] += work_[p];
  }
  out->x.assign(x_.begin(), x_.begin() + n_);
  out->activity.assign(m_, 0.0);
  out->y.resize(m_);
  out->z.resize(n_);
  for (int32_t j = 0; j < n_; j++) {
    const double v = x_[j];
    forColumn(j, [&](int32_t i, double a) { out->activity[i] += a * v; });
    out->z[j] = sense * (trueCost_[j] - dotColumn(j, y_));
  }
  for (int32_t i = 0; i < m_; i++) out->y[i] = sense * y_[i];
  out->objective = 0.0;
  for (int32_t j = 0; j < n_; j++) out->objective += lp_.obj[j] * x_[j];
  out->basis.assign(N_, BASIS_NONE);
  FennickStats& st = out->stats;
  double pInf = 0.0, bInf = 0.0, dInf = 0.0;
  for (int32_t j = 0; j < N_; j++) {
    const double v = j < n_ ? x_[j] : out->activity[j - n_];
    const double viol = std::max(lb_[j] - v, v - ub_[j]);
    if (j < n_) bInf = std::max(bInf, viol);
    else pInf = std::max(pInf, viol);
    // Reduced cost in the minimising sense: the logical's is its row dual.
    const double dj = j < n_ ? sense * out->z[j] : y_[j - n_];
    if (!finiteLower(lb_[j])) dInf = std::max(dInf, dj);
    if (!finiteUpper(ub_[j])) dInf = std::max(dInf, -dj);
    uint8_t b;
    switch (state_[j]) {
      case kBasic: b = BASIS_BASIC; st.numBasic++; break;
      case kAtLower:
        b = lb_[j] == ub_[j] ? BASIS_FIXED : BASIS_AT_LOWER;
        (b == BASIS_FIXED ? st.numFixed : st.numAtLower)++;
        break;
      case kAtUpper:
        b = lb_[j] == ub_[j] ? BASIS_FIXED : BASIS_AT_UPPER;
        (b == BASIS_FIXED ? st.numFixed : st.numAtUpper)++;
        break;
      case kFreeZero: b = BASIS_FREE_ZERO; st.numFreeZero++; break;
      case kFixed: b = BASIS_FIXED; st.numFixed++; break;
      default: b = BASIS_NONE; break;
    }
    out->basis[j] = b;
  }
  out->primalInfeas = pInf;
  out->boundInfeas = bInf;
  out->dualInfeas = dInf;
}

int32_t Simplex::run(const double* x0, const double* y0, const double* z0, Result* out) {
  start_ = std::chrono::steady_clock::now();
  setup(x0, y0, z0);
  int32_t status = set_.fromPoint ? crashBasis() : refactor();
  if (status == 0 && set_.fromPoint) status = push();
  if (status == 0 && set_.dualSimplex && preferDual()) {
    status = dualSimplex();
    // What the dual simplex leaves (a feasible basis, or a row it could not
    // repair, or trouble with the factor) the primal simplex takes on.
    if (status == kCapReached || status == IPM_STATUS_FAILED) status = 0;
    cost_ = trueCost_;
    perturbed_ = false;
    std::fill(devex_.begin(), devex_.end(), 1.0);
  }
  // Superbasics that neither pushing nor pricing moved (no improving
  // direction, no bound in reach) are pushed again at the end; a couple of
  // rounds settle all but pathological cases.
  for (int round = 0; status == 0 && round < 4; round++) {
    status = refactor();
    if (status == 0) status = simplex(set_.dualTol, INT64_MAX);
    if (status != IPM_STATUS_OPTIMAL) break;
    bool super = false;
    for (int32_t j = 0; j < N_ && !super; j++) super = state_[j] == kSuper;
    if (!super) break;
    status = refactor();
    if (status == 0) status = push();
  }
  // Badly scaled LPs hide a last improvement below the dual tolerance: a
  // polish at a tighter one, bounded, from the optimal basis.  If it does
  // not settle, the basis it started from stands.
  if (status == IPM_STATUS_OPTIMAL && set_.polishTol < set_.dualTol) {
    const Vec<int32_t> head = head_;
    const Vec<uint8_t> state = state_;
    const Vec<double> x = x_;
    int32_t polished = refactor();
    if (polished == 0) polished = simplex(set_.polishTol, kPolishIterations);
    if (polished != IPM_STATUS_OPTIMAL) {
      head_ = head;
      state_ = state;
      x_ = x;
      std::fill(posOf_.begin(), posOf_.end(), -1);
      for (int32_t p = 0; p < m_; p++) posOf_[head_[p]] = p;
      cost_ = trueCost_;
      perturbed_ = false;
      status = refactor();
      if (status == 0) status = IPM_STATUS_OPTIMAL;
    }
  }
  if (status == 0) status = IPM_STATUS_FAILED;
  if (status == IPM_STATUS_OPTIMAL) {
    for (int32_t j = 0; j < N_; j++)
      if (state_[j] == kSuper) status = IPM_STATUS_FAILED;
  }
  finish(out, status);
  out->stats.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return status;
}

}  // namespace

int32_t crossover(const LpView& lp, const double* x0, const double* y0, const double* z0,
                  const Settings& settings, Result* result) {
  if (!result) return IPM_STATUS_FAILED;
  *result = Result();
  if (lp.numRow < 0 || lp.numCol < 0 || (lp.numCol > 0 && (!lp.obj || !lp.lower || !lp.upper ||
                                                           !lp.colBegin)) ||
      (lp.numRow > 0 && (!lp.rhs || !lp.rowSense))) {
    result->status = IPM_STATUS_FAILED;
    return result->status;
  }
  Settings own = settings;
  if (!x0) own.fromPoint = false;
  Simplex s(lp, own);
  if (!own.fromPoint) x0 = y0 = z0 = nullptr;
  return s.run(x0, y0, z0, result);
}

}  // namespace fennick

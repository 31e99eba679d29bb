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
constexpr int32_t kRefactorEvery = 100;
constexpr double kPivotTol = 1e-7;  // smallest |alpha| accepted as a pivot
constexpr int32_t kStallBeforePerturb = 60;
// A stall after the costs came back gets a fresh perturbation, a few times.
constexpr int32_t kMaxPerturbRounds = 8;
constexpr int32_t kCapReached = -3;
// The polish finds what it finds within a few pivots, or not at all.
constexpr int64_t kPolishIterations = 1000;
// Whatever limit the caller sets, a run this long on its size is cycling
// (badly scaled costs of 1e20 and more make every pivot look like a gain),
// and it stops at the iteration limit.
constexpr int64_t kCycleGuardBase = 100000, kCycleGuardPerColumn = 1000;

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
  double dotColumn(int32_t j, const std::vector<double>& v) const {
    double s = 0.0;
    forColumn(j, [&](int32_t i, double a) { s += a * v[i]; });
    return s;
  }

  void setup(const double* x0, const double* y0, const double* z0);
  int32_t refactor();
  void computeBasics();
  double basicInfeasibility(int32_t p) const;
  bool primalFeasible() const;
  void computeDuals(bool phase1);
  int32_t ratioTest(int32_t q, int32_t dir, bool phase1, double* theta, bool* flip);
  void pivot(int32_t q, int32_t dir, int32_t r, double theta, bool flip, bool keepLeaving = false);
  void ftranColumn(int32_t q);
  void updateDevex(int32_t q, int32_t r, bool updateDuals);
  void perturbCosts();
  int32_t push();
  int32_t simplex(double td, int64_t cap);
  bool outOfTime();
  void finish(Result* out, int32_t status);
  void placeNonbasic(int32_t j);

  const LpView& lp_;
  Settings set_;
  int32_t m_ = 0, n_ = 0, N_ = 0;
  std::vector<double> cost_, trueCost_, lb_, ub_, x_, y_, d_, alpha_, work_, devex_;
  std::vector<uint8_t> state_;
  // |reduced cost| of each variable at the interior point, 0 without one.
  std::vector<double> ipmDual_, candTheta_;
  std::vector<int32_t> candidates_;
  std::vector<bool> candLower_;
  bool leaveToLower_ = true;  // the bound that the leaving variable of the last ratio test reaches
  std::vector<int32_t> head_, posOf_;
  BasisFactor factor_;
  std::vector<int32_t> bStart_, bIndex_, depPos_, depRow_;
  std::vector<double> bValue_;
  bool perturbed_ = false;
  int32_t perturbRounds_ = 0;
  int64_t pushCount_ = 0, iterations_ = 0;
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
  y_.assign(m_, 0.0);
  d_.assign(N_, 0.0);
  alpha_.assign(m_, 0.0);
  work_.assign(m_, 0.0);
}

// Factors the basis; a singular one gets the logicals of the rows it leaves
// uncovered in place of the dependent columns.
int32_t Simplex::refactor() {
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
      computeBasics();
      return 0;
    }
    bool changed = false;
    for (size_t k = 0; k < depPos_.size(); k++) {
      const int32_t p = depPos_[k], logical = n_ + depRow_[k];
      if (posOf_[logical] >= 0) continue;
      const int32_t out = head_[p];
      posOf_[out] = -1;
      placeNonbasic(out);
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
      const double v = x_[j];
      y_[p] = v < lb_[j] - set_.primalTol ? -1.0 : v > ub_[j] + set_.primalTol ? 1.0 : 0.0;
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
  const double used =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return used > set_.timeLimit;
}


void Simplex::ftranColumn(int32_t q) {
  std::fill(alpha_.begin(), alpha_.end(), 0.0);
  forColumn(q, [&](int32_t i, double a) { alpha_[i] += a; });
  factor_.ftran(alpha_.data());
}

// Devex weights from the pivot row, before the basis changes.
// The pivot row serves the reduced costs too, which then need no btran of
// the costs and no pass over the matrix of their own.
void Simplex::updateDevex(int32_t q, int32_t r, bool updateDuals) {
  std::fill(work_.begin(), work_.end(), 0.0);
  work_[r] = 1.0;
  factor_.btran(work_.data());
  const double aq = alpha_[r];
  const double wq = std::max(devex_[q], 1.0);
  const double step = d_[q] / aq;
  for (int32_t j = 0; j < N_; j++) {
    if (state_[j] == kBasic || state_[j] == kFixed || j == q) continue;
    const double arj = dotColumn(j, work_);
    if (arj == 0.0) continue;
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

int32_t Simplex::push() {
  std::vector<int32_t> order;
  std::vector<double> score(N_, 0.0);
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
    if (factor_.numUpdates() >= kRefactorEvery) {
      const int32_t rc = refactor();
      if (rc != 0) return rc;
      if (state_[j] != kSuper) continue;
    }
    for (int32_t p = 0; p < m_; p++) y_[p] = cost_[head_[p]];
    factor_.btran(y_.data());
    const double dj = cost_[j] - dotColumn(j, y_);
    ftranColumn(j);
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
  // Phase 2 updates the reduced costs from the pivot row between fresh
  // computations, which come with every factorisation and before a claim of
  // optimality.
  bool fresh = false;
  int32_t updated = 0;
  const int64_t guard = kCycleGuardBase + kCycleGuardPerColumn * (int64_t)N_;
  for (;;) {
    if (iterations_ >= set_.iterationLimit || iterations_ >= guard)
      return IPM_STATUS_ITERATION_LIMIT;
    if (iterations_ - first >= cap) return kCapReached;
    if ((iterations_ & 15) == 0 && outOfTime()) return IPM_STATUS_TIME_LIMIT;
    if (factor_.numUpdates() >= kRefactorEvery) {
      const int32_t rc = refactor();
      if (rc != 0) return rc;
      fresh = false;
    }
    const bool phase1 = !primalFeasible();
    if (phase1 || !fresh) {
      computeDuals(phase1);
      fresh = !phase1;
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
      if (phase1) return IPM_STATUS_PRIMAL_INFEASIBLE;
      if (updated > 0) {
        fresh = false;
        continue;
      }
      if (perturbed_) {
        cost_ = trueCost_;
        perturbed_ = false;
        fresh = false;
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
        fresh = false;
        continue;
      }
      if (phase1) return IPM_STATUS_FAILED;
      if (perturbed_) {
        cost_ = trueCost_;
        perturbed_ = false;
        fresh = false;
        continue;
      }
      return IPM_STATUS_DUAL_INFEASIBLE;
    }
    singularRetry = 0;
    const double gain = theta * std::fabs(d_[q]);
    if (r >= 0) {
      updateDevex(q, r, fresh);
      updated++;
    }
    pivot(q, dir, r, theta, flip);
    iterations_++;
    stall = gain > 1e-12 ? 0 : stall + 1;
    if (stall > kStallBeforePerturb && perturbRounds_ < kMaxPerturbRounds && !phase1) {
      perturbCosts();
      fresh = false;
      stall = 0;
    }
  }
}

void Simplex::finish(Result* out, int32_t status) {
  out->status = status;
  out->stats.pushIterations = (int32_t)std::min<int64_t>(pushCount_, INT32_MAX);
  out->stats.simplexIterations = (int32_t)std::min<int64_t>(iterations_, INT32_MAX);
  if (status != IPM_STATUS_OPTIMAL) return;
  const double sense = lp_.objSense < 0 ? -1.0 : 1.0;
  cost_ = trueCost_;
  computeBasics();
  computeDuals(false);
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
  int32_t status = refactor();
  if (status == 0 && set_.fromPoint) status = push();
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
    const std::vector<int32_t> head = head_;
    const std::vector<uint8_t> state = state_;
    const std::vector<double> x = x_;
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

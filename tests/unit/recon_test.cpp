// The one-row separable QP solver, checked against closed forms, an
// independent bisection on the row multiplier, and the KKT conditions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "records/recon.h"

namespace {

constexpr uint8_t kLo = RECON_HAS_LOWER;
constexpr uint8_t kUp = RECON_HAS_UPPER;
constexpr uint8_t kBoth = RECON_HAS_LOWER | RECON_HAS_UPPER;
constexpr double kSentinel = -777.0;

// Owns the arrays behind one ReconRecord.
struct Problem {
  std::vector<double> q, c, lower, upper, x, s, t, z, w, step, inverse;
  std::vector<uint8_t> flags;
  ReconRecord rec{};

  explicit Problem(int n) { resize(n); }

  void resize(int n) {
    q.assign(n, 1.0);
    c.assign(n, 0.0);
    lower.assign(n, 0.0);
    upper.assign(n, 0.0);
    flags.assign(n, 0);
    x.assign(n, kSentinel);
    for (auto* v : {&s, &t, &z, &w, &step, &inverse}) v->assign(n, 0.0);
    rec.maxIter = 200;
    rec.big = 1e20;
    rec.primalTol = rec.dualTol = rec.gapTol = 1e-8;
    rec.n = n;
    rec.iterations = -1;
    rec.primalResidual = rec.dualResidual = rec.gap = rec.objective = kSentinel;
  }

  void bind() {
    rec.q = q.data();
    rec.c = c.data();
    rec.lower = lower.data();
    rec.upper = upper.data();
    rec.flags = flags.data();
    rec.x = x.data();
    rec.lowerSlack = s.data();
    rec.upperSlack = t.data();
    rec.lowerDual = z.data();
    rec.upperDual = w.data();
    rec.step = step.data();
    rec.inverse = inverse.data();
  }

  int32_t solve() {
    bind();
    return qpReconQP(&rec);
  }

  int n() const { return (int)q.size(); }

  double objectiveAt(const std::vector<double>& v) const {
    double f = 0.0;
    for (int i = 0; i < n(); ++i) f += (0.5 * q[i] * v[i] + c[i]) * v[i];
    return f;
  }

  double sumX() const {
    double sum = 0.0;
    for (double v : x) sum += v;
    return sum;
  }

  bool outputsUntouched() const {
    return rec.iterations == -1 && rec.primalResidual == kSentinel &&
           rec.dualResidual == kSentinel && rec.gap == kSentinel && rec.objective == kSentinel;
  }
};

// Minimiser of 1/2 q v^2 + (c - y) v on the variable's bounds; q may be 0
// only for a variable bounded on the side that y pushes it to.
double responseTo(const Problem& p, int i, double y) {
  double v;
  if (p.q[i] > 0.0) {
    v = (y - p.c[i]) / p.q[i];
  } else {
    v = (y > p.c[i]) ? 1e300 : (y < p.c[i] ? -1e300 : 0.0);
  }
  if (p.flags[i] & kLo) v = std::max(v, p.lower[i]);
  if (p.flags[i] & kUp) v = std::min(v, p.upper[i]);
  return v;
}

// Independent reference: bisection on the row multiplier y, sum x(y) = b.
// Variables with q = 0 and c_i equal to the final y share what the strictly
// convex ones leave over.
struct Reference {
  double y;
  std::vector<double> x;
};

Reference bisect(const Problem& p) {
  const int n = p.n();
  double lo = -1e7, hi = 1e7;
  auto total = [&](double y) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += responseTo(p, i, y);
    return sum;
  };
  for (int k = 0; k < 300 && hi - lo > 1e-15 * std::max(1.0, std::fabs(lo)); ++k) {
    const double mid = 0.5 * (lo + hi);
    (total(mid) < p.rec.b ? lo : hi) = mid;
  }
  Reference ref{0.5 * (lo + hi), std::vector<double>(n)};
  std::vector<int> ties;
  double rest = p.rec.b;
  for (int i = 0; i < n; ++i) {
    if (p.q[i] == 0.0 && std::fabs(p.c[i] - ref.y) < 1e-9 * std::max(1.0, std::fabs(ref.y))) {
      ties.push_back(i);
      continue;
    }
    ref.x[i] = responseTo(p, i, ref.y);
    rest -= ref.x[i];
  }
  // Fill the tied variables in order; any split has the same objective.
  for (int i : ties) {
    const double v = std::min(std::max(rest, p.lower[i]), p.upper[i]);
    ref.x[i] = v;
    rest -= v;
  }
  return ref;
}

// KKT at the returned point with the returned duals.  The row multiplier is
// not an output; at a KKT point every q x + c - z + w equals it, so their
// mean stands in for it.
void expectKkt(const Problem& p, double tol) {
  const int n = p.n();
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    sum += p.q[i] * p.x[i] + p.c[i] - ((p.flags[i] & kLo) ? p.z[i] : 0.0) +
           ((p.flags[i] & kUp) ? p.w[i] : 0.0);
  }
  const double y = n ? sum / n : 0.0;
  double cMax = 0.0;
  for (double ci : p.c) cMax = std::max(cMax, std::fabs(ci));
  const double scale = 1.0 + cMax + std::fabs(y);
  for (int i = 0; i < n; ++i) {
    double g = p.q[i] * p.x[i] + p.c[i] - y;
    if (p.flags[i] & kLo) {
      EXPECT_GE(p.x[i], p.lower[i]) << "i=" << i;
      EXPECT_GE(p.z[i], 0.0) << "i=" << i;
      EXPECT_LE(p.z[i] * (p.x[i] - p.lower[i]), tol * scale) << "i=" << i;
      g -= p.z[i];
    }
    if (p.flags[i] & kUp) {
      EXPECT_LE(p.x[i], p.upper[i]) << "i=" << i;
      EXPECT_GE(p.w[i], 0.0) << "i=" << i;
      EXPECT_LE(p.w[i] * (p.upper[i] - p.x[i]), tol * scale) << "i=" << i;
      g += p.w[i];
    }
    EXPECT_NEAR(g, 0.0, tol * scale) << "stationarity at i=" << i;
  }
  EXPECT_NEAR(p.sumX(), p.rec.b, tol * (1.0 + std::fabs(p.rec.b)));
}

void expectMeetsTolerances(const Problem& p) {
  EXPECT_LE(p.rec.primalResidual, p.rec.primalTol);
  EXPECT_LE(p.rec.dualResidual, p.rec.dualTol);
  EXPECT_LE(p.rec.gap, p.rec.gapTol);
  EXPECT_GT(p.rec.iterations, 0);
  EXPECT_LE(p.rec.iterations, p.rec.maxIter);
}

// Unbounded separable problem: x_i = (y - c_i) / q_i, y from the row.
std::vector<double> freeOptimum(const Problem& p) {
  double sumInv = 0.0, sumCq = 0.0;
  for (int i = 0; i < p.n(); ++i) {
    sumInv += 1.0 / p.q[i];
    sumCq += p.c[i] / p.q[i];
  }
  const double y = (p.rec.b + sumCq) / sumInv;
  std::vector<double> x(p.n());
  for (int i = 0; i < p.n(); ++i) x[i] = (y - p.c[i]) / p.q[i];
  return x;
}

Problem freeProblem() {
  Problem p(4);
  p.q = {1.0, 2.0, 0.5, 4.0};
  p.c = {1.0, -3.0, 2.0, 0.25};
  p.rec.b = 7.5;
  return p;
}

}  // namespace

// ---- no bounds at all ---------------------------------------------------------------

TEST(ReconFree, MatchesClosedForm) {
  Problem p = freeProblem();
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  const std::vector<double> expect = freeOptimum(p);
  for (int i = 0; i < p.n(); ++i) EXPECT_NEAR(p.x[i], expect[i], 1e-8) << i;
  expectMeetsTolerances(p);
  EXPECT_NEAR(p.rec.objective, p.objectiveAt(expect), 1e-8);
  // Unclipped here, so the residual must agree with the returned point.
  EXPECT_NEAR(p.rec.primalResidual, std::fabs(p.rec.b - p.sumX()) / (std::fabs(p.rec.b) + 1.0),
              1e-14);
}

// With no bounds the Newton step is exact, so each damped pass leaves 1e-4
// of the distance: one pass lands at x0 + 0.9999 (x* - x0), and a handful
// reach any sensible tolerance.
TEST(ReconFree, OnePassIsTheDampedNewtonStep) {
  Problem p = freeProblem();
  p.rec.maxIter = 1;
  ASSERT_EQ(p.solve(), RECON_ITERATION_LIMIT);
  const std::vector<double> star = freeOptimum(p);
  for (int i = 0; i < p.n(); ++i)
    EXPECT_NEAR(p.x[i], 100.0 + 0.9999 * (star[i] - 100.0), 1e-10) << i;
  EXPECT_EQ(p.rec.iterations, 1);
  // The measures of that one pass are reported.
  EXPECT_NEAR(p.rec.primalResidual, std::fabs(p.rec.b - p.sumX()) / (std::fabs(p.rec.b) + 1.0),
              1e-14);
  EXPECT_GT(p.rec.primalResidual, 0.0);
  EXPECT_NEAR(p.rec.objective, p.objectiveAt(p.x), 1e-9);

  Problem full = freeProblem();
  ASSERT_EQ(full.solve(), RECON_SOLVED);
  EXPECT_LE(full.rec.iterations, 4);
}

TEST(ReconFree, FreeVariableDisablesTheBoundShortcut) {
  // Bounded variables alone could only sum to [0, 2]; the free one takes the
  // rest, so b = 10 is feasible and not an early exit.
  Problem p(3);
  p.q = {1.0, 1.0, 2.0};
  p.c = {0.0, 1.0, -1.0};
  p.flags = {kBoth, kBoth, 0};
  p.upper = {1.0, 1.0, 0.0};
  p.rec.b = 10.0;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  expectKkt(p, 1e-6);
  const Reference ref = bisect(p);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(p.x[i], ref.x[i], 1e-6) << i;
}

// ---- bounded problems -----------------------------------------------------------------

TEST(ReconBounded, ActiveBoundsMatchBisectionAndKkt) {
  Problem p(6);
  p.q = {1.0, 2.0, 0.5, 3.0, 1.0, 1.5};
  p.c = {-4.0, 1.0, 0.0, 2.0, -1.0, 5.0};
  p.flags = {kBoth, kLo, kUp, kBoth, kBoth, kLo};
  p.lower = {0.0, 0.5, 0.0, -1.0, 2.0, 0.0};
  p.upper = {1.0, 0.0, 0.3, 1.0, 5.0, 0.0};
  p.rec.b = 4.0;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  expectKkt(p, 1e-6);
  const Reference ref = bisect(p);
  for (int i = 0; i < p.n(); ++i) EXPECT_NEAR(p.x[i], ref.x[i], 1e-6) << i;
  EXPECT_NEAR(p.rec.objective, p.objectiveAt(ref.x), 1e-6);
  // The case must exercise active bounds on both sides to mean anything.
  EXPECT_NEAR(p.x[0], 1.0, 1e-6);   // pushed to its upper bound
  EXPECT_NEAR(p.x[5], 0.0, 1e-6);   // held at its lower bound
  EXPECT_NEAR(p.x[1], 0.5, 1e-6);   // held at its lower bound
  EXPECT_NEAR(p.x[2], 0.3, 1e-6);   // pushed to its upper bound
}

TEST(ReconBounded, LinearCostsFillCheapestFirst) {
  // q = 0 throughout: an LP over a box whose optimum fills the cheapest
  // variables up to b = 2.5.
  Problem p(4);
  p.q.assign(4, 0.0);
  p.c = {3.0, 1.0, 2.0, 5.0};
  p.flags.assign(4, kBoth);
  p.upper.assign(4, 1.0);
  p.rec.b = 2.5;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  const double expect[] = {0.5, 1.0, 1.0, 0.0};
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(p.x[i], expect[i], 1e-6) << i;
  EXPECT_NEAR(p.rec.objective, 0.5 * 3.0 + 1.0 + 2.0, 1e-6);
}

TEST(ReconBounded, MixedLinearAndQuadratic) {
  Problem p(5);
  p.q = {0.0, 2.0, 0.0, 1.0, 0.0};
  p.c = {1.0, 0.0, -2.0, 3.0, 4.0};
  p.flags = {kBoth, kLo, kBoth, kBoth, kBoth};
  p.lower = {0.0, -10.0, 0.0, 0.0, -1.0};
  p.upper = {2.0, 0.0, 1.0, 10.0, 1.0};
  p.rec.b = 3.0;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  expectKkt(p, 1e-6);
  const Reference ref = bisect(p);
  EXPECT_NEAR(p.rec.objective, p.objectiveAt(ref.x), 1e-6);
  for (int i = 0; i < p.n(); ++i) {
    if (p.q[i] > 0.0) {
      EXPECT_NEAR(p.x[i], ref.x[i], 1e-6) << i;
    }
  }
}

TEST(ReconBounded, LargeRandomProblemAgreesWithBisection) {
  const int n = 1000;
  Problem p(n);
  std::mt19937 gen(12345);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int i = 0; i < n; ++i) {
    const int kind = i % 5;  // both, lower, upper, free, linear in a box
    p.q[i] = kind == 4 ? 0.0 : 0.1 + 5.0 * unit(gen);
    p.c[i] = 20.0 * unit(gen) - 10.0;
    p.lower[i] = 4.0 * unit(gen) - 2.0;
    p.upper[i] = p.lower[i] + 3.0 * unit(gen);
    p.flags[i] = kind == 1 ? kLo : kind == 2 ? kUp : kind == 3 ? 0 : kBoth;
  }
  p.rec.b = 150.0;
  // Rounding in the eliminated bound duals grows as the slacks shrink, so on
  // a problem this size the attainable gap sits near 1e-8; ask for less.
  p.rec.primalTol = p.rec.dualTol = p.rec.gapTol = 1e-7;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  expectKkt(p, 1e-5);
  const Reference ref = bisect(p);
  double worst = 0.0;
  for (int i = 0; i < n; ++i) {
    if (p.q[i] > 0.0) worst = std::max(worst, std::fabs(p.x[i] - ref.x[i]));
  }
  EXPECT_LT(worst, 1e-4);
  const double fRef = p.objectiveAt(ref.x);
  EXPECT_NEAR(p.rec.objective, fRef, 1e-6 * (1.0 + std::fabs(fRef)));
  EXPECT_LE(p.objectiveAt(p.x), fRef + 1e-6 * (1.0 + std::fabs(fRef)));
}

// ---- checks before the iteration --------------------------------------------------------

TEST(ReconChecks, NegativeDiagonalBeforeEverythingElse) {
  Problem p(3);
  p.q = {1.0, -1e-12, 1.0};
  p.flags = {kBoth, kBoth, kBoth};
  p.lower = {0.0, 2.0, 0.0};  // crossed too: the diagonal is reported first
  p.upper = {1.0, 1.0, 1.0};
  EXPECT_EQ(p.solve(), RECON_BAD_DIAGONAL);
  EXPECT_TRUE(p.outputsUntouched());
  EXPECT_EQ(p.x[0], kSentinel);

  p.q[1] = std::nan("");
  EXPECT_EQ(p.solve(), RECON_BAD_DIAGONAL);

  // A free variable with no curvature has nothing to hold it.
  Problem f(2);
  f.q = {0.0, 1.0};
  f.flags = {0, kBoth};
  f.upper = {0.0, 1.0};
  EXPECT_EQ(f.solve(), RECON_BAD_DIAGONAL);
}

TEST(ReconChecks, InfeasibleBoundsAndSums) {
  Problem crossed(2);
  crossed.flags = {kBoth, kBoth};
  crossed.lower = {0.0, 1.0};
  crossed.upper = {1.0, 0.5};
  crossed.rec.b = 1.0;
  EXPECT_EQ(crossed.solve(), RECON_INFEASIBLE);
  EXPECT_TRUE(crossed.outputsUntouched());
  EXPECT_EQ(crossed.x[0], kSentinel);

  // Crossed numbers on one-sided variables are not a contradiction.
  Problem oneSided(2);
  oneSided.flags = {kLo, kUp};
  oneSided.lower = {5.0, 0.0};
  oneSided.upper = {0.0, -5.0};
  oneSided.rec.b = 0.0;
  EXPECT_EQ(oneSided.solve(), RECON_SOLVED);
  expectKkt(oneSided, 1e-6);

  Problem box(3);
  box.flags.assign(3, kBoth);
  box.lower = {1.0, 1.0, 1.0};
  box.upper = {2.0, 2.0, 2.0};
  box.rec.primalTol = 1e-6;
  box.rec.b = 6.0 * (1.0 + 1e-5);  // past maxSum and its band
  EXPECT_EQ(box.solve(), RECON_INFEASIBLE);
  box.rec.b = 3.0 * (1.0 - 1e-5);  // below minSum and its band
  EXPECT_EQ(box.solve(), RECON_INFEASIBLE);
  box.rec.b = -0.5;  // the absolute band near zero
  box.lower = {-0.1, -0.1, -0.1};
  EXPECT_EQ(box.solve(), RECON_INFEASIBLE);
  EXPECT_TRUE(box.outputsUntouched());

  // A missing upper bound lets the sum grow without limit.
  box.lower = {1.0, 1.0, 1.0};
  box.flags[2] = kLo;
  box.rec.b = 50.0;
  EXPECT_EQ(box.solve(), RECON_SOLVED);
  EXPECT_NEAR(box.sumX(), 50.0, 1e-4);
}

TEST(ReconChecks, SumAtTheEdgeReturnsThatBoundWithoutIterating) {
  Problem p(3);
  p.c = {1.0, 2.0, 3.0};
  p.flags.assign(3, kBoth);
  p.lower = {1.0, 2.0, 3.0};
  p.upper = {4.0, 5.0, 6.0};
  p.rec.primalTol = 1e-6;

  p.rec.b = 6.0;
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_EQ(p.x, p.lower);
  EXPECT_TRUE(p.outputsUntouched());

  p.x.assign(3, kSentinel);
  p.rec.b = 15.0;
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_EQ(p.x, p.upper);
  EXPECT_TRUE(p.outputsUntouched());

  // With no band at all, b exactly on the sum is still the edge.
  p.x.assign(3, kSentinel);
  p.rec.primalTol = 0.0;
  p.rec.b = 6.0;
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_EQ(p.x, p.lower);
  p.rec.b = 15.0;
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_EQ(p.x, p.upper);
  EXPECT_TRUE(p.outputsUntouched());
  p.rec.primalTol = 1e-6;

  // Inside the relative band, on the outer side, still counts as the edge.
  p.x.assign(3, kSentinel);
  p.rec.b = 15.0 * (1.0 + 0.5e-6);
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_EQ(p.x, p.upper);

  // Just inside the box, beyond the band, is a real solve.
  p.rec.b = 6.0 * (1.0 + 1e-4);
  EXPECT_EQ(p.solve(), RECON_SOLVED);
  EXPECT_GT(p.rec.iterations, 0);
  expectKkt(p, 1e-6);
}

TEST(ReconChecks, IterationLimitZeroReportsZeros) {
  Problem p = freeProblem();
  p.rec.maxIter = 0;
  EXPECT_EQ(p.solve(), RECON_ITERATION_LIMIT);
  EXPECT_EQ(p.rec.iterations, 0);
  EXPECT_EQ(p.rec.primalResidual, 0.0);
  EXPECT_EQ(p.rec.dualResidual, 0.0);
  EXPECT_EQ(p.rec.gap, 0.0);
  EXPECT_EQ(p.rec.objective, 0.0);
  // The starting point, clipped to bounds where they exist.
  for (double v : p.x) EXPECT_EQ(v, 100.0);

  Problem b(3);
  b.flags = {kBoth, kLo, kUp};
  b.upper = {1.0, 0.0, 50.0};
  b.lower = {0.0, 150.0, 0.0};
  b.rec.b = 160.0;
  b.rec.maxIter = 0;
  EXPECT_EQ(b.solve(), RECON_ITERATION_LIMIT);
  EXPECT_EQ(b.x[0], 1.0);
  EXPECT_EQ(b.x[1], 150.0);
  EXPECT_EQ(b.x[2], 50.0);
}

TEST(ReconChecks, IterationLimitStopsABoundedSolve) {
  Problem p(4);
  p.q.assign(4, 0.0);
  p.c = {3.0, 1.0, 2.0, 5.0};
  p.flags.assign(4, kBoth);
  p.upper.assign(4, 1.0);
  p.rec.b = 2.5;
  p.rec.maxIter = 3;
  EXPECT_EQ(p.solve(), RECON_ITERATION_LIMIT);
  EXPECT_EQ(p.rec.iterations, 3);
  EXPECT_GT(std::max({p.rec.primalResidual, p.rec.dualResidual, p.rec.gap}), 1e-9);
  for (int i = 0; i < 4; ++i) {
    EXPECT_GE(p.x[i], 0.0);
    EXPECT_LE(p.x[i], 1.0);
  }
}

TEST(ReconChecks, MalformedRecordIsRejectedWithoutTouchingIt) {
  EXPECT_EQ(qpReconQP(nullptr), RECON_INFEASIBLE);

  Problem p = freeProblem();
  p.rec.n = -1;
  EXPECT_EQ(qpReconQP(&p.rec), RECON_INFEASIBLE);
  EXPECT_TRUE(p.outputsUntouched());

  Problem missing = freeProblem();
  missing.bind();
  missing.rec.step = nullptr;
  EXPECT_EQ(qpReconQP(&missing.rec), RECON_INFEASIBLE);
  EXPECT_TRUE(missing.outputsUntouched());

  // With no variables the arrays are never read: the empty sum meets b = 0
  // and cannot meet b = 1.
  ReconRecord empty{};
  empty.maxIter = 10;
  empty.primalTol = 1e-8;
  EXPECT_EQ(qpReconQP(&empty), RECON_SOLVED);
  empty.b = 1.0;
  EXPECT_EQ(qpReconQP(&empty), RECON_INFEASIBLE);
}

// ---- positiveness -----------------------------------------------------------------------

TEST(ReconPositiveness, RaisesOnlyEntriesWhoseBoundExists) {
  const uint8_t flags[4] = {0, kLo, kUp, kBoth};
  double s[4] = {-1.0, -1.0, -1.0, 0.5};
  double t[4] = {-2.0, -2.0, 0.0, 1e-20};
  double z[4] = {-3.0, 1e-30, -3.0, 2.0};
  double w[4] = {-4.0, -4.0, 3.0, -4.0};
  qpPositiveness(1e-15, 4, flags, s, t, z, w);
  // No flags: nothing moves.
  EXPECT_EQ(s[0], -1.0);
  EXPECT_EQ(t[0], -2.0);
  EXPECT_EQ(z[0], -3.0);
  EXPECT_EQ(w[0], -4.0);
  // Lower only.
  EXPECT_EQ(s[1], 1e-15);
  EXPECT_EQ(z[1], 1e-15);
  EXPECT_EQ(t[1], -2.0);
  EXPECT_EQ(w[1], -4.0);
  // Upper only; a value above the floor stays.
  EXPECT_EQ(s[2], -1.0);
  EXPECT_EQ(z[2], -3.0);
  EXPECT_EQ(t[2], 1e-15);
  EXPECT_EQ(w[2], 3.0);
  // Both.
  EXPECT_EQ(s[3], 0.5);
  EXPECT_EQ(t[3], 1e-15);
  EXPECT_EQ(z[3], 2.0);
  EXPECT_EQ(w[3], 1e-15);

  // Null arrays are ignored rather than dereferenced.
  qpPositiveness(1.0, 4, flags, nullptr, t, z, w);
  EXPECT_EQ(t[3], 1e-15);
}

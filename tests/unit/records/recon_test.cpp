// The one-row separable QP solver, checked against an independent bisection
// on the row multiplier and the KKT conditions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "records/recon.h"

namespace {

constexpr uint8_t kLo = RECON_HAS_LOWER;
constexpr uint8_t kUp = RECON_HAS_UPPER;
constexpr uint8_t kBoth = RECON_HAS_LOWER | RECON_HAS_UPPER;
constexpr double kSentinel = -777.0;
using Reals = std::vector<double>;

// Owns the arrays behind one ReconRecord.
struct Problem {
  Reals q, c, lower, upper, x, s, t, z, w, step, inverse;
  std::vector<uint8_t> flags;
  ReconRecord rec{};

  explicit Problem(int n, double b = 0.0)
      : q(n, 1.0), c(n, 0.0), lower(n, 0.0), upper(n, 0.0), x(n, kSentinel), s(n), t(n), z(n),
        w(n), step(n), inverse(n), flags(n, 0) {
    rec.maxIter = 200, rec.big = 1e20, rec.n = n, rec.b = b, rec.iterations = -1;
    rec.primalTol = rec.dualTol = rec.gapTol = 1e-8;
    rec.primalResidual = rec.dualResidual = rec.gap = rec.objective = kSentinel;
  }
  void bind() {
    rec.q = q.data(), rec.c = c.data(), rec.lower = lower.data(), rec.upper = upper.data();
    rec.flags = flags.data(), rec.x = x.data(), rec.lowerSlack = s.data();
    rec.upperSlack = t.data(), rec.lowerDual = z.data(), rec.upperDual = w.data();
    rec.step = step.data(), rec.inverse = inverse.data();
  }
  int32_t solve() {
    bind();
    return qpReconQP(&rec);
  }
  int n() const { return (int)q.size(); }
  double objectiveAt(const Reals& v) const {
    double f = 0.0;
    for (int i = 0; i < n(); ++i) f += (0.5 * q[i] * v[i] + c[i]) * v[i];
    return f;
  }
  bool outputsUntouched() const {
    return rec.iterations == -1 && rec.primalResidual == kSentinel &&
           rec.dualResidual == kSentinel && rec.gap == kSentinel && rec.objective == kSentinel;
  }
};

// Minimiser of 1/2 q v^2 + (c - y) v on the variable's bounds; q may be 0
// only for a variable bounded on the side that y pushes it to.
double responseTo(const Problem& p, int i, double y) {
  double v = p.q[i] > 0.0 ? (y - p.c[i]) / p.q[i]
                          : (y > p.c[i] ? 1e300 : (y < p.c[i] ? -1e300 : 0.0));
  if (p.flags[i] & kLo) v = std::max(v, p.lower[i]);
  if (p.flags[i] & kUp) v = std::min(v, p.upper[i]);
  return v;
}

// Independent reference: bisection on the row multiplier y, sum x(y) = b.
// Variables with q = 0 and c_i equal to the final y share, in order, what
// the others leave over; any split has the same objective.
Reals bisect(const Problem& p) {
  double lo = -1e7, hi = 1e7;
  auto total = [&](double y) {
    double sum = 0.0;
    for (int i = 0; i < p.n(); ++i) sum += responseTo(p, i, y);
    return sum;
  };
  for (int k = 0; k < 300 && hi - lo > 1e-15 * std::max(1.0, std::fabs(lo)); ++k) {
    const double mid = 0.5 * (lo + hi);
    (total(mid) < p.rec.b ? lo : hi) = mid;
  }
  const double y = 0.5 * (lo + hi);
  Reals x(p.n());
  std::vector<int> ties;
  double rest = p.rec.b;
  for (int i = 0; i < p.n(); ++i) {
    if (p.q[i] == 0.0 && std::fabs(p.c[i] - y) < 1e-9 * std::max(1.0, std::fabs(y))) {
      ties.push_back(i);
      continue;
    }
    rest -= (x[i] = responseTo(p, i, y));
  }
  for (int i : ties) rest -= (x[i] = std::min(std::max(rest, p.lower[i]), p.upper[i]));
  return x;
}

// KKT at the returned point with the returned duals.  The row multiplier is
// not an output; at a KKT point every q x + c - z + w equals it, so their
// mean stands in for it.
void expectKkt(const Problem& p, double tol) {
  const int n = p.n();
  double sum = 0.0, cMax = 0.0;
  for (int i = 0; i < n; ++i) {
    sum += p.q[i] * p.x[i] + p.c[i] - ((p.flags[i] & kLo) ? p.z[i] : 0.0) +
           ((p.flags[i] & kUp) ? p.w[i] : 0.0);
    cMax = std::max(cMax, std::fabs(p.c[i]));
  }
  const double y = n ? sum / n : 0.0, scale = 1.0 + cMax + std::fabs(y);
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
  EXPECT_NEAR(std::accumulate(p.x.begin(), p.x.end(), 0.0), p.rec.b,
              tol * (1.0 + std::fabs(p.rec.b)));
}

void expectMeetsTolerances(const Problem& p) {
  EXPECT_LE(p.rec.primalResidual, p.rec.primalTol);
  EXPECT_LE(p.rec.dualResidual, p.rec.dualTol);
  EXPECT_LE(p.rec.gap, p.rec.gapTol);
  EXPECT_GT(p.rec.iterations, 0);
  EXPECT_LE(p.rec.iterations, p.rec.maxIter);
}

Problem boxLP() {  // q = 0 throughout: fills the cheapest variables up to b
  Problem p(4, 2.5);
  p.q.assign(4, 0.0);
  p.c = {3.0, 1.0, 2.0, 5.0};
  p.flags.assign(4, kBoth);
  p.upper.assign(4, 1.0);
  return p;
}

}  // namespace

// Every kind of variable mixed, linear ones in boxes among them; the bound a
// one-sided variable does not have crosses the one it has, which is no
// contradiction.
TEST(ReconBounded, LargeRandomProblemAgreesWithBisection) {
  const int n = 1000;
  Problem p(n, 150.0);
  std::mt19937 gen(12345);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  for (int i = 0; i < n; ++i) {
    const int kind = i % 5;  // both, lower, upper, free, linear in a box
    p.q[i] = kind == 4 ? 0.0 : 0.1 + 5.0 * unit(gen);
    p.c[i] = 20.0 * unit(gen) - 10.0;
    p.lower[i] = 4.0 * unit(gen) - 2.0;
    p.upper[i] = p.lower[i] + 3.0 * unit(gen);
    p.flags[i] = kind == 1 ? kLo : kind == 2 ? kUp : kind == 3 ? 0 : kBoth;
    if (kind == 1) p.upper[i] = p.lower[i] - 1.0;
    if (kind == 2) p.lower[i] = p.upper[i] + 1.0;
  }
  // Rounding in the eliminated bound duals grows as the slacks shrink, so on
  // a problem this size the attainable gap sits near 1e-8; ask for less.
  p.rec.primalTol = p.rec.dualTol = p.rec.gapTol = 1e-7;
  ASSERT_EQ(p.solve(), RECON_SOLVED);
  expectMeetsTolerances(p);
  expectKkt(p, 1e-5);
  const Reals ref = bisect(p);
  double worst = 0.0;
  for (int i = 0; i < n; ++i)
    if (p.q[i] > 0.0) worst = std::max(worst, std::fabs(p.x[i] - ref[i]));
  EXPECT_LT(worst, 1e-4);
  const double fRef = p.objectiveAt(ref);
  EXPECT_NEAR(p.rec.objective, fRef, 1e-6 * (1.0 + std::fabs(fRef)));
  EXPECT_LE(p.objectiveAt(p.x), fRef + 1e-6 * (1.0 + std::fabs(fRef)));
}

TEST(ReconChecks, BadDiagonalAndInfeasibleInputTouchNothing) {
  Problem p(3, 2.5);  // within the sums of the crossed bounds
  p.q = {1.0, -1e-12, 1.0};
  p.flags.assign(3, kBoth);
  p.lower = {0.0, 2.0, 0.0};  // crossed too: the diagonal is reported first
  p.upper = {1.0, 1.0, 1.0};
  EXPECT_EQ(p.solve(), RECON_BAD_DIAGONAL);
  EXPECT_TRUE(p.outputsUntouched());
  EXPECT_EQ(p.x[0], kSentinel);
  p.q[1] = std::nan("");
  EXPECT_EQ(p.solve(), RECON_BAD_DIAGONAL);
  p.q[1] = 1.0;
  EXPECT_EQ(p.solve(), RECON_INFEASIBLE);
  EXPECT_TRUE(p.outputsUntouched());
  EXPECT_EQ(p.x[0], kSentinel);
  // A free variable with no curvature has nothing to hold it.
  p.q[0] = 0.0;
  p.flags[0] = 0;
  p.lower[1] = 0.0;
  EXPECT_EQ(p.solve(), RECON_BAD_DIAGONAL);

}

// b on a sum of the bounds, or within its band (relative, or absolute near
// zero), returns that bound without iterating; past the band is infeasible.
// With no band at all, b exactly on the sum is still the edge.
TEST(ReconChecks, SumAtOrPastTheEdgeIsDecidedWithoutIterating) {
  Problem p(3);
  p.c = {1.0, 2.0, 3.0};
  p.flags.assign(3, kBoth);
  p.lower = {1.0, 2.0, 3.0};
  p.upper = {4.0, 5.0, 6.0};
  const struct { double tol, b; int32_t status; int edge; } cases[] = {
      {1e-6, 6.0, RECON_SOLVED, -1}, {1e-6, 15.0, RECON_SOLVED, 1},
      {0.0, 6.0, RECON_SOLVED, -1},  {0.0, 15.0, RECON_SOLVED, 1},
      {1e-6, 15.0 * (1.0 + 0.5e-6), RECON_SOLVED, 1},
      {1e-6, 15.0 * (1.0 + 1e-5), RECON_INFEASIBLE, 0},
      {1e-6, 6.0 * (1.0 - 1e-5), RECON_INFEASIBLE, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.b << " tol " << c.tol);
    p.x.assign(3, kSentinel);
    p.rec.primalTol = c.tol;
    p.rec.b = c.b;
    EXPECT_EQ(p.solve(), c.status);
    EXPECT_EQ(p.x, c.edge > 0 ? p.upper : c.edge < 0 ? p.lower : Reals(3, kSentinel));
    EXPECT_TRUE(p.outputsUntouched());
  }
  p.rec.b = -0.5;
  p.lower.assign(3, -0.1);
  EXPECT_EQ(p.solve(), RECON_INFEASIBLE);
}

TEST(ReconChecks, IterationLimit) {
  // Zero passes report zeros and the start clipped to the bounds.
  Problem p(4, 160.0);
  p.flags = {kBoth, kLo, kUp, 0};
  p.upper = {1.0, 0.0, 50.0, 0.0};
  p.lower = {0.0, 150.0, 0.0, 0.0};
  p.rec.maxIter = 0;
  EXPECT_EQ(p.solve(), RECON_ITERATION_LIMIT);
  EXPECT_EQ((Reals{(double)p.rec.iterations, p.rec.primalResidual, p.rec.dualResidual, p.rec.gap,
                   p.rec.objective}),
            Reals(5, 0.0));
  EXPECT_EQ(p.x, (Reals{1.0, 150.0, 50.0, 100.0}));

  Problem lp = boxLP();
  lp.rec.maxIter = 3;
  EXPECT_EQ(lp.solve(), RECON_ITERATION_LIMIT);
  EXPECT_EQ(lp.rec.iterations, 3);
  EXPECT_GT(std::max({lp.rec.primalResidual, lp.rec.dualResidual, lp.rec.gap}), 1e-9);
  for (double v : lp.x) EXPECT_TRUE(v >= 0.0 && v <= 1.0) << v;
}

TEST(ReconChecks, MalformedRecordIsRejectedWithoutTouchingIt) {
  EXPECT_EQ(qpReconQP(nullptr), RECON_INFEASIBLE);
  Problem p(4, 7.5);
  p.rec.n = -1;
  EXPECT_EQ(qpReconQP(&p.rec), RECON_INFEASIBLE);
  EXPECT_TRUE(p.outputsUntouched());
  p.rec.n = 4;
  p.bind();
  p.rec.step = nullptr;
  EXPECT_EQ(qpReconQP(&p.rec), RECON_INFEASIBLE);
  EXPECT_TRUE(p.outputsUntouched());

  // With no variables the arrays are never read: the empty sum meets b = 0
  // and cannot meet b = 1.
  ReconRecord empty{};
  empty.maxIter = 10;
  empty.primalTol = 1e-8;
  EXPECT_EQ(qpReconQP(&empty), RECON_SOLVED);
  empty.b = 1.0;
  EXPECT_EQ(qpReconQP(&empty), RECON_INFEASIBLE);
}

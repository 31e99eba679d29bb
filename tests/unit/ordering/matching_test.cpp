// Static permutations by matching: the transversal against an assignment
// solver of the test's own, the splitting of its cycles,
// and the matching of an augmented system's two blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

#include "support/graph_support.h"

namespace {

using graphs::PoolEnv;
using IntVec = std::vector<int32_t>;
using Dense = std::vector<std::vector<double>>;  // a[i][j], 0 for no entry

struct Csc {
  int32_t n = 0;
  IntVec begin{0}, index;
  std::vector<double> value;
};
Csc fromDense(const Dense& a) {
  Csc m;
  m.n = (int32_t)a.size();
  for (int32_t j = 0; j < m.n; j++, m.begin.push_back((int32_t)m.index.size()))
    for (int32_t i = 0; i < m.n; i++)
      if (a[i][j] != 0.0) m.index.push_back(i), m.value.push_back(a[i][j]);
  return m;
}

// Magnitudes over six decades; with a transversal, a hidden permutation's
// entries are stored so that a perfect matching exists.
Dense randomDense(int32_t n, double density, uint32_t seed, bool transversal) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0), decade(-3.0, 3.0);
  Dense a(n, std::vector<double>(n, 0.0));
  IntVec sigma(n);
  for (int32_t i = 0; i < n; i++) sigma[i] = i;
  std::shuffle(sigma.begin(), sigma.end(), rng);
  for (int32_t j = 0; j < n; j++)
    for (int32_t i = 0; i < n; i++)
      if (u(rng) < density || (transversal && sigma[j] == i))
        a[i][j] = (u(rng) < 0.5 ? -1 : 1) * std::pow(10.0, decade(rng));
  return a;
}

// Minimal sum of -ln|a| over perfect matchings (+inf when none): shortest
// augmenting paths with potentials on the dense matrix, O(n^3).
double bestLogCost(const Dense& a) {
  int32_t n = (int32_t)a.size();
  auto c = [&](int32_t i, int32_t j) { return a[i][j] != 0.0 ? -std::log(std::fabs(a[i][j])) : 1e18; };
  std::vector<double> u(n + 1, 0), v(n + 1, 0);
  IntVec rowOf(n + 1, 0), way(n + 1, 0);  // column-indexed, 1-based
  for (int32_t i = 1; i <= n; i++) {
    rowOf[0] = i;
    int32_t j0 = 0;
    std::vector<double> minv(n + 1, INFINITY);
    std::vector<bool> used(n + 1, false);
    do {
      used[j0] = true;
      int32_t i0 = rowOf[j0], j1 = 0;
      double delta = INFINITY;
      for (int32_t j = 1; j <= n; j++) {
        if (used[j]) continue;
        double cur = c(i0 - 1, j - 1) - u[i0] - v[j];
        if (cur < minv[j]) minv[j] = cur, way[j] = j0;
        if (minv[j] < delta) delta = minv[j], j1 = j;
      }
      for (int32_t j = 0; j <= n; j++)
        if (used[j]) u[rowOf[j]] += delta, v[j] -= delta;
        else minv[j] -= delta;
      j0 = j1;
    } while (rowOf[j0] != 0);
    for (int32_t j1; j0; j0 = j1) j1 = way[j0], rowOf[j0] = rowOf[j1];
  }
  double s = 0;
  for (int32_t j = 1; j <= n; j++) s += c(rowOf[j] - 1, j - 1);
  return s >= 1e18 ? INFINITY : s;
}

// The matching engine as the general entry drives it.
struct Matched {
  int32_t status = -1, initial = 0, matched = 0;
  IntVec colMatch;
};
Matched runEngine(PoolEnv& e, const Csc& m, int32_t requirePerfect) {
  int32_t n = m.n;
  std::vector<double> cost(m.value.size()), rowMin(n), dist(n);
  for (int32_t j = 0; j < n; j++) {
    double top = 0;
    for (int32_t p = m.begin[j]; p < m.begin[j + 1]; p++) top = std::max(top, std::fabs(m.value[p]));
    for (int32_t p = m.begin[j]; p < m.begin[j + 1]; p++) cost[p] = std::log(top / std::fabs(m.value[p]));
  }
  Matched r;
  IntVec rowMatch(n), work(3 * n);
  r.colMatch.resize(n);
  r.status = FindInitialMatching(n, n, m.begin.data(), m.index.data(), cost.data(), rowMin.data(),
                                 r.colMatch.data(), rowMatch.data(), &r.initial, work.data());
  r.matched = r.initial;
  if (r.status == 0 && r.initial < n)
    r.status = FindColPerfectMatching(e.pool, n, n, m.begin.data(), m.index.data(), requirePerfect,
                                      cost.data(), r.colMatch.data(), rowMatch.data(), &r.matched,
                                      work.data(), dist.data());
  return r;
}

// The general entry (n1 < 0) or the augmented one.
struct Static {
  int32_t status = -1, ns = -1, np = -1;
  IntVec perm0, piv;
};
Static staticPerm(PoolEnv& e, const Csc& m, int32_t n1 = -1, int32_t n2 = 0, int32_t perfect = 1) {
  Static r;
  int32_t n = m.n;
  r.perm0.assign(n, -1);
  r.piv.assign(n, 0);
  IntVec iw(5 * n + 1);
  std::vector<double> dw(m.value.size() + 2 * n + 1);
  r.status = n1 < 0 ? FindStaticPermGen(e.pool, n, m.begin.data(), m.index.data(), m.value.data(),
                                        perfect, r.perm0.data(), &r.ns, &r.np, r.piv.data(),
                                        iw.data(), dw.data())
                    : FindStaticPermAug(e.pool, n, n1, n2, m.begin.data(), m.index.data(),
                                        m.value.data(), perfect, r.perm0.data(), &r.ns, &r.np,
                                        r.piv.data(), iw.data(), dw.data());
  return r;
}

// Transversals of random matrices from 2 to 200 columns, against the
// assignment solver: always perfect when one exists, and of maximum product
// wherever the tight entries alone complete the matching (the augmenting
// search works on unchanged reduced costs and may stop at a good path rather
// than the best).  Without a transversal (columns 0 and 1 in row 0 only): 5
// under requirePerfect, else one column short, the rest of colMatch filled
// with free rows.  A column of stored zeros is unfit.
TEST(Matching, TransversalAgainstAnAssignmentSolver) {
  PoolEnv e;
  int32_t optimalChecked = 0, augmented = 0;
  for (uint32_t seed = 1; seed <= 280; seed++) {
    int32_t n = seed <= 240 ? 3 + (int32_t)seed % 6 : (seed % 2 ? 40 : 200);
    bool singular = seed % 6 == 0 && n <= 8;
    Dense a = randomDense(n, n <= 8 ? 0.35 : 6.0 / n, seed, true);
    if (singular) {
      for (int32_t i = 0; i < n; i++) a[i][0] = a[i][1] = i == 0 ? 1.0 : 0.0;
      for (int32_t i = 2; i < n; i++) a[i][i] = 2.0;
      a[1][2] = 1.0;  // row 1 keeps an entry
    }
    Csc m = fromDense(a);
    EXPECT_EQ(singular ? 5 : 0, runEngine(e, m, 1).status);
    Matched r = runEngine(e, m, !singular);
    ASSERT_EQ(0, r.status) << "seed " << seed;
    ASSERT_EQ(singular ? n - 1 : n, r.matched) << "seed " << seed;
    EXPECT_EQ(n, (int32_t)std::set<int32_t>(r.colMatch.begin(), r.colMatch.end()).size());
    if (singular) continue;
    double sum = 0;
    for (int32_t j = 0; j < n; j++) {
      ASSERT_NE(0.0, a[r.colMatch[j]][j]) << "matched through a missing entry, seed " << seed;
      sum += -std::log(std::fabs(a[r.colMatch[j]][j]));
    }
    if (r.initial == n) {
      EXPECT_NEAR(bestLogCost(a), sum, 1e-9 * (1 + std::fabs(sum))) << "seed " << seed;
      optimalChecked++;
    } else {
      augmented++;
    }
  }
  EXPECT_GT(optimalChecked, 30);
  EXPECT_GT(augmented, 30);
  Csc m = fromDense(randomDense(4, 0.5, 3, true));
  for (int32_t p = m.begin[2]; p < m.begin[3]; p++) m.value[p] = 0.0;
  EXPECT_EQ(5, staticPerm(e, m, -1, 0, 0).status);
  EXPECT_EQ(0, e.live());
}

// Jaccard similarity of two columns' row sets.
double jaccard(const Csc& m, int32_t a, int32_t b) {
  std::set<int32_t> x(m.index.begin() + m.begin[a], m.index.begin() + m.begin[a + 1]);
  std::set<int32_t> y(m.index.begin() + m.begin[b], m.index.begin() + m.begin[b + 1]);
  double common = (double)std::count_if(x.begin(), x.end(), [&](int32_t r) { return y.count(r); });
  return common / ((double)x.size() + (double)y.size() - common);
}

TEST(Matching, CyclesSplitIntoPairsThatKeepSimilarColumnsTogether) {
  PoolEnv e;
  // One entry per column at sigma(j): a fixed point, a 2-cycle, a 3-cycle
  // and a 4-cycle, all similarities 0.  Short cycles come first; the
  // 3-cycle leaves its first vertex single; the 4-cycle pairs across the
  // wrap edge on the tie.  A diagonal gives singles only.
  const IntVec sigma = {0, 5, 3, 4, 2, 1, 7, 8, 9, 6};
  Dense a(10, std::vector<double>(10, 0.0)), d = a;
  for (int32_t j = 0; j < 10; j++) a[sigma[j]][j] = 1.0 + j, d[j][j] = -1.0 - j;
  Static r = staticPerm(e, fromDense(a));
  EXPECT_EQ(IntVec({0, 1, 5, 2, 3, 4, 6, 9, 7, 8}), r.perm0);
  EXPECT_EQ(IntVec({-2, -1, -1, -2, -1, -1, -1, -1, -1, -1}), r.piv);
  EXPECT_TRUE(r.status == 0 && r.ns == 2 && r.np == 4);
  r = staticPerm(e, fromDense(d));
  EXPECT_EQ(IntVec({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), r.perm0);
  EXPECT_EQ(10, r.ns);

  // Cycles of 4 to 7 with small entries shaping the similarities: the
  // pairs chosen have the largest product of similarities of all the ways
  // to cut the cycle into neighbouring pairs (and one single).
  for (uint32_t seed = 1; seed <= 40; seed++) {
    std::mt19937 rng(seed);
    int32_t L = 4 + (int32_t)seed % 4;
    Dense c(L, std::vector<double>(L, 0.0));
    for (int32_t j = 0; j < L; j++)  // row 0 everywhere keeps similarities above 0
      for (int32_t i = 0; i < L; i++)
        c[i][j] = i == (j + 1) % L ? 1e3 : (i == 0 || rng() % 2) ? 1e-3 : 0.0;
    Csc m = fromDense(c);
    r = staticPerm(e, m);
    auto product = [&](const IntVec& order, const IntVec& marks) {
      double p = 1;
      for (int32_t k = 0; k < L; k++)
        if (marks[k] == -1) p *= jaccard(m, order[k], order[k + 1]), k++;
      return p;
    };
    double best = 0;
    for (int32_t start = 0; start < L; start++) {
      // Pairs from start on; on an odd cycle, start itself closes as single.
      IntVec order, marks(L, -1);
      for (int32_t k = 0; k < L; k++) order.push_back((start + (L % 2) + k) % L);
      if (L % 2) marks[L - 1] = -2;
      best = std::max(best, product(order, marks));
    }
    EXPECT_NEAR(best, product(r.perm0, r.piv), 1e-12 * best) << "seed " << seed;
    EXPECT_EQ(L % 2, r.ns);
  }
}

// [D B'; B -E]: each vertex of the smaller block is paired through B with
// one of the larger, first block first; the rest of the larger stays single.
TEST(Matching, AugmentedSystemPairsTheSmallerBlock) {
  PoolEnv e;
  for (auto [n1, n2] : {std::pair{30, 12}, {12, 30}, {20, 20}, {0, 6}, {7, 0}}) {
    int32_t n = n1 + n2;
    std::mt19937 rng(n1 * 100 + n2);
    Dense a(n, std::vector<double>(n, 0.0));
    for (int32_t i = 0; i < n; i++) a[i][i] = i < n1 ? 2.0 : -1e-8;
    for (int32_t k = 0; k < std::max(n1, n2) && n1 && n2; k++)
      for (int32_t r : {k % n1, (int32_t)(rng() % n1)})
        a[n1 + k % n2][r] = a[r][n1 + k % n2] = 0.5 + (rng() % 100) / 10.0;
    Static r = staticPerm(e, fromDense(a), n1, n2);
    ASSERT_EQ(0, r.status);
    EXPECT_EQ(std::min(n1, n2), r.np);
    EXPECT_EQ(std::abs(n1 - n2), r.ns);
    for (int32_t k = 0; k < n; k++)
      if (r.piv[k] == -1) {
        EXPECT_TRUE(r.perm0[k] < n1 && r.perm0[k + 1] >= n1 && r.piv[k + 1] == -1);
        EXPECT_NE(0.0, a[r.perm0[k]][r.perm0[k + 1]]);
        k++;
      }
    EXPECT_EQ(std::set<int32_t>(r.perm0.begin(), r.perm0.end()).size(), (size_t)n);
    if (n1 == 12) {  // sizes that do not add up; a larger-block vertex outside B
      EXPECT_EQ(2, staticPerm(e, fromDense(a), n1, n2 + 1).status);
      for (int32_t v = 0; v < n1; v++) a[v][n - 1] = a[n - 1][v] = 0.0;
      EXPECT_EQ(5, staticPerm(e, fromDense(a), n1, n2).status);
    }
  }
  // The heap of the augmenting search refused.
  Csc m;
  for (uint32_t seed = 1; runEngine(e, m, 1).initial == m.n; seed++)
    m = fromDense(randomDense(8, 0.5, seed, true));
  e.host.failAllocation(0);
  EXPECT_EQ(1, runEngine(e, m, 1).status);
  e.host.clearFailures();
  EXPECT_EQ(0, e.live());
}

}  // namespace

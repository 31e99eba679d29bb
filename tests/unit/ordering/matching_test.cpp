// Static permutations by matching: the transversal against exhaustive search
// and an assignment solver of the test's own, the splitting of its cycles,
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
  for (int32_t j = 0; j < m.n; j++) {
    for (int32_t i = 0; i < m.n; i++)
      if (a[i][j] != 0.0) {
        m.index.push_back(i);
        m.value.push_back(a[i][j]);
      }
    m.begin.push_back((int32_t)m.index.size());
  }
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

// Minimal sum of -ln|a| over perfect matchings, +inf when there is none:
// every permutation for small n, shortest augmenting paths with
// potentials (dense, O(n^3)) otherwise.
double bestLogCost(const Dense& a) {
  int32_t n = (int32_t)a.size();
  const double inf = 1e18;
  auto c = [&](int32_t i, int32_t j) { return a[i][j] != 0.0 ? -std::log(std::fabs(a[i][j])) : inf; };
  if (n <= 8) {
    IntVec p(n);
    for (int32_t i = 0; i < n; i++) p[i] = i;
    double best = inf;
    do {
      double s = 0;
      for (int32_t j = 0; j < n; j++) s += c(p[j], j);
      best = std::min(best, s);
    } while (std::next_permutation(p.begin(), p.end()));
    return best >= inf ? INFINITY : best;
  }
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
    do {
      int32_t j1 = way[j0];
      rowOf[j0] = rowOf[j1];
      j0 = j1;
    } while (j0);
  }
  double s = 0;
  for (int32_t j = 1; j <= n; j++) s += c(rowOf[j] - 1, j - 1);
  return s >= inf ? INFINITY : s;
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

// Transversals of random matrices: always perfect when one exists, and of
// maximum product wherever the tight entries alone complete the matching
// (the augmenting search works on unchanged reduced costs and may stop at a
// good path rather than the best).
TEST(Matching, TransversalAgainstExhaustiveSearchAndAnAssignmentSolver) {
  PoolEnv e;
  int32_t optimalChecked = 0, augmented = 0;
  for (uint32_t seed = 1; seed <= 240; seed++) {
    int32_t n = seed <= 200 ? 2 + (int32_t)seed % 7 : (seed % 2 ? 40 : 200);
    Dense a = randomDense(n, n <= 8 ? 0.35 : 6.0 / n, seed, true);
    Matched r = runEngine(e, fromDense(a), 1);
    ASSERT_EQ(0, r.status) << "seed " << seed;
    ASSERT_EQ(n, r.matched);
    double sum = 0;
    std::set<int32_t> rows;
    for (int32_t j = 0; j < n; j++) {
      ASSERT_NE(0.0, a[r.colMatch[j]][j]) << "matched through a missing entry, seed " << seed;
      rows.insert(r.colMatch[j]);
      sum += -std::log(std::fabs(a[r.colMatch[j]][j]));
    }
    EXPECT_EQ(n, (int32_t)rows.size());
    if (r.initial == n) {
      EXPECT_NEAR(bestLogCost(a), sum, 1e-9 * (1 + std::fabs(sum))) << "seed " << seed;
      optimalChecked++;
    } else {
      augmented++;
    }
  }
  EXPECT_GT(optimalChecked, 30);
  EXPECT_GT(augmented, 30);
}

// Without a transversal: 5 under requirePerfect; otherwise as many columns
// as can be matched are, and the rest take free rows to complete the
// permutation that the general entry takes apart.
TEST(Matching, StructurallySingularAndUnfitMatrices) {
  PoolEnv e;
  int32_t singular = 0;
  for (uint32_t seed = 1; seed <= 150; seed++) {
    int32_t n = 3 + (int32_t)seed % 6;
    Dense a = randomDense(n, 0.4, seed, seed % 2);
    if (seed % 2)  // columns 0 and 1 only in row 0
      for (int32_t i = 1; i < n; i++) a[i][0] = a[i][1] = 0.0;
    Csc m = fromDense(a);
    if (std::isfinite(bestLogCost(a))) continue;
    bool emptyCol = false;
    for (int32_t j = 0; j < n; j++) emptyCol |= m.begin[j] == m.begin[j + 1];
    bool emptyRow = false;
    for (int32_t i = 0; i < n; i++) emptyRow |= std::count(m.index.begin(), m.index.end(), i) == 0;
    if (emptyCol || emptyRow) continue;
    singular++;
    EXPECT_EQ(5, runEngine(e, m, 1).status);
    Matched r = runEngine(e, m, 0);
    ASSERT_EQ(0, r.status);
    EXPECT_LT(r.matched, n);
    EXPECT_EQ(n, (int32_t)std::set<int32_t>(r.colMatch.begin(), r.colMatch.end()).size());
    IntVec perm0(n), piv(n), iw(5 * n);
    std::vector<double> dw(m.value.size() + 2 * n);
    int32_t ns, np;
    ASSERT_EQ(0, FindStaticPermGen(e.pool, n, m.begin.data(), m.index.data(), m.value.data(), 0,
                                   perm0.data(), &ns, &np, piv.data(), iw.data(), dw.data()));
    EXPECT_EQ(n, ns + 2 * np);
    std::sort(perm0.begin(), perm0.end());
    for (int32_t i = 0; i < n; i++) EXPECT_EQ(i, perm0[i]);
  }
  EXPECT_GT(singular, 10);
  EXPECT_EQ(0, e.live());

  // An empty column, a column of stored zeros, a row without a finite cost.
  Dense base = randomDense(4, 0.5, 3, true);
  for (int32_t k = 0; k < 3; k++) {
    Dense a = base;
    for (int32_t i = 0; i < 4; i++) (k == 2 ? a[1][i] : a[i][2]) = 0.0;
    Csc m = fromDense(a);
    if (k == 1)
      for (int32_t i = 0; i < 4; i++) {
        m.index.insert(m.index.begin() + m.begin[2], i);
        m.value.insert(m.value.begin() + m.begin[2], 0.0);
        for (int32_t j = 3; j <= 4; j++) m.begin[j]++;
      }
    IntVec perm0(4), piv(4), iw(20);
    std::vector<double> dw(m.value.size() + 8);
    int32_t ns, np;
    EXPECT_EQ(5, FindStaticPermGen(e.pool, 4, m.begin.data(), m.index.data(), m.value.data(), 0,
                                   perm0.data(), &ns, &np, piv.data(), iw.data(), dw.data()))
        << "case " << k;
  }
}

// Jaccard similarity of two columns' row sets.
double jaccard(const Csc& m, int32_t a, int32_t b) {
  std::set<int32_t> x(m.index.begin() + m.begin[a], m.index.begin() + m.begin[a + 1]);
  std::set<int32_t> y(m.index.begin() + m.begin[b], m.index.begin() + m.begin[b + 1]);
  int32_t common = 0;
  for (int32_t r : x) common += y.count(r);
  return (double)common / (double)(x.size() + y.size() - common);
}

TEST(Matching, CyclesSplitIntoPairsThatKeepSimilarColumnsTogether) {
  PoolEnv e;
  auto split = [&](const Csc& m, IntVec* perm0, IntVec* piv, int32_t* ns, int32_t* np) {
    int32_t n = m.n;
    perm0->assign(n, -1);
    piv->assign(n, 0);
    IntVec iw(5 * n);
    std::vector<double> dw(m.value.size() + 2 * n);
    return FindStaticPermGen(e.pool, n, m.begin.data(), m.index.data(), m.value.data(), 1,
                             perm0->data(), ns, np, piv->data(), iw.data(), dw.data());
  };
  // One entry per column at sigma(j): a fixed point, a 2-cycle, a 3-cycle
  // and a 4-cycle, all similarities 0.  Short cycles come first; the
  // 3-cycle leaves its first vertex single; the 4-cycle pairs across the
  // wrap edge on the tie.
  const IntVec sigma = {0, 5, 3, 4, 2, 1, 7, 8, 9, 6};
  Dense a(10, std::vector<double>(10, 0.0));
  for (int32_t j = 0; j < 10; j++) a[sigma[j]][j] = 1.0 + j;
  IntVec perm0, piv;
  int32_t ns, np;
  ASSERT_EQ(0, split(fromDense(a), &perm0, &piv, &ns, &np));
  EXPECT_EQ(IntVec({0, 1, 5, 2, 3, 4, 6, 9, 7, 8}), perm0);
  EXPECT_EQ(IntVec({-2, -1, -1, -2, -1, -1, -1, -1, -1, -1}), piv);
  EXPECT_EQ(2, ns);
  EXPECT_EQ(4, np);
  Dense d(5, std::vector<double>(5, 0.0));
  for (int32_t j = 0; j < 5; j++) d[j][j] = -2.0 - j;
  ASSERT_EQ(0, split(fromDense(d), &perm0, &piv, &ns, &np));
  EXPECT_EQ(IntVec({0, 1, 2, 3, 4}), perm0);
  EXPECT_EQ(5, ns);

  // Cycles of 4 to 7 with small entries shaping the similarities: the
  // pairs chosen have the largest product of similarities of all the ways
  // to cut the cycle into neighbouring pairs (and one single).
  for (uint32_t seed = 1; seed <= 40; seed++) {
    std::mt19937 rng(seed);
    int32_t L = 4 + (int32_t)seed % 4;
    Dense c(L, std::vector<double>(L, 0.0));
    for (int32_t j = 0; j < L; j++) {
      c[(j + 1) % L][j] = 1e3;
      // Row 0 in every column keeps every similarity above 0.
      for (int32_t i = 0; i < L; i++)
        if ((i == 0 || rng() % 2) && i != (j + 1) % L) c[i][j] = 1e-3;
    }
    Csc m = fromDense(c);
    ASSERT_EQ(0, split(m, &perm0, &piv, &ns, &np));
    auto product = [&](const IntVec& order, const IntVec& marks) {
      double p = 1;
      for (int32_t k = 0; k < L; k++)
        if (marks[k] == -1) p *= jaccard(m, order[k], order[k + 1]), k++;
      return p;
    };
    double got = product(perm0, piv), best = 0;
    for (int32_t start = 0; start < L; start++) {
      // Pairs from start on; on an odd cycle, start itself closes as single.
      IntVec order, marks(L, -1);
      for (int32_t k = 0; k < L; k++) order.push_back((start + (L % 2) + k) % L);
      if (L % 2) marks[L - 1] = -2;
      best = std::max(best, product(order, marks));
    }
    EXPECT_NEAR(best, got, 1e-12 * best) << "seed " << seed;
    EXPECT_EQ(L % 2, ns);
  }
}

// [D B'; B -E]: each vertex of the smaller block is paired through B with
// one of the larger, first block first; the larger block is walked in
// ascending order and its rest stays single.
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
    Csc m = fromDense(a);
    IntVec perm0(n), piv(n), iw(5 * n);
    std::vector<double> dw(m.value.size() + 2 * n);
    int32_t ns, np;
    ASSERT_EQ(0, FindStaticPermAug(e.pool, n, n1, n2, m.begin.data(), m.index.data(),
                                   m.value.data(), 1, perm0.data(), &ns, &np, piv.data(),
                                   iw.data(), dw.data()));
    EXPECT_EQ(std::min(n1, n2), np);
    EXPECT_EQ(std::abs(n1 - n2), ns);
    IntVec larger;
    for (int32_t k = 0; k < n; k++) {
      if (piv[k] == -1) {
        ASSERT_EQ(-1, piv[k + 1]);
        EXPECT_LT(perm0[k], n1);
        EXPECT_GE(perm0[k + 1], n1);
        EXPECT_NE(0.0, a[perm0[k]][perm0[k + 1]]);
        larger.push_back(n1 >= n2 ? perm0[k] : perm0[k + 1]);
        k++;
      } else {
        larger.push_back(perm0[k]);
      }
    }
    EXPECT_TRUE(std::is_sorted(larger.begin(), larger.end()));
    EXPECT_EQ(std::set<int32_t>(perm0.begin(), perm0.end()).size(), (size_t)n);
    if (n1 == 12) {
      // Sizes that do not add up, and a second-block vertex without entries
      // in the off-diagonal block.
      EXPECT_EQ(2, FindStaticPermAug(e.pool, n, n1, n2 + 1, m.begin.data(), m.index.data(),
                                     m.value.data(), 1, perm0.data(), &ns, &np, piv.data(),
                                     iw.data(), dw.data()));
      for (int32_t r = 0; r < n1; r++) a[r][n - 1] = a[n - 1][r] = 0.0;
      Csc cut = fromDense(a);
      EXPECT_EQ(5, FindStaticPermAug(e.pool, n, n1, n2, cut.begin.data(), cut.index.data(),
                                     cut.value.data(), 1, perm0.data(), &ns, &np, piv.data(),
                                     iw.data(), dw.data()));
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

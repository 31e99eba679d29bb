// Fill-reducing orderings: permutations, fill quality, labels, the method
// choice of the driver, dense handling and out-of-memory behaviour.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/graph_support.h"

namespace {

using namespace graphs;

enum Code { AMD, AMF, AMF_LOG, CAMF };

struct Result {
  std::vector<int32_t> perm, invPerm;
};

// Runs one code of the family on a copy of g.  slack is the elbow room past
// the adjacency; n is the least the codes accept and forces compaction.
Result runCode(Code code, const Graph& g, int32_t slack, int32_t orderClass = 1,
               const std::vector<int32_t>* labels = nullptr) {
  int32_t n = g.n;
  std::vector<int32_t> pe(g.begin), iw(g.index);
  int32_t nnz = g.begin[n];
  iw.resize(nnz + slack + 1);
  std::vector<int32_t> len(n), nv(n), next(n), last(n), head(n + 1), elen(n), degree(n), w(n),
      score(n), lab(n);
  for (int32_t i = 0; i < n; i++) len[i] = g.begin[i + 1] - g.begin[i];
  int32_t cap = nnz + slack;
  switch (code) {
    case AMD:
      nd_amd(n, pe.data(), iw.data(), len.data(), cap, nnz, nv.data(), next.data(), last.data(),
             head.data(), elen.data(), degree.data(), w.data(), 0, orderClass, 0);
      break;
    case AMF:
    case AMF_LOG:
      nd_amf(n, pe.data(), iw.data(), len.data(), cap, nnz, nv.data(), next.data(), last.data(),
             head.data(), elen.data(), degree.data(), w.data(), score.data(),
             code == AMF_LOG ? 1 : 0, orderClass, 0);
      break;
    case CAMF:
      nd_camf(n, pe.data(), iw.data(), len.data(), cap, nnz, labels ? labels->data() : nullptr,
              nv.data(), next.data(), last.data(), head.data(), elen.data(), degree.data(),
              w.data(), score.data(), lab.data(), orderClass);
      break;
  }
  return Result{last, next};
}

}  // namespace

// ---- the minimum-degree family -------------------------------------------------

// Any elbow room gives the same permutation: the least forces compaction.
// Without labels the constrained code makes the same pivots and ties as
// minimum fill (class 0 keeps the dense thresholds equal too).
TEST(OrderingMinDeg, EveryCodeGivesAPermutationWhateverTheElbowRoom) {
  for (const Graph& g : zoo())
    for (int32_t oc : {0, 1}) {
      std::vector<int32_t> fill;
      for (Code c : {AMD, AMF, AMF_LOG, CAMF}) {
        Result roomy = runCode(c, g, 3 * g.begin[g.n] + g.n, oc);
        Result tight = runCode(c, g, g.n, oc);
        ASSERT_TRUE(isPermutationPair(tight.perm, tight.invPerm)) << "code " << c << " n " << g.n;
        EXPECT_EQ(roomy.perm, tight.perm) << "code " << c << " n " << g.n << " class " << oc;
        if (c == AMF) fill = tight.perm;
        if (c == CAMF && oc == 0) {
          EXPECT_EQ(tight.perm, fill) << "n " << g.n;
        }
      }
    }
}

TEST(OrderingMinDeg, DenseRowsCloseTheOrderWhateverTheirLabel) {
  // Dense vertices close the order in ascending number.
  Graph g = withDenseRows(grid2d(20, 20), {5, 311});
  for (Code c : {AMD, AMF, AMF_LOG, CAMF}) {
    Result r = runCode(c, g, g.begin[g.n] + g.n, 0);
    ASSERT_TRUE(isPermutationPair(r.perm, r.invPerm));
    EXPECT_EQ(r.perm[g.n - 2], 5) << "code " << c;
    EXPECT_EQ(r.perm[g.n - 1], 311) << "code " << c;
  }
  // A dense vertex with the lowest label still goes last.
  std::vector<int32_t> labels(g.n, 1);
  labels[5] = labels[311] = 0;
  Result r = runCode(CAMF, g, g.n, 0, &labels);
  EXPECT_EQ(r.perm[g.n - 2], 5);
  EXPECT_EQ(r.perm[g.n - 1], 311);
}

TEST(OrderingMinDeg, ConstrainedOrderHonoursSeparatorLabels) {
  // A 21 x 21 grid cut by column 10 (label 6); the left half cut by row 10
  // (label 4), the right half by row 10 (label 5); quadrants 0..3.
  const int32_t k = 21;
  Graph g = grid2d(k, k);
  std::vector<int32_t> labels(g.n);
  for (int32_t y = 0; y < k; y++)
    for (int32_t x = 0; x < k; x++) {
      int32_t v = y * k + x, l;
      if (x == 10)
        l = 6;
      else if (x < 10)
        l = y == 10 ? 4 : (y < 10 ? 0 : 1);
      else
        l = y == 10 ? 5 : (y < 10 ? 2 : 3);
      labels[v] = l;
    }
  for (int32_t oc : {0, 1}) {
    Result r = runCode(CAMF, g, g.n, oc, &labels);
    ASSERT_TRUE(isPermutationPair(r.perm, r.invPerm));
    // The top separator closes the order; each half separator follows the
    // two quadrants it splits.
    for (int32_t pos = g.n - k; pos < g.n; pos++) EXPECT_EQ(labels[r.perm[pos]], 6);
    int32_t lastQuad[4] = {-1, -1, -1, -1}, firstSep[2] = {g.n, g.n};
    for (int32_t v = 0; v < g.n; v++) {
      int32_t l = labels[v], p = r.invPerm[v];
      if (l < 4) lastQuad[l] = std::max(lastQuad[l], p);
      if (l == 4 || l == 5) firstSep[l - 4] = std::min(firstSep[l - 4], p);
    }
    for (int32_t q = 0; q < 4; q++) EXPECT_LT(lastQuad[q], firstSep[q / 2]) << "quadrant " << q;
    // The constraint costs something but stays a good order.
    int64_t f = factorEntries(g, r.perm);
    EXPECT_LT(f, factorEntries(g, natural(g.n)) / 2);
  }

  // A later-label vertex whose list shrinks to the pivot alone is not
  // swept into the pivot: on a path 0-1-2 with labels 0,1,0 the middle
  // vertex is ordered last.
  Graph path = fromEdges(3, {{0, 1}, {1, 2}});
  std::vector<int32_t> pl = {0, 1, 0};
  Result r = runCode(CAMF, path, path.n, 1, &pl);
  EXPECT_EQ(r.perm[2], 1);
}

// ---- the driver ----------------------------------------------------------------

TEST(OrderingDriver, TooEmptyOrTooFullGivesTheIdentity) {
  PoolEnv e;
  for (const Graph& g : {fromEdges(0, {}), fromEdges(1, {}), fromEdges(40, {})}) {
    Ordered r = orderGraph(e, g, ORDER_MINDEG);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, ORDER_NATURAL);
    EXPECT_EQ(r.perm, natural(g.n));
    EXPECT_EQ(r.invPerm, natural(g.n));
    EXPECT_EQ(r.numDense, -7);  // untouched
  }
  // Average degree above n/4 (integer division), whatever was asked for.
  Edges e9;
  for (int32_t a = 0; a < 9; a++)
    for (int32_t b = a + 1; b < 9; b++)
      if ((a + b) % 3) e9.push_back({a, b});
  for (int32_t m : {ORDER_AUTO, ORDER_MINDEG, ORDER_MINFILL, ORDER_NESTED}) {
    Ordered r = orderGraph(e, fromEdges(9, e9), m);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, ORDER_NATURAL);
    EXPECT_EQ(r.perm, natural(9));
  }
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingDriver, EveryRouteOrdersAndReportsItsMethod) {
  PoolEnv e;
  Graph g30 = grid2d(30, 30);
  for (int32_t m : {ORDER_MINDEG, ORDER_MINFILL, ORDER_AUTO}) {
    Ordered r = orderGraph(e, g30, m);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, m == ORDER_AUTO ? ORDER_MINFILL : m);
    EXPECT_TRUE(isPermutationPair(r.perm, r.invPerm));
    EXPECT_LT(factorEntries(g30, r.perm), factorEntries(g30, natural(g30.n)) / 2);
    EXPECT_EQ(r.numDense, -7);
  }
  // A 50 x 70 nine-point grid: n = 3500 and an average degree near 7.8,
  // so class 1 picks nested dissection.
  const int32_t n = 50 * 70;
  Graph g = grid2d(50, 70, true);
  ASSERT_EQ(OrderChooseMethod(-1, 1, 1, n, (double)g.begin[n] / n), ORDER_NESTED);
  Ordered r = orderGraph(e, g, ORDER_AUTO);
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.method, ORDER_NESTED);
  EXPECT_EQ(r.numDense, 0);
  EXPECT_TRUE(isPermutationPair(r.perm, r.invPerm));
  EXPECT_LT(factorEntries(g, r.perm), factorEntries(g, natural(n)) * 6 / 10);
  EXPECT_EQ(e.live(), 0);

  // With dense vertices held back: they end the order in descending number.
  Graph d = withDenseRows(g30, {3, 100, 450});
  for (int32_t bm : {0, 1}) {
    Ordered rd = orderGraph(e, d, ORDER_NESTED, bm);
    ASSERT_EQ(rd.rc, 0);
    EXPECT_EQ(rd.method, ORDER_NESTED);
    EXPECT_EQ(rd.numDense, 3);
    ASSERT_TRUE(isPermutationPair(rd.perm, rd.invPerm));
    EXPECT_EQ(rd.perm[d.n - 3], 450);
    EXPECT_EQ(rd.perm[d.n - 2], 100);
    EXPECT_EQ(rd.perm[d.n - 1], 3);
    // With block labels the order is left to the constrained pass.
    if (bm == 0) {
      EXPECT_LT(factorEntries(g30, rd.perm), factorEntries(g30, natural(g30.n)) / 2);
    }
  }
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingDriver, BadInputIsRefused) {
  PoolEnv e;
  Graph g = grid2d(10, 10);
  // A one-sided edge, a self loop, an index out of range.
  for (std::pair<int32_t, int32_t> at : {std::make_pair(0, 55), {0, 0}, {3, 100}}) {
    Graph bad = g;
    bad.index[at.first] = at.second;
    EXPECT_EQ(orderGraph(e, bad, at.first ? ORDER_MINFILL : ORDER_MINDEG).rc, ORDERING_SIZE);
  }
  // No elbow room for the minimum-degree codes.
  std::vector<int32_t> begin(g.begin), index(g.index), work(7 * g.n + 1), p(g.n), ip(g.n);
  int32_t method = ORDER_MINDEG, nd = 0;
  EXPECT_EQ(OrderGraph(&e.env, g.n, begin.data(), index.data(), (int32_t)index.size(), 1, nullptr,
                       1, p.data(), ip.data(), &nd, &method, 1, 0, nullptr, 0, work.data(), 0.0,
                       -1.0),
            ORDERING_SIZE);
  EXPECT_EQ(e.live(), 0);
}

// Fill-reducing orderings: permutations, fill quality, labels, the method
// choice of the driver, dense handling and out-of-memory behaviour.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <vector>

#include "host/host.h"
#include "la/la.h"
#include "ordering/ordering.h"
#include "support/oom.h"

namespace {

struct Graph {
  int32_t n = 0;
  std::vector<int32_t> begin{0};
  std::vector<int32_t> index;
};

Graph fromEdges(int32_t n, const std::vector<std::pair<int32_t, int32_t>>& edges) {
  std::vector<std::set<int32_t>> adj(n);
  for (auto& e : edges)
    if (e.first != e.second) {
      adj[e.first].insert(e.second);
      adj[e.second].insert(e.first);
    }
  Graph g;
  g.n = n;
  g.begin.assign(1, 0);
  for (int32_t v = 0; v < n; v++) {
    for (int32_t u : adj[v]) g.index.push_back(u);
    g.begin.push_back((int32_t)g.index.size());
  }
  return g;
}

std::vector<std::pair<int32_t, int32_t>> edgesOf(const Graph& g, int32_t shift = 0) {
  std::vector<std::pair<int32_t, int32_t>> e;
  for (int32_t v = 0; v < g.n; v++)
    for (int32_t p = g.begin[v]; p < g.begin[v + 1]; p++) e.push_back({v + shift, g.index[p] + shift});
  return e;
}

Graph grid2d(int32_t nx, int32_t ny) {
  std::vector<std::pair<int32_t, int32_t>> e;
  for (int32_t y = 0; y < ny; y++)
    for (int32_t x = 0; x < nx; x++) {
      int32_t v = y * nx + x;
      if (x + 1 < nx) e.push_back({v, v + 1});
      if (y + 1 < ny) e.push_back({v, v + nx});
    }
  return fromEdges(nx * ny, e);
}

Graph grid3d(int32_t k) {
  std::vector<std::pair<int32_t, int32_t>> e;
  for (int32_t z = 0; z < k; z++)
    for (int32_t y = 0; y < k; y++)
      for (int32_t x = 0; x < k; x++) {
        int32_t v = (z * k + y) * k + x;
        if (x + 1 < k) e.push_back({v, v + 1});
        if (y + 1 < k) e.push_back({v, v + k});
        if (z + 1 < k) e.push_back({v, v + k * k});
      }
  return fromEdges(k * k * k, e);
}

Graph randomGraph(int32_t n, int32_t m, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<std::pair<int32_t, int32_t>> e;
  for (int32_t k = 0; k < m; k++) e.push_back({(int32_t)(rng() % n), (int32_t)(rng() % n)});
  return fromEdges(n, e);
}

// A grid with a few vertices joined to (almost) everything.
Graph gridWithDenseRows(int32_t k, const std::vector<int32_t>& dense) {
  Graph g = grid2d(k, k);
  std::vector<std::pair<int32_t, int32_t>> e = edgesOf(g);
  for (int32_t d : dense)
    for (int32_t v = 0; v < g.n; v++) e.push_back({d, v});
  return fromEdges(g.n, e);
}

Graph disjoint(const Graph& a, const Graph& b, int32_t isolated) {
  std::vector<std::pair<int32_t, int32_t>> e = edgesOf(a), f = edgesOf(b, a.n + isolated);
  e.insert(e.end(), f.begin(), f.end());
  return fromEdges(a.n + isolated + b.n, e);
}

// Entries of L strictly below the diagonal for the order perm (position to
// vertex), by row subtrees of the elimination tree.
int64_t factorEntries(const Graph& g, const std::vector<int32_t>& perm) {
  int32_t n = g.n;
  std::vector<int32_t> inv(n), parent(n, -1), flag(n, -1);
  for (int32_t k = 0; k < n; k++) inv[perm[k]] = k;
  int64_t count = 0;
  for (int32_t k = 0; k < n; k++) {
    flag[k] = k;
    int32_t v = perm[k];
    for (int32_t p = g.begin[v]; p < g.begin[v + 1]; p++) {
      int32_t i = inv[g.index[p]];
      if (i >= k) continue;
      while (flag[i] != k) {
        if (parent[i] == -1) parent[i] = k;
        count++;
        flag[i] = k;
        i = parent[i];
      }
    }
  }
  return count;
}

std::vector<int32_t> natural(int32_t n) {
  std::vector<int32_t> p(n);
  for (int32_t i = 0; i < n; i++) p[i] = i;
  return p;
}

// perm maps position to vertex, invPerm vertex to position.
::testing::AssertionResult isPermutationPair(const std::vector<int32_t>& perm,
                                             const std::vector<int32_t>& invPerm) {
  int32_t n = (int32_t)perm.size();
  std::vector<char> seen(n, 0);
  for (int32_t k = 0; k < n; k++) {
    int32_t v = perm[k];
    if (v < 0 || v >= n) return ::testing::AssertionFailure() << "perm[" << k << "]=" << v;
    if (seen[v]) return ::testing::AssertionFailure() << "vertex " << v << " twice";
    seen[v] = 1;
    if (invPerm[v] != k)
      return ::testing::AssertionFailure() << "invPerm[" << v << "]=" << invPerm[v] << " not " << k;
  }
  return ::testing::AssertionSuccess();
}

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

std::vector<Graph> zoo() {
  std::vector<Graph> z;
  z.push_back(grid2d(23, 17));
  z.push_back(grid3d(8));
  z.push_back(randomGraph(500, 1500, 7));
  z.push_back(randomGraph(300, 3000, 11));
  z.push_back(gridWithDenseRows(20, {0, 137, 399}));
  z.push_back(disjoint(grid2d(9, 9), randomGraph(60, 150, 3), 5));
  z.push_back(fromEdges(1, {}));
  z.push_back(fromEdges(6, {}));
  std::vector<std::pair<int32_t, int32_t>> star;
  for (int32_t v = 1; v < 200; v++) star.push_back({0, v});
  z.push_back(fromEdges(200, star));
  return z;
}

struct Env {
  hxhost::Host host;
  QVPool* pool;
  LAEnv env{};
  Env() {
    pool = host.createPool("ordering");
    env.pool = pool;
  }
  int64_t live() { return host.poolStats(pool).liveBlocks; }
};

struct DriverRun {
  int32_t rc = -99, method = 0, numDense = -7;
  std::vector<int32_t> perm, invPerm, labels;
};

DriverRun runDriver(Env& e, const Graph& g, int32_t method, int32_t orderClass = 1,
                    int32_t denseRule = 1, int32_t blockMode = 0) {
  DriverRun r;
  int32_t n = g.n;
  std::vector<int32_t> begin(g.begin), index(g.index);
  index.resize(g.begin[n] + n + 1);
  std::vector<int32_t> work(7 * (size_t)n + 1);
  r.perm.assign(n, -1);
  r.invPerm.assign(n, -1);
  r.labels.assign(n, -1);
  r.method = method;
  r.rc = OrderGraph(&e.env, n, begin.data(), index.data(), (int32_t)index.size(), orderClass,
                    nullptr, denseRule, r.perm.data(), r.invPerm.data(), &r.numDense, &r.method,
                    1, blockMode, r.labels.data(), 0, work.data(), 0.0, -1.0);
  return r;
}

}  // namespace

// ---- the minimum-degree family -------------------------------------------------

// Any elbow room gives the same permutation: the least forces compaction.
TEST(OrderingMinDeg, EveryCodeGivesAPermutationWhateverTheElbowRoom) {
  for (const Graph& g : zoo())
    for (Code c : {AMD, AMF, AMF_LOG, CAMF})
      for (int32_t oc : {0, 1}) {
        Result roomy = runCode(c, g, 3 * g.begin[g.n] + g.n, oc);
        Result tight = runCode(c, g, g.n, oc);
        ASSERT_TRUE(isPermutationPair(tight.perm, tight.invPerm)) << "code " << c << " n " << g.n;
        EXPECT_EQ(roomy.perm, tight.perm) << "code " << c << " n " << g.n << " class " << oc;
      }
}

TEST(OrderingMinDeg, FillFarBelowNaturalOrderOnGrids) {
  Graph g2 = grid2d(40, 40);
  int64_t nat2 = factorEntries(g2, natural(g2.n));
  Graph g3 = grid3d(12);
  int64_t nat3 = factorEntries(g3, natural(g3.n));
  for (Code c : {AMD, AMF, CAMF}) {
    int64_t f2 = factorEntries(g2, runCode(c, g2, g2.begin[g2.n]).perm);
    int64_t f3 = factorEntries(g3, runCode(c, g3, g3.begin[g3.n]).perm);
    // Natural order on a k x k grid costs about k^3 entries; minimum degree
    // stays near k^2 log k.
    EXPECT_LT(f2, nat2 / 2) << "code " << c << ": " << f2 << " vs " << nat2;
    EXPECT_LT(f3, nat3 * 7 / 10) << "code " << c << ": " << f3 << " vs " << nat3;
  }
  // A tree ordered by minimum degree has no fill at all.
  Graph star = zoo().back();
  EXPECT_EQ(factorEntries(star, runCode(AMD, star, star.n).perm), star.n - 1);
  EXPECT_EQ(factorEntries(star, runCode(AMF, star, star.n).perm), star.n - 1);
}

TEST(OrderingMinDeg, DenseRowsAndIsolatedVerticesGoWhereTheyBelong) {
  // Dense vertices close the order in ascending number.
  Graph g = gridWithDenseRows(20, {5, 311});
  for (Code c : {AMD, AMF, AMF_LOG, CAMF}) {
    Result r = runCode(c, g, g.begin[g.n] + g.n, 0);
    ASSERT_TRUE(isPermutationPair(r.perm, r.invPerm));
    EXPECT_EQ(r.perm[g.n - 2], 5) << "code " << c;
    EXPECT_EQ(r.perm[g.n - 1], 311) << "code " << c;
  }
  // A dense vertex with the lowest label still goes last.
  std::vector<int32_t> labels(g.n, 1);
  labels[5] = 0;
  labels[311] = 0;
  Result r = runCode(CAMF, g, g.n, 0, &labels);
  EXPECT_EQ(r.perm[g.n - 2], 5);
  EXPECT_EQ(r.perm[g.n - 1], 311);

  // Isolated vertices cost nothing; the rest is still ordered well.
  Graph h = disjoint(grid2d(15, 15), grid2d(15, 15), 10);
  Result a = runCode(AMD, h, h.n);
  ASSERT_TRUE(isPermutationPair(a.perm, a.invPerm));
  Graph one = grid2d(15, 15);
  int64_t single = factorEntries(one, runCode(AMD, one, one.n).perm);
  EXPECT_LE(factorEntries(h, a.perm), 2 * single + 2 * single / 10);
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

TEST(OrderingMinDeg, ConstrainedWithoutLabelsMatchesMinimumFill) {
  // Same pivots, same ties; class 0 keeps the dense thresholds equal too.
  for (const Graph& g : zoo()) {
    Result c = runCode(CAMF, g, g.begin[g.n] + g.n, 0);
    Result f = runCode(AMF, g, g.begin[g.n] + g.n, 0);
    EXPECT_EQ(c.perm, f.perm) << "n " << g.n;
    // One label for all only changes the tie order.
    std::vector<int32_t> labels(g.n, 3);
    Result one = runCode(CAMF, g, g.begin[g.n] + g.n, 0, &labels);
    ASSERT_TRUE(isPermutationPair(one.perm, one.invPerm));
    EXPECT_LE(factorEntries(g, one.perm), 2 * factorEntries(g, f.perm) + 10) << "n " << g.n;
  }
}

TEST(OrderingMinDeg, MultipleMinimumDegreeOrdersSmallLeaves) {
  for (const Graph& g0 : {grid2d(12, 12), randomGraph(150, 400, 5), grid3d(5),
                          fromEdges(2, {{0, 1}}), fromEdges(3, {})}) {
    Graph g = g0;
    std::vector<int32_t> begin(g.begin), index(g.index), label(g.n);
    for (int32_t i = 0; i < g.n; i++) label[g.n - 1 - i] = i;  // reversed numbering
    OrderingGraph og;
    InitGraph(&og);
    og.numVertex = g.n;
    og.numEdge = g.begin[g.n];
    og.adjBegin = begin.data();
    og.adjIndex = index.data();
    og.origLabel = label.data();
    std::vector<int32_t> work(7 * (size_t)g.n), order(g.n + 10, -1);
    const int32_t lastPosition = g.n + 10;  // the leaf owns positions 10..n+9
    MMDOrder(&og, order.data(), lastPosition, work.data());
    EXPECT_EQ(begin, g.begin);  // the begin array comes back as it was
    std::vector<int32_t> perm(g.n, -1), inv(g.n);
    for (int32_t i = 0; i < g.n; i++) {
      int32_t v = g.n - 1 - i;  // order is indexed by label
      int32_t pos = order[label[v]] - 10;
      ASSERT_GE(pos, 0);
      ASSERT_LT(pos, g.n);
      inv[v] = pos;
      perm[pos] = v;
    }
    ASSERT_TRUE(isPermutationPair(perm, inv)) << "n " << g.n;
    if (g.n > 100) {
      int64_t fm = factorEntries(g, perm);
      int64_t fa = factorEntries(g, runCode(AMD, g, g.begin[g.n]).perm);
      EXPECT_LT(fm, factorEntries(g, natural(g.n)));
      EXPECT_LT(fm, fa + fa / 4) << "mmd " << fm << " amd " << fa;
    }
  }
}

// ---- the driver ----------------------------------------------------------------

TEST(OrderingDriver, TooEmptyOrTooFullGivesTheIdentity) {
  Env e;
  for (const Graph& g : {fromEdges(0, {}), fromEdges(1, {}), fromEdges(40, {})}) {
    DriverRun r = runDriver(e, g, ORDER_MINDEG);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, ORDER_NATURAL);
    EXPECT_EQ(r.perm, natural(g.n));
    EXPECT_EQ(r.invPerm, natural(g.n));
    EXPECT_EQ(r.numDense, -7);  // untouched
  }
  // Average degree above n/4 (integer division), whatever was asked for.
  std::vector<std::pair<int32_t, int32_t>> e9;
  for (int32_t a = 0; a < 9; a++)
    for (int32_t b = a + 1; b < 9; b++)
      if ((a + b) % 3) e9.push_back({a, b});
  for (int32_t m : {ORDER_AUTO, ORDER_MINDEG, ORDER_MINFILL, ORDER_NESTED}) {
    DriverRun r = runDriver(e, fromEdges(9, e9), m);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, ORDER_NATURAL);
    EXPECT_EQ(r.perm, natural(9));
  }
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingDriver, EveryRouteOrdersAndReportsItsMethod) {
  Env e;
  Graph g30 = grid2d(30, 30);
  for (int32_t m : {ORDER_MINDEG, ORDER_MINFILL, ORDER_AUTO}) {
    DriverRun r = runDriver(e, g30, m);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.method, m == ORDER_AUTO ? ORDER_MINFILL : m);
    EXPECT_TRUE(isPermutationPair(r.perm, r.invPerm));
    EXPECT_LT(factorEntries(g30, r.perm), factorEntries(g30, natural(g30.n)) / 2);
    EXPECT_EQ(r.numDense, -7);
  }
  // A 50 x 70 nine-point grid: n = 3500 and an average degree near 7.8,
  // so class 1 picks nested dissection.
  const int32_t nx = 50, ny = 70, n = nx * ny;
  std::vector<std::pair<int32_t, int32_t>> ed;
  for (int32_t y = 0; y < ny; y++)
    for (int32_t x = 0; x < nx; x++) {
      int32_t v = y * nx + x;
      if (x + 1 < nx) ed.push_back({v, v + 1});
      if (y + 1 < ny) ed.push_back({v, v + nx});
      if (x + 1 < nx && y + 1 < ny) ed.push_back({v, v + nx + 1});
      if (x > 0 && y + 1 < ny) ed.push_back({v, v + nx - 1});
    }
  Graph g = fromEdges(n, ed);
  ASSERT_EQ(OrderChooseMethod(-1, 1, 1, n, (double)g.begin[n] / n), ORDER_NESTED);
  DriverRun r = runDriver(e, g, ORDER_AUTO);
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.method, ORDER_NESTED);
  EXPECT_EQ(r.numDense, 0);
  EXPECT_TRUE(isPermutationPair(r.perm, r.invPerm));
  EXPECT_LT(factorEntries(g, r.perm), factorEntries(g, natural(n)) * 6 / 10);
  EXPECT_EQ(e.live(), 0);

  // With dense vertices held back: they end the order in descending number.
  Graph d = gridWithDenseRows(30, {3, 100, 450});
  for (int32_t bm : {0, 1}) {
    DriverRun rd = runDriver(e, d, ORDER_NESTED, 1, 1, bm);
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
  Env e;
  Graph g = grid2d(10, 10);
  // A one-sided edge, a self loop, an index out of range.
  for (std::pair<int32_t, int32_t> at : {std::make_pair(0, 55), {0, 0}, {3, 100}}) {
    Graph bad = g;
    bad.index[at.first] = at.second;
    EXPECT_EQ(runDriver(e, bad, at.first ? ORDER_MINFILL : ORDER_MINDEG).rc, ORDERING_SIZE);
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

TEST(OrderingDriver, OutOfMemoryAtEachAllocationLeaksNothing) {
  Env e;
  Graph g = gridWithDenseRows(25, {7});
  DriverRun ok = runDriver(e, g, ORDER_NESTED), last;
  ASSERT_EQ(ok.rc, 0);
  hxtest::OomSweep sweep(e.host);
  sweep.expected = ORDERING_NOMEM;
  hxtest::OomSweep::Result r = sweep.run([&](hxtest::OomProbe&) {
    last = runDriver(e, g, ORDER_NESTED);
    return last.rc;
  });
  EXPECT_EQ(r.finalStatus, 0);
  EXPECT_GE(r.refusedRuns, 3);  // graph arrays, labels, workspace
  EXPECT_EQ(last.perm, ok.perm);
}

// ---- graph helpers ---------------------------------------------------------------

TEST(OrderingGraphTools, RemoveDenseVerticesThresholdAndRenumbering) {
  Env e;
  // Path 0-1-2-3-4-5 plus vertex 6 joined to 0..5: degrees 2,3,3,3,3,2,6,
  // avgInt 22/7 = 3, so factor 2 puts the threshold exactly at 6.
  std::vector<std::pair<int32_t, int32_t>> ed = {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}};
  for (int32_t v = 0; v < 6; v++) ed.push_back({6, v});
  Graph g = fromEdges(7, ed);
  ASSERT_EQ(g.begin[7], 22);
  std::vector<int32_t> begin(g.begin), index(g.index), work(14), w = {5, 6, 7, 8, 9, 10, 11};
  OrderingGraph og;
  InitGraph(&og);
  ASSERT_EQ(RemoveDenseVertices(2.0, &og, 7, begin.data(), index.data(), work.data(), w.data(),
                                e.pool),
            0);
  EXPECT_EQ(og.numVertex, 6);
  EXPECT_EQ(og.numEdge, 10);
  EXPECT_EQ(work[6], 6);  // the dense vertex from the end of the list
  for (int32_t k = 0; k < 6; k++) {
    EXPECT_EQ(work[k], k);
    EXPECT_EQ(og.vertexWeight[k], w[k] + 3);
    EXPECT_EQ(og.adjWeightSum[k], k == 0 || k == 5 ? 1 : 2);
    EXPECT_EQ(og.origLabel[k], k);
  }
  for (int32_t p = 0; p < og.numEdge; p++) EXPECT_LT(og.adjIndex[p], 6);
  poolFree(e.pool, og.graphStorage);
  poolFree(e.pool, og.origLabel);
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingGraphTools, ComponentsSkipTheBoundary) {
  // Path 0..8 with 3 and 6 on the boundary: components {0,1,2}, {4,5}, {7,8}.
  std::vector<std::pair<int32_t, int32_t>> ed;
  for (int32_t v = 0; v < 8; v++) ed.push_back({v, v + 1});
  Graph g = fromEdges(9, ed);
  std::vector<int32_t> begin(g.begin), index(g.index), bnd = {6, 3};
  OrderingGraph og;
  InitGraph(&og);
  og.numVertex = 9;
  og.adjBegin = begin.data();
  og.adjIndex = index.data();
  og.boundaryList = bnd.data();
  og.numBoundary = 2;
  std::vector<int32_t> mark(9), cb(10), list(9);
  ASSERT_EQ(FindComponents(&og, mark.data(), cb.data(), list.data()), 3);
  EXPECT_EQ(std::vector<int32_t>(cb.begin(), cb.begin() + 4), (std::vector<int32_t>{0, 3, 5, 7}));
  EXPECT_EQ(std::vector<int32_t>(list.begin(), list.begin() + 7),
            (std::vector<int32_t>{0, 1, 2, 4, 5, 7, 8}));
}

TEST(OrderingGraphTools, CompressGraphGroupsTwins) {
  Env e;
  // Each vertex of a 6 x 6 grid becomes three mutually joined copies, joined
  // to all copies of its grid neighbours.
  Graph base = grid2d(6, 6);
  std::vector<std::pair<int32_t, int32_t>> ed;
  for (int32_t v = 0; v < base.n; v++) {
    for (int32_t a = 0; a < 3; a++)
      for (int32_t b = a + 1; b < 3; b++) ed.push_back({3 * v + a, 3 * v + b});
    for (int32_t p = base.begin[v]; p < base.begin[v + 1]; p++)
      for (int32_t a = 0; a < 3; a++)
        for (int32_t b = 0; b < 3; b++) ed.push_back({3 * v + a, 3 * base.index[p] + b});
  }
  Graph g = fromEdges(3 * base.n, ed);
  std::vector<int32_t> begin(g.begin), index(g.index), gb(g.n + 1), gl(g.n), mark(g.n);
  OrderingGraph out;
  ASSERT_EQ(CompressGraph(g.n, begin.data(), index.data(), &out, gb.data(), gl.data(),
                          mark.data(), e.pool),
            0);
  EXPECT_EQ(out.numVertex, base.n);
  EXPECT_EQ(out.numEdge, base.begin[base.n]);
  for (int32_t k = 0; k < out.numVertex; k++) {
    EXPECT_EQ(out.vertexWeight[k], 3);
    std::set<int32_t> members;
    for (int32_t q = gb[k]; q < gb[k + 1]; q++) members.insert(gl[q] / 3);
    EXPECT_EQ(members.size(), 1u);  // only copies of one grid vertex
  }
  poolFree(e.pool, out.graphStorage);

  // A plain grid has no twins: no compression, out refers to the input.
  ASSERT_EQ(CompressGraph(base.n, base.begin.data(), base.index.data(), &out, gb.data(),
                          gl.data(), mark.data(), e.pool),
            1);
  EXPECT_EQ(out.adjBegin, base.begin.data());
  // Out of memory also means no compression, and nothing is kept.
  for (int64_t k = 0; k < 2; k++) {
    e.host.failAllocation(k);
    std::vector<int32_t> b2(g.begin), i2(g.index);
    EXPECT_EQ(CompressGraph(g.n, b2.data(), i2.data(), &out, gb.data(), gl.data(), mark.data(),
                            e.pool),
              1);
    e.host.clearFailures();
  }
  EXPECT_EQ(e.live(), 0);
}

TEST(OrderingGraphTools, StackWorkspaceRoundsToSixteen) {
  Env e;
  OrderingGraph og;
  InitGraph(&og);
  og.numVertex = 100;
  og.numEdge = 37;
  OrderingControl c{};
  c.env = &e.env;
  ASSERT_EQ(AllocateWorkSpace(&c, &og), 0);
  EXPECT_EQ(((uintptr_t)c.workInts) % 16, 0u);
  EXPECT_GE((char*)c.workInts, (char*)c.edgeScratch + 4 * 37);
  int32_t* a = poolmalloc(&c, 5);
  int32_t* b = poolmalloc(&c, 17);
  EXPECT_EQ(a, c.workInts);
  EXPECT_EQ(b, c.workInts + 16);
  EXPECT_EQ(c.workTop, 48);
  poolfree(&c, 17);
  poolfree(&c, 5);
  EXPECT_EQ(c.workTop, 0);
  poolFree(e.pool, c.workBase);
  e.host.failAllocation(0);
  EXPECT_EQ(AllocateWorkSpace(&c, &og), ORDERING_NOMEM);
  e.host.clearFailures();
  EXPECT_EQ(e.live(), 0);
}

// Graphs for the ordering tests: families built from edge lists (both
// directions, no loops), the count of factor entries of an order, and a
// pool wrapped as the LA environment that the ordering code reads.
#ifndef HALVEX_TESTS_GRAPH_SUPPORT_H
#define HALVEX_TESTS_GRAPH_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "host/host.h"
#include "la/la.h"
#include "ordering/ordering.h"

namespace graphs {

struct Graph {
  int32_t n = 0;
  std::vector<int32_t> begin{0};
  std::vector<int32_t> index;
};

using Edges = std::vector<std::pair<int32_t, int32_t>>;

inline Graph fromEdges(int32_t n, const Edges& edges) {
  Edges both;
  both.reserve(2 * edges.size());
  for (auto& e : edges)
    if (e.first != e.second) {
      both.push_back(e);
      both.push_back({e.second, e.first});
    }
  std::sort(both.begin(), both.end());
  both.erase(std::unique(both.begin(), both.end()), both.end());
  Graph g;
  g.n = n;
  g.begin.assign(n + 1, 0);
  for (auto& e : both) g.begin[e.first + 1]++;
  for (int32_t v = 0; v < n; v++) g.begin[v + 1] += g.begin[v];
  g.index.resize(both.size());
  for (size_t k = 0; k < both.size(); k++) g.index[k] = both[k].second;
  return g;
}

inline Edges edgesOf(const Graph& g, int32_t shift = 0) {
  Edges e;
  for (int32_t v = 0; v < g.n; v++)
    for (int32_t p = g.begin[v]; p < g.begin[v + 1]; p++)
      if (v < g.index[p]) e.push_back({v + shift, g.index[p] + shift});
  return e;
}

inline Graph grid2d(int32_t nx, int32_t ny, bool ninePoint = false) {
  Edges e;
  for (int32_t y = 0; y < ny; y++)
    for (int32_t x = 0; x < nx; x++) {
      int32_t v = y * nx + x;
      if (x + 1 < nx) e.push_back({v, v + 1});
      if (y + 1 < ny) e.push_back({v, v + nx});
      if (ninePoint && x + 1 < nx && y + 1 < ny) e.push_back({v, v + nx + 1});
      if (ninePoint && x > 0 && y + 1 < ny) e.push_back({v, v + nx - 1});
    }
  return fromEdges(nx * ny, e);
}

inline Graph grid3d(int32_t k) {
  Edges e;
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

inline Graph randomGraph(int32_t n, int32_t m, uint32_t seed) {
  std::mt19937 rng(seed);
  Edges e;
  for (int32_t k = 0; k < m; k++) e.push_back({(int32_t)(rng() % n), (int32_t)(rng() % n)});
  return fromEdges(n, e);
}

// [H A'; A 0]: nc columns, m rows, perCol mostly local entries per column,
// hOff off-diagonal entries of H per column.
inline Graph kkt(int32_t m, int32_t nc, int32_t perCol, int32_t hOff, uint32_t seed) {
  std::mt19937 rng(seed);
  Edges e;
  for (int32_t j = 0; j < nc; j++) {
    int32_t centre = (int32_t)((int64_t)j * m / nc);
    for (int32_t k = 0; k < perCol; k++) {
      int32_t r = rng() % 4 == 0 ? (int32_t)(rng() % m) : (centre + (int32_t)(rng() % 30) + m - 15) % m;
      e.push_back({j, nc + r});
    }
    for (int32_t k = 0; k < hOff; k++) e.push_back({j, (int32_t)(rng() % nc)});
  }
  return fromEdges(nc + m, e);
}

inline Graph disjoint(const Graph& a, const Graph& b, int32_t isolated) {
  Edges e = edgesOf(a), f = edgesOf(b, a.n + isolated);
  e.insert(e.end(), f.begin(), f.end());
  return fromEdges(a.n + isolated + b.n, e);
}

inline Graph withDenseRows(const Graph& g, const std::vector<int32_t>& dense) {
  Edges e = edgesOf(g);
  for (int32_t d : dense)
    for (int32_t v = 0; v < g.n; v++) e.push_back({d, v});
  return fromEdges(g.n, e);
}

inline Graph star(int32_t n) {
  Edges e;
  for (int32_t v = 1; v < n; v++) e.push_back({0, v});
  return fromEdges(n, e);
}

// One of each shape the orderings treat differently: 2D and 3D meshes,
// sparse and denser random graphs, dense rows, pieces with isolated
// vertices; last the ones dissection hands on, edgeless graphs and a tree.
inline std::vector<Graph> zoo() {
  return {grid2d(23, 17),
          grid3d(8),
          randomGraph(500, 1500, 7),
          randomGraph(300, 3000, 11),
          withDenseRows(grid2d(20, 20), {0, 137, 399}),
          disjoint(grid2d(9, 9), randomGraph(60, 150, 3), 5),
          fromEdges(1, {}),
          fromEdges(6, {}),
          star(200)};
}

inline std::vector<int32_t> natural(int32_t n) {
  std::vector<int32_t> p(n);
  for (int32_t i = 0; i < n; i++) p[i] = i;
  return p;
}

// Entries of L below the diagonal for perm (position to vertex), by row
// subtrees of the elimination tree with path compression.
inline int64_t factorEntries(const Graph& g, const std::vector<int32_t>& perm) {
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

// perm maps position to vertex, invPerm vertex to position; undoing every
// position rules out repeats.
inline ::testing::AssertionResult isPermutationPair(const std::vector<int32_t>& perm,
                                                    const std::vector<int32_t>& invPerm) {
  int32_t n = (int32_t)perm.size();
  for (int32_t k = 0; k < n; k++)
    if (perm[k] < 0 || perm[k] >= n || invPerm[perm[k]] != k)
      return ::testing::AssertionFailure() << "perm[" << k << "]=" << perm[k] << " not undone";
  return ::testing::AssertionSuccess();
}

struct PoolEnv {
  hxhost::Host host;
  QVPool* pool;
  LAEnv env{};
  PoolEnv() {
    pool = host.createPool("ordering");
    env.pool = pool;
  }
  int64_t live() { return host.poolStats(pool).liveBlocks; }
};

struct Ordered {
  int32_t rc = -99, method = 0, numDense = -7;
  std::vector<int32_t> perm, invPerm, labels;
};

// OrderGraph as the LDL analysis calls it, on copies of g.
inline Ordered orderGraph(PoolEnv& e, const Graph& g, int32_t method, int32_t blockMode = 0,
                          int32_t seed = 0, int32_t separatorsLast = 1) {
  Ordered r;
  int32_t n = g.n;
  std::vector<int32_t> begin(g.begin), index(g.index);
  index.resize(g.begin[n] + n + 1);
  std::vector<int32_t> work(7 * (size_t)n + 1);
  r.perm.assign(n, -1);
  r.invPerm.assign(n, -1);
  r.labels.assign(n, -1);
  r.method = method;
  r.rc = OrderGraph(&e.env, n, begin.data(), index.data(), (int32_t)index.size(), 1, nullptr, 1,
                    r.perm.data(), r.invPerm.data(), &r.numDense, &r.method, separatorsLast,
                    blockMode, r.labels.data(), seed, work.data(), 0.0, -1.0);
  return r;
}

}  // namespace graphs

#endif

// Brute-force symbolic factorisation: the structure of L by plain
// elimination on a dense boolean matrix, for the symbolic steps and the
// analysis plans to be checked against.  Fine up to a few hundred columns.
#ifndef HALVEX_TESTS_SUPPORT_SYMBOLIC_REF_H
#define HALVEX_TESTS_SUPPORT_SYMBOLIC_REF_H

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

namespace hxtest {

using IntVec = std::vector<int32_t>;
using BoolMatrix = std::vector<std::vector<bool>>;

// A symmetric pattern with both triangles stored and the diagonal in every
// column; values 4 on the diagonal and -1 elsewhere.
struct Pattern {
  int32_t n = 0;
  IntVec colBegin, rowIndex;
  std::vector<double> value;
};

inline Pattern fromDense(const BoolMatrix& a) {
  Pattern p;
  p.n = (int32_t)a.size();
  p.colBegin.push_back(0);
  for (int32_t j = 0; j < p.n; j++) {
    for (int32_t i = 0; i < p.n; i++)
      if (a[i][j] || i == j) {
        p.rowIndex.push_back(i);
        p.value.push_back(i == j ? 4.0 : -1.0);
      }
    p.colBegin.push_back((int32_t)p.rowIndex.size());
  }
  return p;
}

inline Pattern randomPattern(int32_t n, double density, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  BoolMatrix a(n, std::vector<bool>(n, false));
  for (int32_t j = 0; j < n; j++)
    for (int32_t i = j + 1; i < n; i++)
      if (u(rng) < density) a[i][j] = a[j][i] = true;
  return fromDense(a);
}

// Dense blocks joined by a dense border: few, wide supernodes with updates
// between them, heavy enough for the threaded path.
inline Pattern blockArrow(int32_t blocks, int32_t blockSize, int32_t border) {
  int32_t n = blocks * blockSize + border;
  BoolMatrix a(n, std::vector<bool>(n, false));
  for (int32_t b = 0; b < blocks; b++)
    for (int32_t i = 0; i < blockSize; i++)
      for (int32_t j = 0; j < blockSize; j++) a[b * blockSize + i][b * blockSize + j] = true;
  for (int32_t i = blocks * blockSize; i < n; i++)
    for (int32_t j = 0; j < n; j++) a[i][j] = a[j][i] = true;
  return fromDense(a);
}

inline IntVec randomPerm(int32_t n, uint32_t seed) {
  IntVec perm(n);
  for (int32_t i = 0; i < n; i++) perm[i] = i;
  std::mt19937 rng(seed);
  std::shuffle(perm.begin(), perm.end(), rng);
  return perm;
}

// L of p in the order perm (position -> original index): l[i][j] for i > j,
// the elimination tree and the column counts (diagonal included).
struct BruteFactor {
  int32_t n = 0;
  BoolMatrix l;
  IntVec parent, colCounts;
};

inline BruteFactor bruteFactor(const Pattern& p, const IntVec& perm) {
  BruteFactor f;
  f.n = p.n;
  IntVec inv(p.n);
  for (int32_t k = 0; k < p.n; k++) inv[perm[k]] = k;
  f.l.assign(p.n, std::vector<bool>(p.n, false));
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t a = inv[p.rowIndex[q]], b = inv[j];
      if (a != b) f.l[std::max(a, b)][std::min(a, b)] = true;
    }
  for (int32_t k = 0; k < p.n; k++) {
    IntVec below;
    for (int32_t i = k + 1; i < p.n; i++)
      if (f.l[i][k]) below.push_back(i);
    for (size_t x = 0; x < below.size(); x++)
      for (size_t y = 0; y < x; y++) f.l[below[x]][below[y]] = true;
  }
  f.parent.assign(p.n, -1);
  f.colCounts.assign(p.n, 1);
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t i = j + 1; i < p.n; i++)
      if (f.l[i][j]) {
        if (f.parent[j] == -1) f.parent[j] = i;
        f.colCounts[j]++;
      }
  return f;
}

}  // namespace hxtest

#endif

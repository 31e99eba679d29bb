// The LA environment and the LDL analysis driver: every plan checked
// against a brute-force symbolic factorisation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric.h"
#include "support/dense_ref.h"
#include "support/oom.h"
#include "support/symbolic_ref.h"

namespace {

using hxtest::blockArrow;
using hxtest::BruteFactor;
using hxtest::bruteFactor;
using hxtest::fromDense;
using hxtest::IntVec;
using hxtest::Pattern;
using hxtest::randomPattern;

class LATest : public ::testing::Test {
 protected:
  void SetUp() override {
    pool = host.createPool("la");
    int32_t status = -1;
    env = LA_CreateLAEnv(pool, nullptr, &status);
    ASSERT_EQ(0, status);
    ASSERT_NE(nullptr, env);
  }
  void TearDown() override {
    LA_FreeLAEnv(&env);
    EXPECT_EQ(0, host.poolStats(pool).liveBlocks);
  }
  int64_t live() { return host.poolStats(pool).liveBlocks; }
  int32_t analyse(const Pattern& p, LASymbolic** sym, LANumeric** num, LAEnv* e = nullptr,
                  bool values = false) {
    return LA_AnalyzeMatrixLDL(p.n, p.colBegin.data(), p.rowIndex.data(),
                               values ? p.value.data() : nullptr, e ? e : env, sym, num);
  }

  hxhost::Host host;
  QVPool* pool = nullptr;
  LAEnv* env = nullptr;
};

// ---- environment and parameters ---------------------------------------------

TEST_F(LATest, ParameterLimitsAndRejections) {
  int32_t v;
  double d;
  // Values just inside and just outside each limit; a rejected value leaves
  // the old one.
  struct Case { int32_t id, value, status; };
  const Case cases[] = {
      {7, -1, 0}, {7, 4, 0},  {7, -2, 9}, {7, 5, 9},  {1, 5, 0},  {1, 6, 9},  {1, -1, 9},
      {18, 2, 0}, {18, 3, 9}, {0, 1, 0},  {0, 0, 9},  {2, 1, 0},  {2, 2, 9},  {5, 0, 0},
      {5, -1, 9}, {6, 0, 9},  {13, 1, 0}, {13, 2, 9}, {15, 0, 0}, {15, -1, 9}, {16, 0, 9},
      {17, 1, 0}, {14, 0, 0}, {14, 2, 9}, {9, 1, 0},  {8, 2, 9}};
  for (const Case& c : cases) {
    int32_t before;
    ASSERT_EQ(0, LA_GetIntParam(env, c.id, &before));
    EXPECT_EQ(c.status, LA_SetIntParam(env, c.id, c.value)) << "id " << c.id << " value " << c.value;
    ASSERT_EQ(0, LA_GetIntParam(env, c.id, &v));
    EXPECT_EQ(c.status == 0 ? c.value : before, v) << "id " << c.id;
  }
  for (int32_t id : {-1, 21}) {
    EXPECT_EQ(9, LA_SetIntParam(env, id, 0));
    EXPECT_EQ(9, LA_GetIntParam(env, id, &v));
    EXPECT_EQ(9, LA_SetDblParam(env, 0.0, id));
    EXPECT_EQ(9, LA_GetDblParam(env, id, &d));
  }
  EXPECT_EQ(9, LA_SetDblParam(env, -1e-300, 19));
  EXPECT_EQ(1e-16, env->refineTol);
  EXPECT_EQ(0, LA_SetDblParam(env, 0.0, 19));
  EXPECT_EQ(0.0, env->refineTol);

  EXPECT_EQ(nullptr, LA_CreateLAEnv(nullptr, nullptr, &v));
  EXPECT_EQ(9, v);
  host.failAllocation(0);
  EXPECT_EQ(nullptr, LA_CreateLAEnv(pool, nullptr, &v));
  EXPECT_EQ(1, v);
  host.clearFailures();
}

// ---- the analysis driver ------------------------------------------------------

// Checks the plan against a brute-force factor in the analysis order.
// Pivot marks: all single, or pairs on neighbouring positions.
void checkPlan(const Pattern& p, const LASymbolic* sym, bool allSingle = true) {
  int32_t n = p.n;
  IntVec perm(sym->perm, sym->perm + n);
  for (int32_t k = 0; k < n; k++) ASSERT_EQ(k, sym->invPerm[perm[k]]);
  BruteFactor bf = bruteFactor(p, perm);
  double entries = -n, ops = 0;
  for (int32_t c : bf.colCounts) {
    entries += c;
    ops += (double)(c - 1) * c;
  }
  EXPECT_EQ(entries, sym->estFactorEntries);
  EXPECT_EQ(ops, sym->estOperations);

  int32_t ns = sym->numSNodes;
  ASSERT_GE(ns, 1);
  EXPECT_EQ(0, sym->snodeStart[0]);
  EXPECT_EQ(n, sym->snodeStart[ns]);
  int32_t widest = 0;
  for (int32_t s = 0; s < ns; s++) {
    int32_t first = sym->snodeStart[s], end = sym->snodeStart[s + 1];
    ASSERT_LT(first, end);
    widest = std::max(widest, end - first);
    for (int32_t j = first; j < end; j++) EXPECT_EQ(s, sym->colToSNode[j]);
    EXPECT_TRUE(sym->snodeParent[s] == -1 || sym->snodeParent[s] > s);
    // Row list: own columns, then the union of the columns' structures.
    std::set<int32_t> want;
    for (int32_t j = first; j < end; j++) {
      want.insert(j);
      for (int32_t i = j + 1; i < n; i++)
        if (bf.l[i][j]) want.insert(i);
    }
    IntVec got(sym->rowList + sym->rowBegin[s], sym->rowList + sym->rowBegin[s + 1]);
    EXPECT_EQ(IntVec(want.begin(), want.end()), got) << "supernode " << s;
    if (end < n) {
      int32_t p0 = bf.parent[end - 1];
      EXPECT_EQ(p0 == -1 ? -1 : sym->colToSNode[p0], sym->snodeParent[s]);
    }
  }
  EXPECT_LE(sym->maxSNodeCols, widest);
  // A supernode whose rows below its columns are exactly its parent's rows
  // adds no zero by joining it, whatever their sizes, so it has joined it.
  for (int32_t s = 0; s + 1 < ns; s++) {
    int32_t below = sym->rowBegin[s + 1] - sym->rowBegin[s] - laSNodeCols(sym, s);
    if (sym->snodeParent[s] == s + 1) {
      EXPECT_NE(below, sym->rowBegin[s + 2] - sym->rowBegin[s + 1]) << "supernode " << s;
    }
  }
  EXPECT_EQ(sym->rowBegin[ns], sym->numRowEntries);
  EXPECT_EQ(sym->factorBegin[ns], sym->numFactorEntries);
  if (!sym->pivots) return;
  for (int32_t k = 0; k < n; k++) {
    if (allSingle || sym->pivots[k] == -2) {
      EXPECT_EQ(-2, sym->pivots[k]) << "position " << k;
    } else {
      ASSERT_LT(k + 1, n);
      EXPECT_EQ(-1, sym->pivots[++k]) << "position " << k;
    }
  }
}

// p with a third of its off-diagonal entries written once or twice more,
// in both columns, and every fifth diagonal twice, as a caller may hand them
// over.  The repeats follow the column's own entries in no order, so p is
// the matrix with its repeats merged.
Pattern withRepeats(const Pattern& p, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<IntVec> extra(p.n);
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t i = p.rowIndex[q];
      int32_t times = i > j && rng() % 3 == 0 ? 1 + (int32_t)(rng() % 2) : i == j && j % 5 == 0;
      for (int32_t e = 0; e < times; e++) {
        extra[j].push_back(i);
        if (i != j) extra[i].push_back(j);
      }
    }
  Pattern d = p;
  d.rowIndex.clear();
  for (int32_t j = 0; j < p.n; j++) {
    d.rowIndex.insert(d.rowIndex.end(), p.rowIndex.begin() + p.colBegin[j],
                      p.rowIndex.begin() + p.colBegin[j + 1]);
    std::shuffle(extra[j].begin(), extra[j].end(), rng);
    d.rowIndex.insert(d.rowIndex.end(), extra[j].begin(), extra[j].end());
    d.colBegin[j + 1] = (int32_t)d.rowIndex.size();
  }
  d.value.assign(d.rowIndex.size(), 1.0);
  return d;
}

// [H A'; A -D] with H diagonal: n1 columns, n2 constraint rows.
Pattern kktPattern(int32_t n1, int32_t n2, uint32_t seed) {
  std::mt19937 rng(seed);
  int32_t n = n1 + n2;
  std::vector<std::vector<bool>> a(n, std::vector<bool>(n, false));
  for (int32_t i = 0; i < n2; i++) {
    a[n1 + i][i % n1] = a[i % n1][n1 + i] = true;
    for (int32_t j = 0; j < n1; j++)
      if (rng() % 7 == 0) a[n1 + i][j] = a[j][n1 + i] = true;
  }
  return fromDense(a);
}

// Analyses p and p with repeats: the same plan, sizes and order.
void expectSamePlanWithRepeats(LAEnv* env, const Pattern& p, const LASymbolic* ms,
                               uint32_t seed, bool check) {
  Pattern dup = withRepeats(p, seed);
  ASSERT_GT(dup.colBegin[dup.n], p.colBegin[p.n]);
  LASymbolic* ds = nullptr;
  LANumeric* dn = nullptr;
  ASSERT_EQ(0, LA_AnalyzeMatrixLDL(dup.n, dup.colBegin.data(), dup.rowIndex.data(), nullptr, env,
                                   &ds, &dn));
  auto sizes = [](const LASymbolic* y) {
    return std::vector<double>{y->estFactorEntries,        y->estOperations,
                               (double)y->numFactorEntries, (double)y->updateBufferSize,
                               (double)y->panelBufferSize,  (double)y->numBlocks,
                               (double)y->numSNodes,        (double)y->numRowEntries};
  };
  EXPECT_EQ(sizes(ms), sizes(ds));
  EXPECT_TRUE(std::equal(ms->perm, ms->perm + p.n, ds->perm));
  EXPECT_TRUE(std::equal(ms->rowList, ms->rowList + ms->numRowEntries, ds->rowList));
  if (check) checkPlan(dup, ds);
  LA_CleanUpLDL(env, &ds, &dn);
}

// Random and KKT patterns under each ordering, sequential.
TEST_F(LATest, SequentialPlanMatchesBruteForceWithAndWithoutRepeats) {
  const int32_t methods[] = {-1, 0, 2};
  for (uint32_t seed = 1; seed <= 14; seed++) {
    // The last is dense: one supernode; the one before diagonal: a forest.
    double density = seed == 14 ? 1.0 : seed == 13 ? 0.0 : 0.03 + 0.01 * (seed % 5);
    int32_t size = seed == 14 ? 100 : 20 + (int32_t)seed * 5;
    Pattern p = seed % 4 == 0 ? kktPattern(size, size / 2, seed)
                              : randomPattern(size, density, seed);
    int32_t method = methods[seed % 3];
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, method));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_CONSTRAINED_ORDERING, method == 2 && seed % 2));
    SCOPED_TRACE(testing::Message() << "seed " << seed << " method " << method);
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, seed != 14));
    EXPECT_EQ(0, sym->threaded);
    EXPECT_EQ(0, sym->blockSize);
    checkPlan(p, sym);
    if (seed == 14) { EXPECT_EQ(1, sym->numSNodes); }
    int64_t maxUpdate = 0;
    for (int32_t s = 0; s < sym->numSNodes; s++)
      maxUpdate = std::max<int64_t>(maxUpdate, (sym->rowBegin[s + 1] - sym->rowBegin[s]) -
                                                   (sym->snodeStart[s + 1] - sym->snodeStart[s]));
    EXPECT_EQ((maxUpdate * maxUpdate + 15) / 16 * 16, (int64_t)sym->updateBufferSize);
    expectSamePlanWithRepeats(env, p, sym, 100 + seed, true);
    LA_CleanUpLDL(env, &sym, &num);
    EXPECT_EQ(before, live());
  }
}

// Counts the update events per block table entry from their definition:
// a source's update rows, in pairs of its row blocks for a wide source,
// against the target's column and row blocks.
std::vector<IntVec> expectedDeps(const LASymbolic* sym) {
  int32_t ns = sym->numSNodes, nb = sym->blockSize;
  std::vector<IntVec> deps(ns);
  auto rowsOf = [&](int32_t s) {
    return IntVec(sym->rowList + sym->rowBegin[s], sym->rowList + sym->rowBegin[s + 1]);
  };
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    deps[s].assign(b.wide ? b.ncb * b.nrb : b.nrb, 0);
    if (b.wide)
      for (int32_t J = 0; J < b.ncb; J++)
        for (int32_t I = J; I < b.nrb; I++) deps[s][J * b.nrb + I] += I == J ? J : J + 1;
  }
  auto apply = [&](const IntVec& colRows, const IntVec& rowRows, int32_t add) {
    // Group the column part by target and column block.
    std::set<std::pair<int32_t, int32_t>> parts;
    for (int32_t row : colRows) {
      int32_t t = sym->colToSNode[row];
      LABlockShape bt = laBlockShape(sym, t);
      parts.insert({t, bt.wide ? (row - sym->snodeStart[t]) / nb : 0});
    }
    for (auto [t, J] : parts) {
      LABlockShape bt = laBlockShape(sym, t);
      IntVec trows = rowsOf(t);
      int32_t blockStart = sym->snodeStart[t] + J * bt.w;
      std::set<int32_t> hit;
      for (int32_t row : rowRows) {
        if (row < blockStart) continue;
        auto it = std::find(trows.begin(), trows.end(), row);
        if (it == trows.end()) continue;
        hit.insert((int32_t)(it - trows.begin()) / bt.h);
      }
      for (int32_t I : hit) deps[t][J * bt.nrb + I] += add;
    }
  };
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    IntVec rows = rowsOf(s);
    int32_t c = laSNodeCols(sym, s), r = (int32_t)rows.size();
    if (r <= c) continue;
    if (!b.wide) {
      IntVec upd(rows.begin() + c, rows.end());
      apply(upd, upd, 1);
      continue;
    }
    for (int32_t K = c / nb; K < b.nrb; K++)
      for (int32_t I = K; I < b.nrb; I++) {
        IntVec kr(rows.begin() + std::max(K * nb, c), rows.begin() + std::min((K + 1) * nb, r));
        IntVec ir(rows.begin() + std::max(I * nb, c), rows.begin() + std::min((I + 1) * nb, r));
        apply(kr, ir, b.ncb);
      }
  }
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    if (b.wide) continue;
    for (int32_t I = 1; I < b.nrb; I++) {
      deps[s][0] += deps[s][I];
      deps[s][I] = 0;
    }
  }
  return deps;
}

// Dense blocks of random sizes, sparse links between them and a border.
Pattern randomBlocks(uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int32_t> size(60, 260);
  IntVec starts = {0};
  for (int32_t b = 0; b < 4; b++) starts.push_back(starts.back() + size(rng));
  int32_t n = starts.back() + 100 + (int32_t)(seed % 3) * 40;
  std::vector<std::vector<bool>> a(n, std::vector<bool>(n, false));
  for (int32_t b = 0; b < 4; b++)
    for (int32_t i = starts[b]; i < starts[b + 1]; i++)
      for (int32_t j = starts[b]; j < starts[b + 1]; j++) a[i][j] = true;
  std::uniform_int_distribution<int32_t> any(0, n - 1);
  for (int32_t k = 0; k < 40; k++) {
    int32_t i = any(rng), j = any(rng);
    a[i][j] = a[j][i] = true;
  }
  for (int32_t i = starts.back(); i < n; i++)
    for (int32_t j = 0; j < n; j++)
      if (j >= starts.back() || rng() % 3 == 0) a[i][j] = a[j][i] = true;
  return fromDense(a);
}

// Every allocation refused in turn; the library reports it as 1.
hxtest::OomSweep::Result laOomSweep(hxhost::Host& host,
                                    const std::function<int32_t(hxtest::OomProbe&)>& body) {
  hxtest::OomSweep sweep(host);
  sweep.expected = 1;
  return sweep.run(body);
}

class LAThreadedPlan : public LATest, public ::testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(LARandomBlocks, LAThreadedPlan, ::testing::Values(0u, 1u, 2u, 4u, 5u, 7u));

TEST_P(LAThreadedPlan, BlockTablesMatchTheUpdateEvents) {
  Pattern p = GetParam() == 0 ? blockArrow(3, 200, 150) : randomBlocks(GetParam());
  ASSERT_EQ(0, LA_SetIntParam(env, 0, 4));
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, true));
  ASSERT_EQ(1, sym->threaded) << "ratio " << sym->estOperations / sym->estFactorEntries;
  checkPlan(p, sym);

  int64_t blocks = 0;
  bool anyWide = false;
  std::vector<IntVec> want = expectedDeps(sym);
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    LABlockShape b = laBlockShape(sym, s);
    anyWide |= b.wide != 0;
    ASSERT_EQ(sym->blockDepsInit[0] + blocks, sym->blockDepsInit[s]);
    IntVec got(sym->blockDepsInit[s], sym->blockDepsInit[s] + want[s].size());
    EXPECT_EQ(want[s], got) << "supernode " << s;
    blocks += (int64_t)want[s].size();
  }
  EXPECT_TRUE(anyWide);
  EXPECT_EQ(blocks, sym->numBlocks);

  std::vector<bool> hasChild(sym->numSNodes, false);
  for (int32_t s = 0; s < sym->numSNodes; s++)
    if (sym->snodeParent[s] != -1) hasChild[sym->snodeParent[s]] = true;
  // A wide supernode may start on its first diagonal block before its
  // children are done.
  IntVec leaves;
  for (int32_t s = 0; s < sym->numSNodes; s++)
    if (!hasChild[s] || sym->blockDepsInit[s][0] == 0) leaves.push_back(s);
  EXPECT_EQ(leaves, IntVec(sym->leaves, sym->leaves + sym->numLeaves));
  expectSamePlanWithRepeats(env, p, sym, GetParam(), false);
  LA_CleanUpLDL(env, &sym, &num);
  if (GetParam() != 0) return;
  hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
    int32_t status = analyse(p, &sym, &num);
    probe.disarm();
    LA_CleanUpLDL(env, &sym, &num);
    return status;
  });
  EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns > 5) << r.refusedRuns;
}

TEST_F(LATest, BadPatternsAreRefusedAndOddOnesPlanned) {
  auto run = [&](const Pattern& q, bool check, LAEnv* e = nullptr) {
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    int32_t status = analyse(q, &sym, &num, e);
    if (check && status == 0) checkPlan(q, sym);
    LA_CleanUpLDL(e ? e : env, &sym, &num);
    EXPECT_EQ(before, live());
    return status;
  };
  // An entry above the diagonal without its mirror: the halves differ.
  Pattern p = randomPattern(12, 0.3, 5);
  Pattern q = p;
  q.rowIndex.insert(q.rowIndex.begin() + q.colBegin[5], 0);  // (0,5) only
  for (int32_t j = 6; j <= q.n; j++) q.colBegin[j]++;
  EXPECT_EQ(2, run(q, false));
  Pattern r = p;
  r.rowIndex[3] = r.n;  // row out of range
  EXPECT_EQ(2, run(r, false));

  // The halves are counted after permuting, so the order of the entries
  // does not matter; the same pattern without the diagonal analyses fine.
  Pattern d;
  d.n = p.n;
  d.colBegin.push_back(0);
  for (int32_t j = 0; j < p.n; j++) {
    for (int32_t k = p.colBegin[j + 1] - 1; k >= p.colBegin[j]; k--)
      if (p.rowIndex[k] != j) d.rowIndex.push_back(p.rowIndex[k]);
    d.colBegin.push_back((int32_t)d.rowIndex.size());
  }
  EXPECT_EQ(0, run(d, true));
  EXPECT_EQ(0, run(Pattern{0, {0}, {}, {}}, false));
}

// ---- static permutations ---------------------------------------------------------

// kktPattern with values: H diagonal, A entries of both signs, a tiny
// negative diagonal on the constraint rows.
Pattern withKktValues(Pattern p, int32_t n1) {
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t i = p.rowIndex[q], lo = std::min(i, j), hi = std::max(i, j);
      p.value[q] = i == j ? (j < n1 ? 1.0 + j % 3 : -1e-8) : ((lo * 7 + hi * 3) % 5 - 2.5) * 0.4;
    }
  return p;
}

// The matching's pairs stay neighbours through ordering, expansion and
// postorder, and the plan factors to the accuracy of the plain one.
TEST_F(LATest, StaticPermutationsKeepPairsAdjacentAndSolveAsWell) {
  const int32_t n1 = 200, n2 = 100;
  Pattern p = withKktValues(kktPattern(n1, n2, 9), n1);
  int32_t n = p.n;
  std::vector<double> b(n), res(n);
  for (int32_t i = 0; i < n; i++) b[i] = 1.0 + i % 7;
  // gen, aug, constrained, method
  const int32_t cases[][4] = {{0, 0, 0, -1}, {1, 0, 0, -1}, {0, 1, 0, -1}, {1, 1, 1, 2},
                              {1, 0, 1, 2}, {0, 1, 0, 0}};
  double plainResidual = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c[0] << c[1] << c[2] << " method " << c[3]);
    LAEnv* e = LA_CreateLAEnv(pool, nullptr, nullptr);
    for (auto [id, v] : {std::pair{3, c[0]}, {4, c[1]}, {5, n1}, {2, c[2]}, {7, c[3]}, {8, 1},
                         {15, 0}})
      ASSERT_EQ(0, LA_SetIntParam(e, id, v));
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    ASSERT_EQ(0, analyse(p, &sym, &num, e, true));
    checkPlan(p, sym, !c[0] && !c[1]);
    // Neighbours marked as a pair are a matched pair: joined by an entry,
    // and on the augmented route one from each block.
    int32_t np = 0;
    for (int32_t k = 0; k + 1 < n; k++)
      if (sym->pivots[k] == -1) {
        int32_t u = sym->perm[k], v = sym->perm[++k];
        auto col = p.rowIndex.begin() + p.colBegin[v];
        bool joined = std::count(col, p.rowIndex.begin() + p.colBegin[v + 1], u) > 0;
        EXPECT_TRUE(joined && (!c[1] || (u < n1) != (v < n1))) << u << " " << v;
        np++;
      }
    EXPECT_TRUE(c[1] ? np == n2 : c[0] ? np > 0 : np == 0) << np;
    ASSERT_EQ(0, LA_FactorMatrixLDL(0, n, p.colBegin.data(), p.rowIndex.data(), p.value.data(),
                                    e, sym, num));
    std::vector<double> x = b;
    int32_t st = LA_SolveMatrixLDL(0, p.colBegin.data(), p.rowIndex.data(), p.value.data(),
                                   x.data(), e, sym, num);
    EXPECT_TRUE(st == 0 || st == 6 || st == 7) << st;
    double r = LA_CalculateInfNormResidual(n, p.colBegin.data(), p.rowIndex.data(),
                                           p.value.data(), x.data(), b.data(), res.data());
    if (np == 0) plainResidual = r;
    EXPECT_LE(r, 100 * plainResidual + 1e-15);
    LA_CleanUpLDL(e, &sym, &num);
    LA_FreeLAEnv(&e);
  }

  // The matching weighs values; every allocation of the matched and
  // constrained route refused in turn.
  for (int32_t id : {3, 4, 5, 2}) ASSERT_EQ(0, LA_SetIntParam(env, id, id == 5 ? n1 : 1));
  ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, 2));
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  EXPECT_EQ(2, analyse(p, &sym, &num));
  LA_CleanUpLDL(env, &sym, &num);
  hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
    int32_t status = analyse(p, &sym, &num, nullptr, true);
    probe.disarm();
    LA_CleanUpLDL(env, &sym, &num);
    return status;
  });
  EXPECT_TRUE(r.completed);
  EXPECT_EQ(0, r.finalStatus);
}

// ---- the Cholesky path --------------------------------------------------------------

TEST_F(LATest, CholeskyPlanAgreesWithTheLdlPlan) {
  for (uint32_t seed = 1; seed <= 8; seed++) {
    Pattern p = seed == 8 ? blockArrow(2, 150, 100) : randomPattern(30 + 10 * seed, 0.06, seed);
    int32_t method = seed % 4 == 3 ? -1 : (int32_t)seed % 4;
    SCOPED_TRACE(testing::Message() << "seed " << seed << " method " << method);
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, seed == 8 ? 2 : 1));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_USE_CONSTRAINED_ORDERING, method == 2 && seed > 4));
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_CHOL_PARAM, 1 + (int32_t)seed));
    int64_t before = live();
    LASymbolic *ls = nullptr, *cs = nullptr;
    LANumeric *ln = nullptr, *cn = nullptr;
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, method));
    ASSERT_EQ(0, analyse(p, &ls, &ln));
    ASSERT_EQ(0, LA_AnalyzeMatrixCholesky(p.n, p.colBegin.data(), p.rowIndex.data(), env, &cs, &cn));
    int32_t used = env->orderingMethod;  // the choice, written back
    EXPECT_TRUE(method != -1 || (used >= 0 && used <= 3)) << used;
    EXPECT_TRUE(cs->kind == 0 && !cs->pivots && cs->cholParam == 1 + (int32_t)seed);
    checkPlan(p, cs);
    // The same order and symbolic counts; only the supernode relaxation
    // rules of the two paths differ.
    EXPECT_TRUE(std::equal(ls->perm, ls->perm + p.n, cs->perm));
    EXPECT_EQ(ls->estFactorEntries, cs->estFactorEntries);
    EXPECT_EQ(ls->estOperations, cs->estOperations);
    EXPECT_TRUE(seed < 8 || (cs->threaded && cs->taskCapacity == 1000 && cs->cholInfo &&
                             cs->panelBufferSize == 0 && cs->numLeaves > 0));
    LA_CleanUpLDL(env, &ls, &ln);
    LA_CleanUpCholesky(env, &cs, &cn);
    EXPECT_EQ(before, live());
    hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe& probe) {
      env->orderingMethod = seed == 8 ? 2 : method;
      int32_t status = LA_AnalyzeMatrixCholesky(p.n, p.colBegin.data(), p.rowIndex.data(), env,
                                                &cs, &cn);
      probe.disarm();
      LA_CleanUpCholesky(env, &cs, &cn);
      return status;
    });
    EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns >= 4)
        << r.completed << " " << r.finalStatus << " " << r.refusedRuns;
  }
}

// A A' (a zero row, a single column, a single row among the shapes) and
// its upper triangle back to both, against dense arithmetic.
TEST_F(LATest, MatrixHelpersAgainstDenseProducts) {
  std::mt19937 rng(3);
  for (auto [rows, cols] : {std::pair{7, 5}, {6, 1}, {1, 4}, {12, 12}}) {
    SCOPED_TRACE(testing::Message() << rows << " by " << cols);
    hxtest::Dense a(rows, std::vector<double>(cols, 0.0));
    for (int32_t i = 0; i < rows; i++)
      for (int32_t j = 0; j < cols; j++)
        if (i != 2 && (cols == 1 || rng() % 3 == 0)) a[i][j] = (double)(rng() % 9) - 3.5;
    Pattern pa;  // not square: built by hand
    for (int32_t j = 0; j < cols; j++, pa.colBegin.push_back((int32_t)pa.rowIndex.size()))
      for (int32_t i = 0; i < rows; i++)
        if (a[i][j] != 0) pa.rowIndex.push_back(i), pa.value.push_back(a[i][j]);
    pa.colBegin.insert(pa.colBegin.begin(), 0);
    int32_t nnz = -1, *pb = nullptr, *pi = nullptr;
    double* pv = nullptr;
    std::vector<double> dw(rows);
    IntVec iw(rows);
    auto product = [&]() {
      return LA_CreateAAt(cols, rows, pa.colBegin.data(), pa.rowIndex.data(), pa.value.data(),
                          &nnz, &pb, &pi, &pv, dw.data(), iw.data(), pool);
    };
    ASSERT_EQ(0, product());
    hxtest::Dense got = hxtest::denseFromCsc(rows, rows, pb, pi, pv), want = got;
    for (int32_t i = 0; i < rows; i++)
      for (int32_t k = 0; k < rows; k++) {
        want[i][k] = 0;
        for (int32_t j = 0; j < cols; j++) want[i][k] += a[i][j] * a[k][j];
      }
    EXPECT_EQ(want, got);
    if (cols == 1) {
      EXPECT_EQ(pa.colBegin[1] * pa.colBegin[1], nnz);  // full
    }
    EXPECT_TRUE(rows <= 2 || pb[2] == pb[3]);  // the zero row: an empty column
    Pattern up;
    for (int32_t j = 0; j < rows; j++, up.colBegin.push_back((int32_t)up.rowIndex.size()))
      for (int32_t i = 0; i <= j; i++)
        if (got[i][j] != 0) up.rowIndex.push_back(i), up.value.push_back(got[i][j]);
    up.colBegin.insert(up.colBegin.begin(), 0);
    int32_t *fb = nullptr, *fi = nullptr;
    double* fv = nullptr;
    auto full = [&]() {
      return LA_ConvertUpperToFull(rows, up.colBegin.data(), up.rowIndex.data(), up.value.data(),
                                   &fb, &fi, &fv, iw.data(), pool);
    };
    ASSERT_EQ(0, full());
    EXPECT_EQ(got, hxtest::denseFromCsc(rows, rows, fb, fi, fv));
    poolFree(pool, pv);
    poolFree(pool, fv);
    for (int32_t which = 0; which < 2; which++) {
      hxtest::OomSweep::Result r = laOomSweep(host, [&](hxtest::OomProbe&) {
        int32_t status = which == 0 ? product() : full();
        if (status == 0) poolFree(pool, which == 0 ? pv : fv);
        return status;
      });
      EXPECT_TRUE(r.completed && r.finalStatus == 0 && r.refusedRuns == 2 - which);
    }
  }
}

}  // namespace

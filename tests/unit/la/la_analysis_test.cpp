// The LA environment, the symbolic steps and the LDL analysis driver, checked
// against a brute-force symbolic factorisation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>
#include <vector>

#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
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
using hxtest::randomPerm;

// Upper and lower patterns of p under perm, in owned storage.
struct Patterns {
  IntVec ub, ui, lb, li;
  LAMatrix upper{}, lower{};
};

void buildPatterns(const Pattern& p, const IntVec& perm, Patterns* out) {
  IntVec inv(p.n);
  for (int32_t k = 0; k < p.n; k++) inv[perm[k]] = k;
  int32_t nnz = p.colBegin[p.n];
  out->ub.assign(p.n + 1, 0);
  out->lb.assign(p.n + 1, 0);
  out->ui.assign(nnz, 0);
  out->li.assign(nnz, 0);
  out->upper = LAMatrix{0, 0, nnz, out->ub.data(), out->ui.data(), nullptr};
  out->lower = LAMatrix{0, 0, nnz, out->lb.data(), out->li.data(), nullptr};
  ASSERT_EQ(0, PermuteSymMatrixPattern(p.n, p.colBegin.data(), p.rowIndex.data(), 1, &out->upper,
                                       &out->lower, perm.data(), inv.data()));
}

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
    EXPECT_EQ(nullptr, env);
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

TEST_F(LATest, ParameterDefaultsLimitsAndRejections) {
  int32_t v;
  double d;
  struct Case { int32_t id, value, status; };
  // Defaults, then values just inside and just outside each limit; a
  // rejected value leaves the old one.
  const int32_t defaults[][2] = {{0, 1}, {1, 1},  {2, 0},  {3, 0},   {4, 0},  {5, 0},
                                 {6, 1}, {7, -1}, {8, 0},  {9, 0},   {10, 0}, {11, 0},
                                 {13, 0}, {14, 1}, {15, 64}, {16, 4}, {17, 16}, {18, 0}};
  for (auto& e : defaults) {
    ASSERT_EQ(0, LA_GetIntParam(env, e[0], &v));
    EXPECT_EQ(e[1], v) << "id " << e[0];
  }
  for (int32_t id : {12, 19, 20}) {
    ASSERT_EQ(0, LA_GetDblParam(env, id, &d));
    EXPECT_EQ(id == 19 ? 1e-16 : 0.0, d) << "id " << id;
  }
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
  // Results and floating ids take an integer set call and ignore it.
  for (int32_t id : {10, 11, 12, 19, 20}) EXPECT_EQ(0, LA_SetIntParam(env, id, 123));
  EXPECT_EQ(0, env->numNegativePivots);
  EXPECT_EQ(0, env->numPositivePivots);
  EXPECT_EQ(1e-16, env->refineTol);
  EXPECT_EQ(9, LA_SetDblParam(env, -1e-300, 19));
  EXPECT_EQ(1e-16, env->refineTol);
  EXPECT_EQ(0, LA_SetDblParam(env, 0.0, 19));
  EXPECT_EQ(0.0, env->refineTol);
  EXPECT_EQ(0, LA_SetDblParam(env, NAN, 19));
  EXPECT_TRUE(std::isnan(env->refineTol));
  EXPECT_EQ(0, LA_SetDblParam(env, 5.0, 12));  // a result: ignored
  EXPECT_EQ(0.0, env->pivotRatio);
  EXPECT_EQ(0, LA_SetDblParam(env, 5.0, 3));  // an integer id: ignored
  EXPECT_EQ(0, env->useStaticPermGen);
  ASSERT_EQ(0, LA_GetDblParam(env, 15, &d));  // an integer id reads as 0
  EXPECT_EQ(0.0, d);

  EXPECT_EQ(nullptr, LA_CreateLAEnv(nullptr, nullptr, &v));
  EXPECT_EQ(9, v);
  host.failAllocation(0);
  EXPECT_EQ(nullptr, LA_CreateLAEnv(pool, nullptr, &v));
  EXPECT_EQ(1, v);
  host.clearFailures();
  int owner = 0;
  LAEnv* other = LA_CreateLAEnv(pool, &owner, &v);
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(&owner, other->owner);
  EXPECT_EQ(pool, other->pool);
  LA_FreeLAEnv(&other);
  EXPECT_EQ(nullptr, other);
}

// ---- symbolic steps against a brute-force factorisation ---------------------

TEST(LASymbolicSteps, TreePostorderAndCountsMatchBruteForce) {
  // Seed 0 is a diagonal matrix: a forest of roots.
  for (uint32_t seed = 0; seed <= 40; seed++) {
    int32_t n = seed == 0 ? 6 : 5 + (int32_t)(seed * 7 % 36);
    double density = seed == 0 ? 0.0 : 0.02 + 0.01 * (seed % 12);
    Pattern p = randomPattern(n, density, seed);
    IntVec perm = seed == 0 ? IntVec{0, 1, 2, 3, 4, 5} : randomPerm(n, seed * 31);
    Patterns pat;
    buildPatterns(p, perm, &pat);
    BruteFactor bf = bruteFactor(p, perm);

    IntVec parent(n), work(5 * n);
    BuildETree(&pat.upper, parent.data(), work.data());
    ASSERT_EQ(bf.parent, parent) << "seed " << seed;

    // Postorder: perm follows the tree, children come before parents and
    // each subtree is contiguous.
    IntVec permBefore = perm, inv(n), pivots(n);
    for (int32_t k = 0; k < n; k++) pivots[k] = 1000 + k;
    LASymbolic sym{};
    sym.perm = perm.data();
    sym.invPerm = inv.data();
    sym.pivots = pivots.data();
    PostOrder(n, parent.data(), &sym, work.data());
    for (int32_t k = 0; k < n; k++) {
      EXPECT_EQ(permBefore[pivots[k] - 1000], perm[k]);
      EXPECT_EQ(k, inv[perm[k]]);
      EXPECT_TRUE(parent[k] == -1 || parent[k] > k);
    }
    if (seed == 0) {
      EXPECT_EQ(IntVec(n, -1), parent);
      EXPECT_EQ((IntVec{5, 4, 3, 2, 1, 0}), perm);
    }
    IntVec size(n, 1);
    for (int32_t k = 0; k < n; k++)
      if (parent[k] != -1) size[parent[k]] += size[k];
    for (int32_t k = 0; k < n; k++)
      for (int32_t d = k - size[k] + 1; d < k; d++) {
        int32_t a = d;
        while (a != -1 && a < k) a = parent[a];
        EXPECT_EQ(k, a) << "subtree of " << k << " not contiguous, seed " << seed;
      }

    // In the postordered numbering the tree and counts still match.
    Patterns pat2;
    buildPatterns(p, perm, &pat2);
    BruteFactor bf2 = bruteFactor(p, perm);
    IntVec parent2(n), counts(n);
    BuildETree(&pat2.upper, parent2.data(), work.data());
    EXPECT_EQ(bf2.parent, parent2);
    EXPECT_EQ(parent, parent2);
    FindColCounts(&pat2.lower, parent2.data(), counts.data(), &sym.estFactorEntries,
                  &sym.estOperations, work.data());
    EXPECT_EQ(bf2.colCounts, counts) << "seed " << seed;
    double wantEntries = -n, wantOps = 0;
    for (int32_t c : bf2.colCounts) {
      wantEntries += c;
      wantOps += (double)(c - 1) * c;
    }
    EXPECT_EQ(wantEntries, sym.estFactorEntries);
    EXPECT_EQ(wantOps, sym.estOperations);
    if (seed == 0) {
      ChooseSequentialOrThreaded(&sym, 8, 1);  // nothing to share out
      EXPECT_EQ(0, sym.threaded);
      EXPECT_EQ(1, sym.threadsUsed);
    }
  }
}

TEST(LASymbolicSteps, RelaxationMergesExactFitsWhateverTheirSize) {
  // Two chains of 500 columns where the first's rows are exactly its own
  // columns plus the second's: no zero is added.
  const int32_t n = 1000;
  IntVec parent(n), start = {0, 500, 1000}, sparent = {1, -1}, toS(n), rows = {1000, 500};
  IntVec pivots(n, -2), work(3 * n);
  for (int32_t j = 0; j < n; j++) {
    parent[j] = j + 1 < n ? j + 1 : -1;
    toS[j] = j < 500 ? 0 : 1;
  }
  LASymbolic sym{};
  sym.numSNodes = 2;
  sym.snodeStart = start.data();
  sym.snodeParent = sparent.data();
  sym.colToSNode = toS.data();
  FindRelaxedSupernodes(parent.data(), pivots.data(), &sym, rows.data(), work.data());
  EXPECT_EQ(1, sym.numSNodes);
  EXPECT_EQ(1000, sym.maxSNodeCols);
  EXPECT_EQ(1000, rows[0]);
  EXPECT_EQ(-1, sparent[0]);
  EXPECT_EQ(0, toS[999]);
}

TEST(LASymbolicSteps, CompressionMergesPairsRepeatsAndDiagonals) {
  // Edges 0-1, 1-2, 3-4, 4-5 once, 0-5, 1-4, 0-3 twice and 2-3 three times,
  // each written in both columns, every diagonal twice, in no order.
  std::vector<IntVec> cols = {{0, 5, 1, 3, 0, 5, 3}, {2, 4, 0, 1, 4, 1},
                              {2, 3, 1, 3, 3, 2},    {3, 2, 4, 0, 2, 2, 3, 0},
                              {5, 1, 3, 4, 1, 4},    {4, 0, 5, 0, 5}};
  int32_t n = 6;
  IntVec colBegin = {0}, rowIndex;
  for (const IntVec& c : cols) {
    rowIndex.insert(rowIndex.end(), c.begin(), c.end());
    colBegin.push_back((int32_t)rowIndex.size());
  }
  IntVec begin(n + 1), index(rowIndex.size()), work(3 * n);
  auto checkGraph = [&](const std::vector<std::set<int32_t>>& want) {
    for (size_t g = 0; g < want.size(); g++) {
      std::set<int32_t> got(index.begin() + begin[g], index.begin() + begin[g + 1]);
      EXPECT_EQ(want[g], got) << "vertex " << g;
      EXPECT_EQ((int32_t)want[g].size(), begin[g + 1] - begin[g]) << "repeats at vertex " << g;
    }
  };

  // All single, under a reversing perm0: the merged pattern without its
  // diagonal.
  IntVec perm0 = {5, 4, 3, 2, 1, 0}, inv0 = perm0, pivots(n, -2);
  ASSERT_EQ(0, PermuteCompressMatrix(n, colBegin.data(), rowIndex.data(), pivots.data(),
                                     perm0.data(), inv0.data(), n, begin.data(), index.data(),
                                     work.data()));
  checkGraph({{1, 5}, {0, 2, 4}, {1, 3, 5}, {2, 4}, {1, 3, 5}, {0, 2, 4}});

  // Pairs {1,2} and {4,5}: the singles 0 and 3 share a repeated edge, which
  // the compression copies from single to single without a marker.
  IntVec ident = {0, 1, 2, 3, 4, 5};
  IntVec pairs = {-2, -1, -1, -2, -1, -1};
  ASSERT_EQ(0, PermuteCompressMatrix(n, colBegin.data(), rowIndex.data(), pairs.data(),
                                     ident.data(), ident.data(), 4, begin.data(), index.data(),
                                     work.data()));
  checkGraph({{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}});
  EXPECT_EQ((IntVec{-2, -1, -2, -1}), IntVec(pairs.begin(), pairs.begin() + 4));

  // A pair marker without its partner is a broken layout.
  IntVec bad = {-2, -1, -2, -2, -1, -1};
  EXPECT_EQ(2, PermuteCompressMatrix(n, colBegin.data(), rowIndex.data(), bad.data(),
                                     ident.data(), ident.data(), 4, begin.data(), index.data(),
                                     work.data()));
}

// ---- the analysis driver ------------------------------------------------------

// Checks the plan against a brute-force factor in the analysis order.
void checkPlan(const Pattern& p, const LASymbolic* sym, const LANumeric* num) {
  int32_t n = p.n;
  IntVec perm(sym->perm, sym->perm + n);
  for (int32_t k = 0; k < n; k++) ASSERT_EQ(k, sym->invPerm[perm[k]]);
  BruteFactor bf = bruteFactor(p, perm);
  double entries = -n;
  for (int32_t c : bf.colCounts) entries += c;
  EXPECT_EQ(entries, sym->estFactorEntries);

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
    int64_t r = (int64_t)got.size(), c = end - first;
    int64_t size = 0;
    if (!sym->threaded) {
      size = r * c;
    } else {
      for (int64_t done = 0, left = r; done < c; done += sym->blockSize, left -= sym->blockSize)
        size += std::min<int64_t>(sym->blockSize, c - done) * left;
    }
    EXPECT_EQ(size, sym->factorBegin[s + 1] - sym->factorBegin[s]) << "supernode " << s;
  }
  EXPECT_LE(sym->maxSNodeCols, widest);
  EXPECT_EQ(sym->rowBegin[ns], sym->numRowEntries);
  EXPECT_EQ(sym->factorBegin[ns], sym->numFactorEntries);
  for (int32_t k = 0; k < n; k++) EXPECT_EQ(-2, sym->pivots[k]);
  int64_t lowerCount = 0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++)
      if (sym->invPerm[p.rowIndex[q]] >= sym->invPerm[j]) lowerCount++;
  EXPECT_EQ(lowerCount, num->lowerCopy.numCoef);
  EXPECT_NE(nullptr, sym->factor);
  EXPECT_NE(nullptr, sym->work);
}

TEST_F(LATest, SequentialPlanMatchesBruteForce) {
  for (uint32_t seed = 1; seed <= 13; seed++) {
    // The last is dense: one supernode.
    Pattern p = seed == 13 ? randomPattern(100, 1.0, 3)
                           : randomPattern(20 + (int32_t)seed * 5, 0.03 + 0.01 * (seed % 5), seed);
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, seed != 13));
    EXPECT_EQ(0, sym->threaded);
    EXPECT_EQ(0, sym->blockSize);
    EXPECT_EQ(96, num->panelWidth);
    checkPlan(p, sym, num);
    if (seed == 13) {
      EXPECT_EQ(1, sym->numSNodes);
      EXPECT_EQ(100, sym->maxSNodeCols);
      EXPECT_EQ(100 * 100, sym->numFactorEntries);
    }
    int64_t maxUpdate = 0;
    for (int32_t s = 0; s < sym->numSNodes; s++)
      maxUpdate = std::max<int64_t>(maxUpdate, (sym->rowBegin[s + 1] - sym->rowBegin[s]) -
                                                   (sym->snodeStart[s + 1] - sym->snodeStart[s]));
    EXPECT_EQ((maxUpdate * maxUpdate + 15) / 16 * 16, (int64_t)sym->updateBufferSize);
    LA_CleanUpLDL(env, &sym, &num);
    EXPECT_EQ(before, live()) << "seed " << seed;
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
  int32_t border = 100 + (int32_t)(seed % 3) * 40;
  int32_t n = starts.back() + border;
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

class LAThreadedPlan : public LATest, public ::testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(LARandomBlocks, LAThreadedPlan, ::testing::Values(0u, 1u, 2u, 4u, 5u, 7u));

TEST_P(LAThreadedPlan, BlockTablesMatchTheUpdateEvents) {
  Pattern p = GetParam() == 0 ? blockArrow(3, 200, 150) : randomBlocks(GetParam());
  ASSERT_EQ(0, LA_SetIntParam(env, 0, 4));
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  ASSERT_EQ(0, analyse(p, &sym, &num, nullptr, true));
  ASSERT_EQ(1, sym->threaded) << "ratio " << sym->estOperations / sym->estFactorEntries;
  EXPECT_EQ(4, sym->threadsUsed);
  EXPECT_EQ(144, sym->blockSize);
  EXPECT_EQ(144, num->panelWidth);
  checkPlan(p, sym, num);

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
  IntVec leaves;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    // A narrow supernode counts every update on its first entry; a wide one
    // may start on its first diagonal block before its children are done.
    if (hasChild[s] && !laBlockShape(sym, s).wide) {
      EXPECT_GT(sym->blockDepsInit[s][0], 0) << "supernode " << s;
    }
    if (!hasChild[s] || sym->blockDepsInit[s][0] == 0) leaves.push_back(s);
  }
  EXPECT_EQ(leaves, IntVec(sym->leaves, sym->leaves + sym->numLeaves));
  EXPECT_EQ(10000, sym->taskCapacity);
  int32_t slotBase = 0;
  for (int32_t s = 0; s < sym->numSNodes; s++)
    if (laSNodeCols(sym, s) > 144) slotBase = std::max(slotBase, laSNodeRows(sym, s) / 144);
  EXPECT_EQ(slotBase * 4, sym->numSlots);
  LA_CleanUpLDL(env, &sym, &num);
}

TEST_F(LATest, BadPatternsAreRefusedAndOddOnesPlanned) {
  auto run = [&](const Pattern& q, bool check, LAEnv* e = nullptr) {
    int64_t before = live();
    LASymbolic* sym = nullptr;
    LANumeric* num = nullptr;
    int32_t status = analyse(q, &sym, &num, e);
    if (check && status == 0) checkPlan(q, sym, num);
    if (status == 0 && q.n == 0) {
      EXPECT_EQ(0, sym->numSNodes);
      EXPECT_EQ(0, sym->numFactorEntries);
    }
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
  Pattern empty;
  empty.colBegin = {0};
  EXPECT_EQ(0, run(empty, false));

  // A static permutation asked for without the matching code built in.
  if (!FindStaticPermAug || !FindStaticPermGen)
    for (int32_t id : {3, 4}) {
      LAEnv* e = LA_CreateLAEnv(pool, nullptr, nullptr);
      ASSERT_NE(nullptr, e);
      ASSERT_EQ(0, LA_SetIntParam(e, id, 1));
      EXPECT_EQ(2, run(p, false, e));
      LA_FreeLAEnv(&e);
    }
}

// p with entries written again, as the caller may hand them over: a third
// of the off-diagonal entries once or twice more, each in both of its
// columns, and every fifth diagonal; the entries of each column shuffled.
// merged receives the same columns with every repeat after the first
// dropped: the matrix with its repeats merged, entries in the same order.
Pattern withRepeats(const Pattern& p, uint32_t seed, Pattern* merged) {
  std::mt19937 rng(seed);
  std::vector<IntVec> cols(p.n);
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) cols[j].push_back(p.rowIndex[q]);
  for (int32_t j = 0; j < p.n; j++)
    for (int32_t q = p.colBegin[j]; q < p.colBegin[j + 1]; q++) {
      int32_t i = p.rowIndex[q];
      int32_t extra = i > j && rng() % 3 == 0 ? 1 + (int32_t)(rng() % 2) : 0;
      if (i == j && j % 5 == 0) extra = 1;
      for (int32_t e = 0; e < extra; e++) {
        cols[j].push_back(i);
        if (i != j) cols[i].push_back(j);
      }
    }
  Pattern d, m;
  d.n = m.n = p.n;
  d.colBegin.push_back(0);
  m.colBegin.push_back(0);
  std::vector<int32_t> seen(p.n, -1);
  for (int32_t j = 0; j < p.n; j++) {
    std::shuffle(cols[j].begin(), cols[j].end(), rng);
    for (int32_t i : cols[j]) {
      d.rowIndex.push_back(i);
      if (seen[i] != j) m.rowIndex.push_back(i);
      seen[i] = j;
    }
    d.colBegin.push_back((int32_t)d.rowIndex.size());
    m.colBegin.push_back((int32_t)m.rowIndex.size());
  }
  d.value.assign(d.rowIndex.size(), 1.0);
  m.value.assign(m.rowIndex.size(), 1.0);
  *merged = m;
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

TEST_F(LATest, RepeatedEntriesPlanAsTheirMergedMatrix) {
  struct Case {
    const char* name;
    Pattern p;
    int32_t threads, method, constrained;
  };
  std::vector<Case> cases = {
      {"kkt, automatic", kktPattern(80, 40, 2), 1, -1, 0},
      {"random, minimum degree", randomPattern(90, 0.05, 8), 1, 0, 0},
      {"random, nested and constrained", randomPattern(120, 0.04, 11), 1, 2, 1},
      {"kkt, nested and constrained", kktPattern(80, 60, 5), 1, 2, 1},
      {"block arrow, threaded", blockArrow(3, 200, 150), 4, -1, 0},
  };
  uint32_t seed = 100;
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    Pattern merged;
    Pattern dup = withRepeats(c.p, seed++, &merged);
    ASSERT_EQ(c.p.colBegin[c.p.n], merged.colBegin[merged.n]);
    ASSERT_GT(dup.colBegin[dup.n], merged.colBegin[merged.n]);
    LAEnv* e = LA_CreateLAEnv(pool, nullptr, nullptr);
    ASSERT_NE(nullptr, e);
    ASSERT_EQ(0, LA_SetIntParam(e, LA_PARAM_NUM_THREADS, c.threads));
    ASSERT_EQ(0, LA_SetIntParam(e, LA_PARAM_ORDERING_METHOD, c.method));
    ASSERT_EQ(0, LA_SetIntParam(e, LA_PARAM_USE_CONSTRAINED_ORDERING, c.constrained));
    LASymbolic *ms = nullptr, *ds = nullptr;
    LANumeric *mn = nullptr, *dn = nullptr;
    ASSERT_EQ(0, analyse(merged, &ms, &mn, e));
    int32_t status = analyse(dup, &ds, &dn, e);
    EXPECT_EQ(0, status);
    if (status == 0) {
      int32_t n = dup.n, ns = ds->numSNodes;
      EXPECT_EQ(c.threads > 1 ? 1 : 0, ds->threaded);
      const double mine[] = {ms->estFactorEntries, ms->estOperations, (double)ms->numFactorEntries,
                             (double)ms->threaded, (double)ms->blockSize,
                             (double)ms->updateBufferSize, (double)ms->panelBufferSize,
                             (double)ms->numBlocks, (double)ms->numSNodes,
                             (double)ms->numRowEntries};
      const double theirs[] = {ds->estFactorEntries, ds->estOperations,
                               (double)ds->numFactorEntries, (double)ds->threaded,
                               (double)ds->blockSize, (double)ds->updateBufferSize,
                               (double)ds->panelBufferSize, (double)ds->numBlocks,
                               (double)ds->numSNodes, (double)ds->numRowEntries};
      ASSERT_EQ(std::vector<double>(mine, mine + 10), std::vector<double>(theirs, theirs + 10));
      EXPECT_TRUE(std::equal(ms->perm, ms->perm + n, ds->perm));
      EXPECT_TRUE(std::equal(ms->snodeStart, ms->snodeStart + ns + 1, ds->snodeStart));
      EXPECT_TRUE(std::equal(ms->snodeParent, ms->snodeParent + ns, ds->snodeParent));
      EXPECT_TRUE(std::equal(ms->factorBegin, ms->factorBegin + ns + 1, ds->factorBegin));
      EXPECT_TRUE(std::equal(ms->rowList, ms->rowList + ms->numRowEntries, ds->rowList));
      // The copy of the lower triangle keeps every repeat for the factor to
      // add up.
      int64_t repeatsBelow = 0;
      for (const Pattern* q : {&dup, &merged})
        for (int32_t j = 0; j < n; j++)
          for (int32_t k = q->colBegin[j]; k < q->colBegin[j + 1]; k++)
            if (ds->invPerm[q->rowIndex[k]] >= ds->invPerm[j]) repeatsBelow += q == &dup ? 1 : -1;
      EXPECT_GT(repeatsBelow, 0);
      EXPECT_EQ(mn->lowerCopy.numCoef + repeatsBelow, dn->lowerCopy.numCoef);
      if (n <= 200) checkPlan(dup, ds, dn);
    }
    LA_CleanUpLDL(e, &ms, &mn);
    LA_CleanUpLDL(e, &ds, &dn);
    LA_FreeLAEnv(&e);
  }
}

// Every allocation of an analysis refused in turn: status 1, and the
// clean-up gives everything back; on both paths.
TEST_F(LATest, OutOfMemoryAtEachAllocation) {
  for (const Pattern& p : {randomPattern(60, 0.08, 17), blockArrow(2, 180, 120)}) {
    ASSERT_EQ(0, LA_SetIntParam(env, LA_PARAM_NUM_THREADS, p.n > 60 ? 4 : 1));
    hxtest::OomSweep sweep(host);
    sweep.expected = 1;
    hxtest::OomSweep::Result r = sweep.run([&](hxtest::OomProbe& probe) {
      LASymbolic* sym = nullptr;
      LANumeric* num = nullptr;
      int32_t status = analyse(p, &sym, &num);
      probe.disarm();
      LA_CleanUpLDL(env, &sym, &num);
      return status;
    });
    EXPECT_TRUE(r.completed);
    EXPECT_EQ(0, r.finalStatus);
    EXPECT_GT(r.refusedRuns, 5);
  }
}

}  // namespace

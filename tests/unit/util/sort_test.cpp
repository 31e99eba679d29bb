// The sort family against std::sort.  Companions carry the original position
// (and a value derived from it), so a pair torn apart shows up as a key that
// does not match the key it started with.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "util/sort.h"

namespace {

enum class Shape { Random, FewValues, Sorted, Reversed, AllEqual, OrganPipe, SawTooth };

template <class K>
std::vector<K> makeKeys(Shape shape, int32_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<K> v(n);
  for (int32_t i = 0; i < n; i++) {
    switch (shape) {
      case Shape::Random: v[i] = K(int64_t(rng() % 2000000001u) - 1000000000) / K(7); break;
      case Shape::FewValues: v[i] = K(rng() % 5); break;
      case Shape::Sorted: v[i] = K(i / 3); break;
      case Shape::Reversed: v[i] = K(n - i); break;
      case Shape::AllEqual: v[i] = K(42); break;
      case Shape::OrganPipe: v[i] = K(i < n / 2 ? i : n - i); break;
      case Shape::SawTooth: v[i] = K(i % 17); break;
    }
  }
  return v;
}

const Shape kShapes[] = {Shape::Random,   Shape::FewValues, Shape::Sorted,  Shape::Reversed,
                         Shape::AllEqual, Shape::OrganPipe, Shape::SawTooth};
const int32_t kSizes[] = {0, 1, 2, 3, 7, 8, 9, 40, 41, 42, 100, 1000, 65537};

// Sorts keys with a position companion; checks order against std::sort and
// that each key still sits beside the position it came from.
template <class K, bool Desc, class Fn>
void checkWithPositions(Fn sortFn, Shape shape, int32_t n, uint32_t seed) {
  std::vector<K> keys = makeKeys<K>(shape, n, seed), orig = keys, expect = keys;
  if (Desc)
    std::sort(expect.begin(), expect.end(), std::greater<K>());
  else
    std::sort(expect.begin(), expect.end());
  std::vector<int32_t> pos(n);
  for (int32_t i = 0; i < n; i++) pos[i] = i;
  ASSERT_EQ(sortFn(keys.data(), pos.data(), n), 0);
  ASSERT_EQ(keys, expect) << "n=" << n << " shape=" << int(shape);
  std::vector<bool> seen(n, false);
  for (int32_t i = 0; i < n; i++) {
    ASSERT_TRUE(pos[i] >= 0 && pos[i] < n && !seen[pos[i]]);
    seen[pos[i]] = true;
    ASSERT_EQ(orig[pos[i]], keys[i]) << "pair torn apart at " << i;
  }
}

TEST(Sort, KeyOnlySortsMatchStdSort) {
  for (Shape shape : kShapes)
    for (int32_t n : kSizes) {
      std::vector<int32_t> ik = makeKeys<int32_t>(shape, n, 11), ie = ik;
      std::sort(ie.begin(), ie.end());
      EXPECT_EQ(QS_quickSortIntInc(nullptr, ik.data(), n), 0);
      EXPECT_EQ(ik, ie) << "IntInc n=" << n << " shape=" << int(shape);

      std::vector<double> dk = makeKeys<double>(shape, n, 12), de = dk;
      std::sort(de.begin(), de.end());
      EXPECT_EQ(QS_quickSortDblInc(nullptr, dk.data(), n), 0);
      EXPECT_EQ(dk, de) << "DblInc n=" << n << " shape=" << int(shape);

      dk = makeKeys<double>(shape, n, 13);
      de = dk;
      std::sort(de.begin(), de.end(), std::greater<double>());
      EXPECT_EQ(QS_quickSortDblDec(nullptr, dk.data(), n), 0);
      EXPECT_EQ(dk, de) << "DblDec n=" << n << " shape=" << int(shape);
    }
}

TEST(Sort, CompanionsMoveWithTheirKeys) {
  for (Shape shape : kShapes)
    for (int32_t n : kSizes) {
      checkWithPositions<double, false>(
          [](double* k, int32_t* p, int32_t m) { return QS_quickSortDblIntInc(nullptr, k, p, m); },
          shape, n, 21);
      checkWithPositions<double, true>(
          [](double* k, int32_t* p, int32_t m) { return QS_quickSortDblIntDec(nullptr, k, p, m); },
          shape, n, 22);
      checkWithPositions<int32_t, false>(
          [](int32_t* k, int32_t* p, int32_t m) { return QS_quickSortIntIntInc(nullptr, k, p, m); },
          shape, n, 23);
      // Position carried as a double companion.
      checkWithPositions<int32_t, false>(
          [](int32_t* k, int32_t* p, int32_t m) {
            std::vector<double> d(p, p + m);
            int32_t st = QS_quickSortIntDblInc(nullptr, k, d.data(), m);
            for (int32_t i = 0; i < m; i++) p[i] = int32_t(d[i]);
            return st;
          },
          shape, n, 24);
      // Two companions: both must follow, the second a function of the first.
      checkWithPositions<double, true>(
          [](double* k, int32_t* p, int32_t m) {
            std::vector<double> d(m);
            for (int32_t i = 0; i < m; i++) d[i] = 0.5 * p[i];
            int32_t st = QS_quickSortDblIntDblDec(nullptr, k, p, d.data(), m);
            for (int32_t i = 0; i < m; i++)
              if (d[i] != 0.5 * p[i]) return -1;
            return st;
          },
          shape, n, 25);
    }
}

// Sorted input (with ties) and all-equal input must come back untouched:
// with positions as companion, any swap at all would show, even among ties.
TEST(Sort, SortedAndAllEqualInputsAreNotTouched) {
  for (Shape shape : {Shape::Sorted, Shape::AllEqual})
    for (int32_t n : {0, 1, 5, 8, 1000, 1000000}) {
      std::vector<double> k = makeKeys<double>(shape, n, 41), orig = k;
      std::vector<int32_t> pos(n);
      for (int32_t i = 0; i < n; i++) pos[i] = i;
      ASSERT_EQ(QS_quickSortDblIntInc(nullptr, k.data(), pos.data(), n), 0);
      EXPECT_EQ(k, orig);
      for (int32_t i = 0; i < n; i++) ASSERT_EQ(pos[i], i) << "n=" << n;
    }
  // Descending order is the sorted input of the Dec forms.
  std::vector<double> k = makeKeys<double>(Shape::Reversed, 5000, 42);
  std::vector<int32_t> pos(k.size());
  for (size_t i = 0; i < pos.size(); i++) pos[i] = int32_t(i);
  ASSERT_EQ(QS_quickSortDblIntDec(nullptr, k.data(), pos.data(), int32_t(k.size())), 0);
  for (size_t i = 0; i < pos.size(); i++) ASSERT_EQ(pos[i], int32_t(i));
}

// Inputs built to defeat simple pivot rules: an adversary that keeps the
// partition lopsided would overflow the fixed stack or take quadratic time.
TEST(Sort, HostileInputsStillSort) {
  const int32_t n = 200000;
  std::vector<int32_t> k(n), e;
  for (int32_t i = 0; i < n; i++) k[i] = (i % 2) ? n - i : i;  // interleaved ramps
  e = k;
  std::sort(e.begin(), e.end());
  ASSERT_EQ(QS_quickSortIntInc(nullptr, k.data(), n), 0);
  EXPECT_EQ(k, e);
  std::vector<double> d(n);
  for (int32_t i = 0; i < n; i++) d[i] = (i % 1000 == 0) ? -1.0 * i : double(i);  // nearly sorted
  std::vector<double> de = d;
  std::sort(de.begin(), de.end());
  ASSERT_EQ(QS_quickSortDblInc(nullptr, d.data(), n), 0);
  EXPECT_EQ(d, de);
}

}  // namespace

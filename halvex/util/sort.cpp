// One iterative quicksort behind all eight entries.  Ranges wait on a fixed
// stack; the shorter side of each partition goes on at once and the longer
// is pushed, which bounds the stack by log2 of the length, so 64 frames can
// never overflow for a 32-bit count.
#include "util/sort.h"

#include <type_traits>

namespace {

struct None {};

template <class K, class A, class B, bool Desc>
struct Seq {
  K* k;
  A* a;
  B* b;

  // -1 when i comes before j in the sort's order, 1 after, 0 tied.
  int cmp(int32_t i, int32_t j) const {
    if (Desc ? k[i] > k[j] : k[i] < k[j]) return -1;
    if (Desc ? k[j] > k[i] : k[j] < k[i]) return 1;
    return 0;
  }
  void swap(int32_t i, int32_t j) const {
    K t = k[i];
    k[i] = k[j];
    k[j] = t;
    if constexpr (!std::is_same_v<A, None>) {
      A u = a[i];
      a[i] = a[j];
      a[j] = u;
    }
    if constexpr (!std::is_same_v<B, None>) {
      B v = b[i];
      b[i] = b[j];
      b[j] = v;
    }
  }
  void swapBlock(int32_t i, int32_t j, int32_t len) const {
    for (int32_t t = 0; t < len; t++) swap(i + t, j + t);
  }
  int32_t median(int32_t x, int32_t y, int32_t z) const {
    if (cmp(x, y) < 0) {
      if (cmp(y, z) < 0) return y;
      return cmp(x, z) < 0 ? z : x;
    }
    if (cmp(y, z) > 0) return y;
    return cmp(x, z) > 0 ? z : x;
  }
  // Insertion sort that gives up after `budget` swaps; true when finished.
  // The swap that spends the budget is kept, so the range stays a
  // permutation of itself either way.
  bool insertion(int32_t first, int32_t n, int32_t budget) const {
    for (int32_t i = first + 1; i < first + n; i++)
      for (int32_t j = i; j > first && cmp(j, j - 1) < 0; j--) {
        swap(j, j - 1);
        if (--budget == 0) return false;
      }
    return true;
  }
};

enum : int32_t { kExchanged = 0, kStart = 1, kTryInsertion = 2 };
const int32_t kSmall = 8;
const int32_t kSmallBudget = 64;  // 7 elements need at most 21 swaps
const int32_t kNinther = 41;

struct Range {
  int32_t first, n, flag;
};

template <class K, class A, class B, bool Desc>
void quickSort(K* key, A* a, B* b, int32_t length) {
  const Seq<K, A, B, Desc> s{key, a, b};
  Range stack[64];
  int32_t top = 0;
  Range cur{0, length, kStart};
  for (;;) {
    bool done = cur.n < 2;
    if (!done) {
      if (cur.n < kSmall)
        done = s.insertion(cur.first, cur.n, kSmallBudget);
      else if (cur.flag == kStart)
        done = s.insertion(cur.first, cur.n, 1);
      else if (cur.flag == kTryInsertion)
        done = s.insertion(cur.first, cur.n, cur.n);
    }
    if (!done) {
      const int32_t first = cur.first, n = cur.n, last = first + n - 1, mid = first + n / 2;
      int32_t pivot;
      if (n < kNinther) {
        pivot = s.median(first, mid, last);
      } else {
        const int32_t d = n / 8;
        pivot = s.median(s.median(first, first + d, first + 2 * d), s.median(mid - d, mid, mid + d),
                         s.median(last - 2 * d, last - d, last));
      }
      s.swap(first, pivot);
      int32_t flag = kTryInsertion;
      // Ties with the pivot collect at both ends: [first, pa) and (pd, last].
      int32_t pa = first + 1, pb = first + 1, pc = last, pd = last;
      for (;;) {
        while (pb <= pc) {
          int c = s.cmp(pb, first);
          if (c > 0) break;
          if (c == 0) s.swap(pa++, pb);
          pb++;
        }
        while (pc >= pb) {
          int c = s.cmp(pc, first);
          if (c < 0) break;
          if (c == 0) s.swap(pc, pd--);
          pc--;
        }
        if (pb > pc) break;
        s.swap(pb++, pc--);
        flag = kExchanged;
      }
      int32_t len = pa - first < pb - pa ? pa - first : pb - pa;
      s.swapBlock(first, pb - len, len);
      len = pd - pc < last - pd ? pd - pc : last - pd;
      s.swapBlock(pb, last + 1 - len, len);
      Range less{first, pb - pa, flag};
      Range greater{last + 1 - (pd - pc), pd - pc, flag};
      Range& shorter = less.n < greater.n ? less : greater;
      Range& longer = less.n < greater.n ? greater : less;
      if (longer.n > 1) stack[top++] = longer;
      cur = shorter;
      continue;
    }
    if (top == 0) break;
    cur = stack[--top];
  }
}

}  // namespace

int32_t QS_quickSortIntInc(HalvexEnv*, int32_t* key, int32_t n) {
  quickSort<int32_t, None, None, false>(key, nullptr, nullptr, n);
  return 0;
}
int32_t QS_quickSortDblInc(HalvexEnv*, double* key, int32_t n) {
  quickSort<double, None, None, false>(key, nullptr, nullptr, n);
  return 0;
}
int32_t QS_quickSortDblDec(HalvexEnv*, double* key, int32_t n) {
  quickSort<double, None, None, true>(key, nullptr, nullptr, n);
  return 0;
}
int32_t QS_quickSortIntDblInc(HalvexEnv*, int32_t* key, double* comp, int32_t n) {
  quickSort<int32_t, double, None, false>(key, comp, nullptr, n);
  return 0;
}
int32_t QS_quickSortDblIntInc(HalvexEnv*, double* key, int32_t* comp, int32_t n) {
  quickSort<double, int32_t, None, false>(key, comp, nullptr, n);
  return 0;
}
int32_t QS_quickSortDblIntDec(HalvexEnv*, double* key, int32_t* comp, int32_t n) {
  quickSort<double, int32_t, None, true>(key, comp, nullptr, n);
  return 0;
}
int32_t QS_quickSortIntIntInc(HalvexEnv*, int32_t* key, int32_t* comp, int32_t n) {
  quickSort<int32_t, int32_t, None, false>(key, comp, nullptr, n);
  return 0;
}
int32_t QS_quickSortDblIntDblDec(HalvexEnv*, double* key, int32_t* comp1, double* comp2,
                                 int32_t n) {
  quickSort<double, int32_t, double, true>(key, comp1, comp2, n);
  return 0;
}

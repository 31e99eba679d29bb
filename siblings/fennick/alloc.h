// Every allocation of fennick's containers, and every call into KLU that
// allocates, passes one point that can be told to fail at its k-th call.
// A refusal throws std::bad_alloc, which the run operation turns into its
// out-of-memory status with the interior point left in place; RAII gives
// back what was taken.  Without a refusal armed the point only counts.
#ifndef HALVEX_SIBLINGS_FENNICK_ALLOC_H
#define HALVEX_SIBLINGS_FENNICK_ALLOC_H

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <new>
#include <vector>

namespace fennick {

// Per thread: the allocation count since the last arm, and the index of the
// one to refuse (-1: none).
struct AllocProbe {
  int64_t count = 0;
  int64_t failAt = -1;
};
AllocProbe& allocProbe();

// Refuse the k-th allocation from now on (0 the next), -1 to stop refusing.
void failAllocation(int64_t k);
int64_t allocationCount();

// The same seam for the clock: its k-th reading from now on (0 the next)
// and every later one find the time limit passed, -1 none.  Lets a test stop
// a run midway where a real time limit would land anywhere.
void expireClockAt(int64_t k);
bool clockExpired();

// Throws std::bad_alloc where the probe says so.
inline void allocationPoint() {
  AllocProbe& p = allocProbe();
  if (p.count++ == p.failAt) throw std::bad_alloc();
}

template <typename T>
struct Alloc {
  using value_type = T;
  Alloc() = default;
  template <typename U>
  Alloc(const Alloc<U>&) {}
  T* allocate(size_t n) {
    allocationPoint();
    return std::allocator<T>().allocate(n);
  }
  void deallocate(T* p, size_t n) { std::allocator<T>().deallocate(p, n); }
  template <typename U>
  bool operator==(const Alloc<U>&) const { return true; }
  template <typename U>
  bool operator!=(const Alloc<U>&) const { return false; }
};

template <typename T>
using Vec = std::vector<T, Alloc<T>>;

}  // namespace fennick

#endif

#include "frame/qv.h"

#include <math.h>

QVKernel* Exported_QVHandle = nullptr;

static inline volatile int64_t* asCell(volatile int64_t* cell) { return cell; }

int64_t qvAtomicInit(volatile int64_t* cell, int64_t value) {
  *asCell(cell) = value;
  return 0;
}

void qvAtomicDestroy(volatile int64_t* cell) { *asCell(cell) = 0; }

bool qvAtomicSet(volatile int64_t* cell, int64_t expected, int64_t desired) {
  return __atomic_compare_exchange_n(cell, &expected, desired, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

int64_t qvAtomicAdd(volatile int64_t* cell, int64_t delta) {
  return __atomic_add_fetch(cell, delta, __ATOMIC_SEQ_CST);
}

// And/or go through a compare-and-swap loop rather than the fetch-and-op
// builtins so that every member of the family has the same retry semantics.
int64_t qvAtomicAnd(volatile int64_t* cell, int64_t mask) {
  int64_t old = __atomic_load_n(cell, __ATOMIC_SEQ_CST);
  while (!__atomic_compare_exchange_n(cell, &old, old & mask, false, __ATOMIC_SEQ_CST,
                                      __ATOMIC_SEQ_CST)) {
  }
  return old & mask;
}

int64_t qvAtomicOr(volatile int64_t* cell, int64_t mask) {
  int64_t old = __atomic_load_n(cell, __ATOMIC_SEQ_CST);
  while (!__atomic_compare_exchange_n(cell, &old, old | mask, false, __ATOMIC_SEQ_CST,
                                      __ATOMIC_SEQ_CST)) {
  }
  return old | mask;
}

static inline void** linkOf(void* node, int64_t offset) {
  return reinterpret_cast<void**>(static_cast<char*>(node) + offset);
}

void* qvAStackPush(volatile int64_t* head, void* node, int64_t linkOffset) {
  for (;;) {
    int64_t old = __atomic_load_n(head, __ATOMIC_SEQ_CST) & ~(int64_t)1;
    *linkOf(node, linkOffset) = reinterpret_cast<void*>(old);
    // A busy head has its low bit set, so this swap fails and we spin.
    if (qvAtomicSet(head, old, reinterpret_cast<int64_t>(node))) return reinterpret_cast<void*>(old);
  }
}

void* qvAStackPop(volatile int64_t* head, int64_t linkOffset) {
  for (;;) {
    int64_t old = __atomic_load_n(head, __ATOMIC_SEQ_CST) & ~(int64_t)1;
    if (old == 0) return nullptr;
    if (!qvAtomicSet(head, old, old | 1)) continue;
    // The mark is ours: no other popper reads this link, no pusher swaps.
    void* next = *linkOf(reinterpret_cast<void*>(old), linkOffset);
    __atomic_store_n(head, reinterpret_cast<int64_t>(next), __ATOMIC_SEQ_CST);
    return reinterpret_cast<void*>(old);
  }
}

int64_t qvWait(void* thread, int64_t count, void** objects, int64_t* timeouts, uint8_t waitAll,
               int32_t last) {
  QVKernel* kernel = Exported_QVHandle;
  if (thread == nullptr || thread == kernel) {
    thread = nullptr;
    if (kernel) {
      thread = kernel->currentThread(kernel);
      if (thread == nullptr) thread = kernel->mainThread;
    }
    if (thread == nullptr) return QV_NO_THREAD;
  }
  QVThread* t = static_cast<QVThread*>(thread);
  return t->wait(t, count, objects, timeouts, waitAll, last);
}

double qvzdtgmt(double* aux) {
  double clock[2] = {0.0, 0.0};
  Exported_QVHandle->queryClock(QV_CLOCK_SELECTOR, clock, QV_CLOCK_CODE);
  if (aux) *aux = -clock[1];
  return clock[0];
}

int32_t qvRand(int32_t* seed) {
  while (*seed == 0) *seed = (int32_t)(int64_t)trunc(qvzdtgmt(nullptr) * 100.0);
  int64_t p = (int64_t)*seed * 397204094LL;
  // Unsigned, so that a sum just above the modulus folds instead of turning
  // negative.
  uint32_t r = (uint32_t)((p >> 31) + (p & 0x7FFFFFFF));
  if (r >= 0x7FFFFFFFu) r -= 0x7FFFFFFFu;
  *seed = (int32_t)r;
  return (int32_t)r;
}

QVModule* qvLoadModule(const char* name) {
  uint32_t wide[64];
  int64_t length = 0;
  while (name[length] && length < 63) {
    wide[length] = (uint32_t)(unsigned char)name[length];
    ++length;
  }
  wide[length] = 0;
  QVKernel* kernel = Exported_QVHandle;
  if (!kernel || !kernel->loadModule) return nullptr;
  return kernel->loadModule(kernel, wide, length, 0);
}

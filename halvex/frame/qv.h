// The module's glue over the host kernel: the one global table reference,
// pool access, atomics, the lock-free stack, waits, the clock and qvRand.
#ifndef HALVEX_FRAME_QV_H
#define HALVEX_FRAME_QV_H

#include <stdint.h>

#include "frame/qvkernel.h"

#define HALVEX_EXPORT extern "C" __attribute__((visibility("default")))

// Written once by qvextent, before any other call into the module.
extern QVKernel* Exported_QVHandle;

// Pool access.  Callers test the result for null themselves.
inline void* poolAlloc(QVPool* pool, int64_t size, uint32_t flags) {
  return pool->poolAlloc(pool, size, flags);
}
inline void poolFree(QVPool* pool, void* block) { pool->poolFree(pool, block); }
inline void* poolRealloc(QVPool* pool, void* block, int64_t size, uint32_t flags) {
  return pool->poolRealloc(pool, block, size, flags);
}
inline void poolDestroy(QVPool* pool) { pool->poolDestroy(pool); }

// Typed helpers: count elements, zero-filled or not.
template <typename T>
inline T* poolNew(QVPool* pool, int64_t count, bool zero = true) {
  if (count < 0) return nullptr;
  return static_cast<T*>(poolAlloc(pool, count * (int64_t)sizeof(T), zero ? POOL_ZERO : 0u));
}
// Frees a block if there is one and clears the caller's reference.
template <typename T>
inline void poolRelease(QVPool* pool, T*& block) {
  if (block) poolFree(pool, (void*)block);
  block = nullptr;
}

// Atomic cells of 64 bits, sequentially consistent.
int64_t qvAtomicInit(volatile int64_t* cell, int64_t value);
void qvAtomicDestroy(volatile int64_t* cell);
bool qvAtomicSet(volatile int64_t* cell, int64_t expected, int64_t desired);
int64_t qvAtomicAdd(volatile int64_t* cell, int64_t delta);
int64_t qvAtomicAnd(volatile int64_t* cell, int64_t mask);
int64_t qvAtomicOr(volatile int64_t* cell, int64_t mask);

// Lock-free stack: head holds the top node's address, its lowest bit is the
// busy mark; the link lies at linkOffset bytes inside each node.
void* qvAStackPush(volatile int64_t* head, void* node, int64_t linkOffset);
void* qvAStackPop(volatile int64_t* head, int64_t linkOffset);

int64_t qvWait(void* thread, int64_t count, void** objects, int64_t* timeouts, uint8_t waitAll,
               int32_t last);

// GMT date-time in seconds; the clock's second value, negated, goes to *aux.
double qvzdtgmt(double* aux);

// Lehmer generator, modulus 2^31-1, multiplier 397204094; the seed is the
// caller's own state.
int32_t qvRand(int32_t* seed);

// Loads a sibling module by its (ASCII) name through the kernel.
QVModule* qvLoadModule(const char* name);

#endif

// The host kernel's table of operations and the objects it hands out.
//
// The kernel is an outside program: every table here is exchanged by
// position, each slot 8 bytes wide, so the structs below are layouts, not
// abstractions.  A host written in C from these tables alone must be able to
// drive the module, which is why the header is plain C-compatible data and
// every slot position is pinned by a static_assert.
#ifndef HALVEX_FRAME_QVKERNEL_H
#define HALVEX_FRAME_QVKERNEL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Pool allocation flag: the block comes back zero-filled.
#define POOL_ZERO 0x80000000u

// Kernel code returned by qvWait when there is no thread to wait on.
#define QV_NO_THREAD ((int64_t)(int32_t)0x803FC009)

// Selector and code that queryClock is called with for the GMT date-time.
#define QV_CLOCK_SELECTOR 0x10
#define QV_CLOCK_CODE 0x11800000

// ---- objects handed out by the kernel -------------------------------------

typedef struct QVPool QVPool;
typedef void (*QVPoolDestroyFn)(QVPool* pool);
typedef void* (*QVPoolAllocFn)(QVPool* pool, int64_t size, uint32_t flags);
typedef void (*QVPoolFreeFn)(QVPool* pool, void* block);
typedef void* (*QVPoolReallocFn)(QVPool* pool, void* block, int64_t size, uint32_t flags);

// A pool; the kernel keeps its own data behind these six slots.
struct QVPool {
  void* hostSlot[2];
  QVPoolDestroyFn poolDestroy;  // 2
  QVPoolAllocFn poolAlloc;      // 3
  QVPoolFreeFn poolFree;        // 4
  QVPoolReallocFn poolRealloc;  // 5
};

// Threads, events and locks share slot 2, their destroy operation.
typedef void (*QVDestroyFn)(void* object);
typedef int64_t (*QVThreadWaitFn)(void* thread, int64_t count, void** objects,
                                  int64_t* timeouts, uint8_t waitAll, int32_t last);
typedef int64_t (*QVLockFn)(void* lock, int64_t a, int64_t b);
typedef int64_t (*QVUnlockFn)(void* lock);

typedef struct QVThread {
  void* hostSlot[2];
  QVDestroyFn destroy;      // 2
  void* hostSlot3[11];
  QVThreadWaitFn wait;      // 14
} QVThread;

typedef struct QVEvent {
  void* hostSlot[2];
  QVDestroyFn destroy;  // 2
} QVEvent;

typedef struct QVLock {
  void* hostSlot[2];
  QVDestroyFn destroy;  // 2
  QVLockFn lock;        // 3: called as (lock, 1, 1)
  QVUnlockFn unlock;    // 4
} QVLock;

// Body of a kernel thread: slot 0 of the createThread attribute block.
typedef int64_t (*QVThreadMain)(void* argument);

// Attribute block of createThread, 10 slots.
typedef struct QVThreadAttr {
  QVThreadMain function;  // 0
  void* zero1[2];
  void* argument;         // 3
  void* zero4;
  QVEvent* endEvent;      // 5: signalled by the kernel when the thread ends
  void* zero6[4];
} QVThreadAttr;

// A loaded module.  halvex's own extension object has this shape too.
typedef struct QVModule QVModule;
typedef void (*QVModuleUnloadFn)(QVModule* module);
typedef void* (*QVModuleCreateInstanceFn)(QVModule* module);
struct QVModule {
  void* hostSlot[2];
  QVModuleUnloadFn moduleUnload;                  // 2
  void* moduleSlot3[7];
  QVModuleCreateInstanceFn moduleCreateInstance;  // 10
};

// ---- the kernel table ------------------------------------------------------

typedef struct QVKernel QVKernel;
typedef void* (*QVCreateEventFn)(QVKernel* k, void* attr4, int64_t zero, const char* name);
typedef void* (*QVCreateMutexFn)(QVKernel* k, void* attr3, int64_t zero, const char* name);
typedef QVPool* (*QVCreatePoolFn)(QVKernel* k, void* attr3, QVPool* parent, const char* name);
typedef QVModule* (*QVLoadModuleFn)(QVKernel* k, const uint32_t* wideName, int64_t length,
                                    int64_t zero);
typedef void* (*QVCreateThreadFn)(QVKernel* k, QVThreadAttr* attr, int64_t zero,
                                  const char* name);
typedef void* (*QVCurrentThreadFn)(QVKernel* k);
// Called without the table: (QV_CLOCK_SELECTOR, out[2], QV_CLOCK_CODE).
typedef int64_t (*QVQueryClockFn)(int64_t selector, double* out, int64_t code);

struct QVKernel {
  void* hostSlot0[2];
  QVCreateEventFn createEvent;      // 2
  QVCreateMutexFn createMutex;      // 3
  void* hostSlot4[2];
  QVCreatePoolFn createPool;        // 6
  void* hostSlot7[2];
  QVLoadModuleFn loadModule;        // 9
  QVCreateThreadFn createThread;    // 10
  QVCurrentThreadFn currentThread;  // 11
  void* hostSlot12[21];
  QVQueryClockFn queryClock;        // 33
  void* hostSlot34[146];
  void* mainThread;                 // 180: a data field, not an operation
  void* hostSlot181[11];
};

// ---- chronis, the CPU-time sibling ----------------------------------------

// A CPU-time reading: whole seconds and microseconds of process CPU time.
typedef struct ChronisCpu {
  int64_t seconds;
  int64_t microseconds;
} ChronisCpu;

// A sample: a general part (wall clock) and behind it the CPU part.
typedef struct ChronisSample {
  int64_t wallSeconds;
  int64_t wallMicroseconds;
  ChronisCpu cpu;
} ChronisSample;

// Result of the difference operation; the caller clears it first.
typedef struct ChronisDiff {
  uint32_t seconds;
  uint32_t microseconds;
} ChronisDiff;

typedef struct ChronisModule ChronisModule;
typedef void (*ChronisCloseFn)(ChronisModule* module);
typedef int64_t (*ChronisSampleFn)(ChronisModule* module, ChronisSample* out);
typedef int64_t (*ChronisCpuDiffFn)(ChronisModule* module, const ChronisCpu* later,
                                    const ChronisCpu* earlier, ChronisDiff* out);

// The module object that loadModule returns for "chronis": its three
// operations follow one another from the module's unload slot on.
struct ChronisModule {
  void* hostSlot[2];
  ChronisCloseFn close;         // 2 (the module's moduleUnload)
  ChronisSampleFn sample;       // 3
  ChronisCpuDiffFn cpuDiff;     // 4
};

#ifdef __cplusplus
}  // extern "C"

#define QV_SLOT(type, field, slot) \
  static_assert(offsetof(type, field) == (slot) * 8, #type "." #field " must sit in slot " #slot)
QV_SLOT(QVPool, poolDestroy, 2);
QV_SLOT(QVPool, poolAlloc, 3);
QV_SLOT(QVPool, poolFree, 4);
QV_SLOT(QVPool, poolRealloc, 5);
QV_SLOT(QVThread, destroy, 2);
QV_SLOT(QVThread, wait, 14);
QV_SLOT(QVEvent, destroy, 2);
QV_SLOT(QVLock, destroy, 2);
QV_SLOT(QVLock, lock, 3);
QV_SLOT(QVLock, unlock, 4);
QV_SLOT(QVThreadAttr, function, 0);
QV_SLOT(QVThreadAttr, argument, 3);
QV_SLOT(QVThreadAttr, endEvent, 5);
static_assert(sizeof(QVThreadAttr) == 10 * 8, "thread attribute block is 10 slots");
QV_SLOT(QVModule, moduleUnload, 2);
QV_SLOT(QVModule, moduleCreateInstance, 10);
QV_SLOT(QVKernel, createEvent, 2);
QV_SLOT(QVKernel, createMutex, 3);
QV_SLOT(QVKernel, createPool, 6);
QV_SLOT(QVKernel, loadModule, 9);
QV_SLOT(QVKernel, createThread, 10);
QV_SLOT(QVKernel, currentThread, 11);
QV_SLOT(QVKernel, queryClock, 33);
QV_SLOT(QVKernel, mainThread, 180);
QV_SLOT(ChronisModule, close, 2);
QV_SLOT(ChronisModule, sample, 3);
QV_SLOT(ChronisModule, cpuDiff, 4);
static_assert(sizeof(ChronisSample) == 32, "chronis sample is 4 words");
static_assert(offsetof(ChronisSample, cpu) == 16, "CPU part lies behind the general part");
#endif

#endif

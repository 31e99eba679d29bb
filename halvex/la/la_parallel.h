// The threaded numeric LDL': records of its scheduler and the steps that
// the tests reach directly.
#ifndef HALVEX_LA_LA_PARALLEL_H
#define HALVEX_LA_LA_PARALLEL_H

#include <stdint.h>

#include "la/la_numeric_internal.h"

// One unit of work.  type 0 factors the diagonal of column block colBlock;
// 1 solves block (rowBlock, colBlock) against it; 2 updates block
// (rowBlock, otherBlock) of the same supernode from two solved blocks of
// colBlock; 3 updates other supernodes from such a pair.
struct LATaskRecord {
  int32_t type;
  int32_t snode;
  int32_t slot;
  int32_t rowBlock;
  int32_t colBlock;
  int32_t otherBlock;
};
static_assert(sizeof(LATaskRecord) == 24, "LATaskRecord layout");

// Four stacks of records, one per type, over one pool of records.
struct LATaskQueue {
  LATaskRecord* tasks;
  int32_t* next;     // links, in the same allocation behind tasks
  QVLock* lock;      // guards every field
  int32_t head[4];   // -1 when empty
  int32_t freeHead;
  int32_t capacity;
  int32_t failed;    // non-zero stops every thread; the status of the run
  QVPool* pool;
  int32_t queued;    // records on the four stacks, for a look without the lock
};

// The slots of one run: the analysis's pool, then chunks added when it runs
// out.  Flags are read and written under slotLock only; data of a slot
// handed out never moves.
#define LA_MAX_SLOT_CHUNKS 24
struct LASlotSpace {
  QVPool* pool;
  double* base;
  int32_t baseSlots;
  int32_t total;
  int32_t* inUse;
  int32_t* refCount;
  int32_t* ownFlags;  // the run's own flag block once grown, else null
  int32_t numChunks;
  double* chunk[LA_MAX_SLOT_CHUNKS];
  int32_t chunkStart[LA_MAX_SLOT_CHUNKS];
  int32_t chunkEnd[LA_MAX_SLOT_CHUNKS];
};

struct LAThreadContext {
  int32_t numLeaves;
  int32_t threadsUsed;
  int32_t numSNodes;
  int32_t numPerturbed;     // this thread's replaced pivots
  volatile int64_t* done;   // supernodes whose last column block has begun
  int32_t** blockDeps;
  int32_t* leaves;
  double* work;             // this thread's slice: U, then W, then relIndex
  LASymbolic* sym;
  int32_t* relIndex;
  LATaskQueue* queue;
  QVLock* idleLock;
  QVLock* leafLock;
  QVLock* slotLock;
  QVLock*** blockLocks;
  double* packBuffer;
  double* panelBuffer;
  // Views into work and the shared state of the run.
  double* U;
  double* W;
  int32_t relEntries;
  int64_t updateDoubles;    // size of U
  int32_t* nextLeaf;
  volatile int64_t* busy;   // threads inside a task; all idle with work left is a bad count
  LASlotSpace* slots;
};

// Returns 0, 1 when memory (the queue's growth, a slot) ran out, 2 when a
// wait failed or the counts of the analysis do not match the walk.
int32_t NumericLDLParallel(LAEnv* env, LASymbolic* sym, LANumeric* num);

struct LAPopulateRange {
  int32_t first;
  int32_t end;
  LASymbolic* sym;
  LANumeric* num;
  int32_t* work;  // n entries
};
int32_t PopulateSNodes(LAPopulateRange* range);

void ConvertRowToColumnWise(int32_t triangular, int32_t rows, int32_t cols, const double* source,
                            double* target);
int32_t ApplyUpdatesBlock(int32_t consecutive, int32_t diagonal, int32_t n1, int32_t n2,
                          int32_t sourceOffset, int32_t targetWidth, int32_t firstPos,
                          int32_t sourceStride, const int32_t* pos1, const int32_t* pos2,
                          double* target, const double* source, QVLock* lock);
// The loop of one thread; its result is not read.
int64_t ProcessTask(LAThreadContext* ctx);
// Handlers that may leave a follow-up task in the running record.
int32_t SolveTask(LATaskRecord* run, LAThreadContext* ctx);
int32_t UpdateInternalTask(LATaskRecord* run, LAThreadContext* ctx);
int32_t ApplyUpdatesBig(LAThreadContext* ctx, int64_t colBeg, int64_t colEnd, int64_t rowBeg,
                        int64_t rowEnd, const double* U);
int32_t ApplyUpdatesSmall(LAThreadContext* ctx, int32_t s);

// Pivot counts by sign and the ratio of the smallest to the largest pivot,
// over either storage of the factor.
void laCollectInertia(LAEnv* env, const LASymbolic* sym, int32_t nb);

#endif

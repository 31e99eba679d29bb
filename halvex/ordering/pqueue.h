// Small tools of the ordering and matching code: the integer-gain max queue
// of the refinement passes, the double-key min heap of the matching code, a
// pair sort and a few array routines.
#ifndef HALVEX_ORDERING_PQUEUE_H
#define HALVEX_ORDERING_PQUEUE_H

#include <stdint.h>

#include "ordering/ordering.h"

enum { PQUEUE_BUCKET = 1, PQUEUE_HEAP = 2 };

// Node i belongs to element i for the queue's whole life.
struct PQueueNode {
  int32_t element;
  PQueueNode* prev;
  PQueueNode* next;
};
static_assert(sizeof(PQueueNode) == 6 * sizeof(int32_t), "a node takes six ints of workspace");

struct PQueueHeapEntry {
  int32_t gain;
  int32_t element;
};

struct PQueueMax {
  int32_t form;             // PQUEUE_BUCKET or PQUEUE_HEAP
  int32_t count;
  int32_t maxNodes;
  int32_t heapAllocated;    // bucket form: 1 storage from the pool, 0 from the stack
  int32_t positiveSpan;
  int32_t negativeSpan;
  int32_t topBucket;        // -negativeSpan when empty
  PQueueNode* nodes;
  PQueueNode** buckets;     // points at the middle: buckets[gain], |gain| <= span
  PQueueHeapEntry* heap;
  int32_t* locator;         // element to heap position, -1 when absent
};

struct PQueueMinEntry {
  double key;
  int32_t element;
};
static_assert(sizeof(PQueueMinEntry) == 16, "16 bytes per heap entry");

struct PQueueMin {
  int32_t count;
  int32_t maxNodes;
  PQueueMinEntry* heap;
  int32_t* locator;         // the caller's, element to heap position, -1 when absent
};

struct IKeyValue {
  int32_t key;
  int32_t value;
};

int32_t PQueueMaxInit(OrderingControl* control, PQueueMax* queue, int32_t maxNodes,
                      int32_t maxGain);
void PQueueMaxReset(PQueueMax* queue);
void PQueueMaxFree(OrderingControl* control, PQueueMax* queue);
void PQueueMaxInsert(PQueueMax* queue, int32_t element, int32_t gain);
// gain must be the element's gain in the queue.
void PQueueMaxDelete(PQueueMax* queue, int32_t element, int32_t gain);
void PQueueMaxUpdate(PQueueMax* queue, int32_t element, int32_t oldGain, int32_t newGain);
// newGain must not be below oldGain.
void PQueueMaxUpdateUp(PQueueMax* queue, int32_t element, int32_t oldGain, int32_t newGain);
int32_t PQueueMaxGetMax(PQueueMax* queue);
int32_t PQueueMaxSeeMax(const PQueueMax* queue);

int32_t PQueueMinInit(QVPool* pool, PQueueMin* queue, int32_t maxNodes, int32_t* locator);
void PQueueMinReset(PQueueMin* queue);
void PQueueMinFree(QVPool* pool, PQueueMin* queue);
void PQueueMinInsert(double key, PQueueMin* queue, int32_t element);
void PQueueMinExtractMin(PQueueMin* queue);
void PQueueMinDecreaseKey(double key, PQueueMin* queue, int32_t element);
PQueueMinEntry PQueueMinSeeMin(const PQueueMin* queue);

void ikeysort(int32_t n, IKeyValue* pairs);
int32_t* intSet(int32_t n, int32_t value, int32_t* array);
int64_t sumInt(int32_t n, const int32_t* array);
int32_t maxIndex(int32_t n, const int32_t* array);
// A cheap scramble of the identity, driven by control's seed.
void RandomPermute(int32_t n, int32_t* p, OrderingControl* control);

#endif

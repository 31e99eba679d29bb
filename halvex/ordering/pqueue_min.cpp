// The min heap on double keys of the matching code.  The locator belongs to
// the caller, who can then tell whether an element is queued without asking
// the queue; the heap itself comes from the pool.
#include "frame/qv.h"
#include "ordering/pqueue.h"

namespace {

void minSiftUp(PQueueMin* q, int32_t i, PQueueMinEntry e) {
  while (i > 0) {
    int32_t parent = (i - 1) / 2;
    if (q->heap[parent].key <= e.key) break;
    q->heap[i] = q->heap[parent];
    q->locator[q->heap[i].element] = i;
    i = parent;
  }
  q->heap[i] = e;
  q->locator[e.element] = i;
}

}  // namespace

int32_t PQueueMinInit(QVPool* pool, PQueueMin* queue, int32_t maxNodes, int32_t* locator) {
  queue->count = 0;
  queue->maxNodes = 0;
  queue->locator = locator;
  queue->heap = nullptr;
  if (maxNodes < 0) return ORDERING_SIZE;
  queue->heap = static_cast<PQueueMinEntry*>(
      poolAlloc(pool, sizeof(PQueueMinEntry) * (int64_t)(maxNodes > 0 ? maxNodes : 1), 0));
  if (!queue->heap) return ORDERING_NOMEM;
  queue->maxNodes = maxNodes;
  return ORDERING_OK;
}

void PQueueMinReset(PQueueMin* queue) {
  for (int32_t i = 0; i < queue->count; i++) queue->locator[queue->heap[i].element] = -1;
  queue->count = 0;
}

void PQueueMinFree(QVPool* pool, PQueueMin* queue) {
  if (queue->heap) poolFree(pool, queue->heap);
  queue->heap = nullptr;
  queue->maxNodes = 0;
  queue->count = 0;
}

void PQueueMinInsert(double key, PQueueMin* queue, int32_t element) {
  int32_t i = queue->count++;
  minSiftUp(queue, i, PQueueMinEntry{key, element});
}

void PQueueMinExtractMin(PQueueMin* queue) {
  if (queue->count == 0) return;
  int32_t n = --queue->count;
  if (n == 0) return;
  PQueueMinEntry e = queue->heap[n];
  int32_t i = 0;
  for (;;) {
    int32_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && queue->heap[child + 1].key < queue->heap[child].key) child++;
    if (e.key <= queue->heap[child].key) break;
    queue->heap[i] = queue->heap[child];
    queue->locator[queue->heap[i].element] = i;
    i = child;
  }
  queue->heap[i] = e;
  queue->locator[e.element] = i;
}

void PQueueMinDecreaseKey(double key, PQueueMin* queue, int32_t element) {
  minSiftUp(queue, queue->locator[element], PQueueMinEntry{key, element});
}

PQueueMinEntry PQueueMinSeeMin(const PQueueMin* queue) { return queue->heap[0]; }

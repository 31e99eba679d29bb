// The gain queue of the refinement passes in its bucket and heap forms, the
// pair sort and the array helpers of the ordering code.
#include "ordering/pqueue.h"

#include "frame/qv.h"

namespace {

inline QVPool* controlPool(OrderingControl* control) {
  return *reinterpret_cast<QVPool**>(control->env);
}

// ---- heap form of the max queue ------------------------------------------------

void heapSiftUp(PQueueMax* q, int32_t i, PQueueHeapEntry e) {
  while (i > 0) {
    int32_t parent = (i - 1) / 2;
    if (q->heap[parent].gain >= e.gain) break;
    q->heap[i] = q->heap[parent];
    q->locator[q->heap[i].element] = i;
    i = parent;
  }
  q->heap[i] = e;
  q->locator[e.element] = i;
}

void heapSiftDown(PQueueMax* q, int32_t i, PQueueHeapEntry e) {
  int32_t n = q->count;
  for (;;) {
    int32_t child = 2 * i + 1;
    if (child >= n) break;
    if (child + 1 < n && q->heap[child + 1].gain > q->heap[child].gain) child++;
    if (q->heap[child].gain <= e.gain) break;
    q->heap[i] = q->heap[child];
    q->locator[q->heap[i].element] = i;
    i = child;
  }
  q->heap[i] = e;
  q->locator[e.element] = i;
}

// ---- bucket form -----------------------------------------------------------------

void bucketLinkFront(PQueueMax* q, int32_t element, int32_t gain) {
  PQueueNode* node = q->nodes + element;
  PQueueNode* head = q->buckets[gain];
  node->prev = nullptr;
  node->next = head;
  if (head) head->prev = node;
  q->buckets[gain] = node;
}

void bucketUnlink(PQueueMax* q, int32_t element, int32_t gain) {
  PQueueNode* node = q->nodes + element;
  if (node->prev)
    node->prev->next = node->next;
  else
    q->buckets[gain] = node->next;
  if (node->next) node->next->prev = node->prev;
}

// After a bucket at gain emptied: the top walks down to the next nonempty one.
void bucketLowerTop(PQueueMax* q, int32_t gain) {
  if (q->buckets[gain] || gain != q->topBucket) return;
  if (q->count == 0) {
    q->topBucket = -q->negativeSpan;
    return;
  }
  int32_t top = q->topBucket;
  while (top > -q->negativeSpan && !q->buckets[top]) top--;
  q->topBucket = top;
}

}  // namespace

int32_t PQueueMaxInit(OrderingControl* control, PQueueMax* queue, int32_t maxNodes,
                      int32_t maxGain) {
  queue->count = 0;
  queue->maxNodes = maxNodes;
  queue->heapAllocated = 0;
  queue->nodes = nullptr;
  queue->buckets = nullptr;
  queue->heap = nullptr;
  queue->locator = nullptr;
  queue->positiveSpan = queue->negativeSpan = 0;
  queue->topBucket = 0;
  if (maxGain > 500 || maxNodes < 500) {
    queue->form = PQUEUE_HEAP;
    queue->heap = reinterpret_cast<PQueueHeapEntry*>(poolmalloc(control, 2 * (int64_t)maxNodes));
    queue->locator = poolmalloc(control, maxNodes);
    for (int32_t i = 0; i < maxNodes; i++) queue->locator[i] = -1;
    return ORDERING_OK;
  }
  queue->form = PQUEUE_BUCKET;
  queue->positiveSpan = queue->negativeSpan = maxGain;
  int64_t b = 2 * (int64_t)maxGain + 1;
  int64_t room = control->workIntsSize - control->workTop;
  PQueueNode** bucketBase;
  // Measured with the stack's rounding to 16 ints, which the stack itself
  // never checks.
  int64_t stackInts = ((6 * (int64_t)maxNodes + 15) & ~(int64_t)15) + ((2 * b + 15) & ~(int64_t)15);
  if (stackInts < room) {
    queue->nodes = reinterpret_cast<PQueueNode*>(poolmalloc(control, 6 * (int64_t)maxNodes));
    bucketBase = reinterpret_cast<PQueueNode**>(poolmalloc(control, 2 * b));
  } else {
    QVPool* pool = controlPool(control);
    queue->heapAllocated = 1;
    queue->nodes = static_cast<PQueueNode*>(poolAlloc(pool, sizeof(PQueueNode) * (int64_t)maxNodes, 0));
    bucketBase = static_cast<PQueueNode**>(poolAlloc(pool, sizeof(PQueueNode*) * b, 0));
    if (!queue->nodes || !bucketBase) {
      if (queue->nodes) poolFree(pool, queue->nodes);
      if (bucketBase) poolFree(pool, bucketBase);
      queue->nodes = nullptr;
      queue->maxNodes = 0;
      return ORDERING_NOMEM;
    }
  }
  for (int32_t i = 0; i < maxNodes; i++) {
    queue->nodes[i].element = i;
    queue->nodes[i].prev = queue->nodes[i].next = nullptr;
  }
  for (int64_t k = 0; k < b; k++) bucketBase[k] = nullptr;
  queue->buckets = bucketBase + maxGain;
  queue->topBucket = -queue->negativeSpan;
  return ORDERING_OK;
}

void PQueueMaxReset(PQueueMax* queue) {
  if (queue->form == PQUEUE_HEAP) {
    for (int32_t i = 0; i < queue->count; i++) queue->locator[queue->heap[i].element] = -1;
  } else {
    for (int32_t g = -queue->negativeSpan; g <= queue->positiveSpan; g++)
      queue->buckets[g] = nullptr;
    queue->topBucket = -queue->negativeSpan;
  }
  queue->count = 0;
}

void PQueueMaxFree(OrderingControl* control, PQueueMax* queue) {
  if (queue->form == PQUEUE_HEAP) {
    poolfree(control, queue->maxNodes);
    poolfree(control, 2 * (int64_t)queue->maxNodes);
  } else if (queue->heapAllocated) {
    QVPool* pool = controlPool(control);
    if (queue->buckets) poolFree(pool, queue->buckets - queue->negativeSpan);
    if (queue->nodes) poolFree(pool, queue->nodes);
  } else {
    poolfree(control, 2 * ((int64_t)queue->positiveSpan + queue->negativeSpan) + 2);
    poolfree(control, 6 * (int64_t)queue->maxNodes);
  }
  queue->nodes = nullptr;
  queue->buckets = nullptr;
  queue->heap = nullptr;
  queue->locator = nullptr;
  queue->maxNodes = 0;
}

void PQueueMaxInsert(PQueueMax* queue, int32_t element, int32_t gain) {
  if (queue->form == PQUEUE_HEAP) {
    int32_t i = queue->count++;
    heapSiftUp(queue, i, PQueueHeapEntry{gain, element});
    return;
  }
  queue->count++;
  bucketLinkFront(queue, element, gain);
  if (gain > queue->topBucket) queue->topBucket = gain;
}

void PQueueMaxDelete(PQueueMax* queue, int32_t element, int32_t gain) {
  if (queue->form == PQUEUE_HEAP) {
    int32_t i = queue->locator[element];
    queue->locator[element] = -1;
    int32_t last = --queue->count;
    if (i == last) return;
    PQueueHeapEntry fill = queue->heap[last];
    if (fill.gain > queue->heap[i].gain)
      heapSiftUp(queue, i, fill);
    else
      heapSiftDown(queue, i, fill);
    return;
  }
  queue->count--;
  bucketUnlink(queue, element, gain);
  bucketLowerTop(queue, gain);
}

void PQueueMaxUpdate(PQueueMax* queue, int32_t element, int32_t oldGain, int32_t newGain) {
  if (oldGain == newGain) return;
  if (queue->form == PQUEUE_HEAP) {
    int32_t i = queue->locator[element];
    if (newGain > oldGain)
      heapSiftUp(queue, i, PQueueHeapEntry{newGain, element});
    else
      heapSiftDown(queue, i, PQueueHeapEntry{newGain, element});
    return;
  }
  PQueueMaxDelete(queue, element, oldGain);
  PQueueMaxInsert(queue, element, newGain);
}

void PQueueMaxUpdateUp(PQueueMax* queue, int32_t element, int32_t oldGain, int32_t newGain) {
  if (oldGain == newGain) return;
  if (queue->form == PQUEUE_HEAP) {
    heapSiftUp(queue, queue->locator[element], PQueueHeapEntry{newGain, element});
    return;
  }
  // The top is not lowered: the old bucket may empty, but gains only rise.
  bucketUnlink(queue, element, oldGain);
  bucketLinkFront(queue, element, newGain);
  if (newGain > queue->topBucket) queue->topBucket = newGain;
}

int32_t PQueueMaxGetMax(PQueueMax* queue) {
  if (queue->count == 0) return -1;
  if (queue->form == PQUEUE_HEAP) {
    int32_t element = queue->heap[0].element;
    queue->locator[element] = -1;
    int32_t last = --queue->count;
    if (last > 0) heapSiftDown(queue, 0, queue->heap[last]);
    return element;
  }
  int32_t top = queue->topBucket;
  PQueueNode* node = queue->buckets[top];
  queue->count--;
  queue->buckets[top] = node->next;
  if (node->next) node->next->prev = nullptr;
  bucketLowerTop(queue, top);
  return node->element;
}

int32_t PQueueMaxSeeMax(const PQueueMax* queue) {
  if (queue->count == 0) return -1;
  if (queue->form == PQUEUE_HEAP) return queue->heap[0].element;
  return queue->buckets[queue->topBucket]->element;
}

// ---- sorting and arrays ------------------------------------------------------------

namespace {

inline void swapPairs(IKeyValue* a, IKeyValue* b) {
  IKeyValue t = *a;
  *a = *b;
  *b = t;
}

// Leaves ranges of one entry to the final insertion pass.
void quickSortRange(IKeyValue* lo, IKeyValue* hi) {
  for (;;) {
    int64_t count = hi - lo;
    int64_t h = count / 2;
    if (h < 1) return;
    IKeyValue* mid = lo + h / 2;
    if (h >= 6) {
      // Median of the first, the quarter and the last entry.
      IKeyValue* last = hi - 1;
      IKeyValue* median = mid;
      if (lo->key < mid->key) {
        if (mid->key > last->key) median = lo->key < last->key ? last : lo;
      } else {
        if (mid->key < last->key) median = lo->key < last->key ? lo : last;
      }
      if (median != mid) swapPairs(median, mid);
    }
    IKeyValue* i = lo;
    IKeyValue* j = hi - 1;
    for (;;) {
      while (i < mid && i->key <= mid->key) i++;
      while (j > mid && j->key >= mid->key) j--;
      if (i == mid && j == mid) break;
      if (i == mid) {
        // The pivot moves with the exchange; what came from j is smaller.
        swapPairs(mid, j);
        mid = j;
        i++;
      } else if (j == mid) {
        swapPairs(i, mid);
        mid = i;
        j--;
      } else {
        swapPairs(i, j);
        i++;
        j--;
      }
    }
    IKeyValue* leftEnd = mid;
    IKeyValue* rightStart = mid + 1;
    if (leftEnd - lo < hi - rightStart) {
      quickSortRange(lo, leftEnd);
      lo = rightStart;
    } else {
      quickSortRange(rightStart, hi);
      hi = leftEnd;
    }
  }
}

}  // namespace

void ikeysort(int32_t n, IKeyValue* pairs) {
  if (n < 2) return;
  quickSortRange(pairs, pairs + n);
  for (int32_t k = 1; k < n; k++) {
    IKeyValue t = pairs[k];
    int32_t j = k;
    while (j > 0 && pairs[j - 1].key > t.key) {
      pairs[j] = pairs[j - 1];
      j--;
    }
    pairs[j] = t;
  }
}

int32_t* intSet(int32_t n, int32_t value, int32_t* array) {
  for (int32_t i = 0; i < n; i++) array[i] = value;
  return array;
}

int64_t sumInt(int32_t n, const int32_t* array) {
  int64_t s = 0;
  for (int32_t i = 0; i < n; i++) s += array[i];
  return s;
}

int32_t maxIndex(int32_t n, const int32_t* array) {
  int32_t best = 0;
  for (int32_t i = 1; i < n; i++)
    if ((double)array[i] > (double)array[best]) best = i;
  return best;
}

void RandomPermute(int32_t n, int32_t* p, OrderingControl* control) {
  for (int32_t i = 0; i < n; i++) p[i] = i;
  if (n < 5) return;
  for (int32_t i = 0; i < n; i += 16) {
    int32_t a = (qvRand(&control->seed) >> 3) % (n - 4);
    int32_t b = (qvRand(&control->seed) >> 3) % (n - 4);
    for (int32_t k = 0; k < 4; k++) {
      int32_t t = p[a + k];
      p[a + k] = p[b + k];
      p[b + k] = t;
    }
  }
}

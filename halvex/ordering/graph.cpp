// The graph record and the stack workspace that every ordering method works
// in, and the connected components of a graph.
#include "ordering/ordering.h"

#include "frame/qv.h"

void InitGraph(OrderingGraph* graph) {
  graph->graphStorage = nullptr;
  graph->refineStorage = nullptr;
  graph->numVertex = -1;
  graph->numEdge = -1;
  graph->adjBegin = nullptr;
  graph->vertexWeight = nullptr;
  graph->adjIndex = nullptr;
  graph->adjWeight = nullptr;
  graph->adjWeightSum = nullptr;
  graph->origLabel = nullptr;
  graph->coarseMap = nullptr;
  graph->separatorWeight = -1;
  graph->side = nullptr;
  graph->sideWeight[0] = graph->sideWeight[1] = graph->sideWeight[2] = 0;
  graph->numBoundary = 0;
  graph->boundaryPos = nullptr;
  graph->boundaryList = nullptr;
  graph->internalDegree = nullptr;
  graph->externalDegree = nullptr;
  graph->sideReach = nullptr;
  graph->coarser = nullptr;
  graph->finer = nullptr;
}

int32_t* poolmalloc(OrderingControl* control, int64_t count) {
  int64_t rounded = (count + 15) & ~(int64_t)15;
  int32_t* block = control->workInts + control->workTop;
  control->workTop += rounded;
  return block;
}

void poolfree(OrderingControl* control, int64_t count) {
  control->workTop -= (count + 15) & ~(int64_t)15;
}

int32_t AllocateWorkSpace(OrderingControl* control, OrderingGraph* graph) {
  int64_t size = 17 * (int64_t)graph->numVertex + 6184;
  if (size < 1400) size = 1400;
  double bytes = 4.0 * graph->numEdge + 4.0 * (double)size + 34.0;
  if (bytes >= 18446744073709551616.0 || bytes > 9.2e18) return ORDERING_NOMEM;
  int64_t nbytes = (int64_t)bytes;
  void* base = poolAlloc(envPool(control->env), nbytes, 0);
  if (!base) return ORDERING_NOMEM;
  uintptr_t start = (uintptr_t)base;
  uintptr_t edgeEnd = start + 4 * (uintptr_t)graph->numEdge;
  uintptr_t ints = (edgeEnd + 15) & ~(uintptr_t)15;
  uintptr_t need = ((4 * (uintptr_t)graph->numEdge + 15) & ~(uintptr_t)15) +
                   ((4 * (uintptr_t)size + 15) & ~(uintptr_t)15);
  if (need > (uintptr_t)nbytes || ints + 4 * (uintptr_t)size > start + (uintptr_t)nbytes) {
    poolFree(envPool(control->env), base);
    return ORDERING_SIZE;
  }
  control->workBase = base;
  control->edgeScratch = (int32_t*)base;
  control->workInts = (int32_t*)ints;
  control->workIntsSize = size;
  control->workTop = 0;
  return ORDERING_OK;
}

int32_t FindComponents(const OrderingGraph* graph, int32_t* mark, int32_t* begin,
                       int32_t* list) {
  int32_t n = graph->numVertex;
  for (int32_t v = 0; v < n; v++) mark[v] = 0;
  int32_t listed = 0;
  if (graph->boundaryList)
    for (int32_t b = 0; b < graph->numBoundary; b++) {
      int32_t v = graph->boundaryList[b];
      if (!mark[v]) {
        mark[v] = 1;
        listed++;
      }
    }
  int32_t toList = n - listed;
  int32_t count = 0, tail = 0, seed = 0;
  begin[0] = 0;
  while (tail < toList) {
    while (mark[seed]) seed++;
    mark[seed] = 1;
    int32_t head = tail;
    list[tail++] = seed;
    while (head < tail) {
      int32_t v = list[head++];
      for (int32_t p = graph->adjBegin[v]; p < graph->adjBegin[v + 1]; p++) {
        int32_t u = graph->adjIndex[p];
        if (!mark[u]) {
          mark[u] = 1;
          list[tail++] = u;
        }
      }
    }
    begin[++count] = tail;
  }
  return count;
}

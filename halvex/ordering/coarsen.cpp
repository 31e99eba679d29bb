// Coarsening by matching: pairs of vertices merge into one coarse vertex,
// parallel edges merge with their weights summed.
#include "frame/qv.h"
#include "ordering/nested.h"
#include "ordering/pqueue.h"

namespace {

inline QVPool* controlPool(OrderingControl* control) {
  return *reinterpret_cast<QVPool**>(control->env);
}

}  // namespace

int32_t AllocatePartition(OrderingControl* control, OrderingGraph* graph) {
  int64_t n = graph->numVertex;
  // Three int arrays, then the pairs at the next 8-byte boundary.
  int64_t pairsAt = (3 * n + 1) & ~(int64_t)1;
  int32_t* block =
      static_cast<int32_t*>(poolAlloc(controlPool(control), 4 * (pairsAt + 2 * n + 2), 0));
  if (!block) return ORDERING_NOMEM;
  graph->refineStorage = block;
  graph->side = block;
  graph->boundaryPos = block + n;
  graph->boundaryList = block + 2 * n;
  graph->sideReach = reinterpret_cast<int32_t(*)[2]>(block + pairsAt);
  graph->internalDegree = block + pairsAt;
  graph->externalDegree = block + pairsAt + n;
  return ORDERING_OK;
}

void FreeCoarseLevel(OrderingControl* control, OrderingGraph* level) {
  QVPool* pool = controlPool(control);
  if (level->finer) level->finer->coarser = nullptr;
  if (level->graphStorage) poolFree(pool, level->graphStorage);
  if (level->refineStorage) poolFree(pool, level->refineStorage);
  poolFree(pool, level);
}

int32_t CreateCoarseGraph(OrderingControl* control, OrderingGraph* graph, int32_t coarseCount,
                          const int32_t* match, const int32_t* walkOrder) {
  QVPool* pool = controlPool(control);
  int32_t n = graph->numVertex;
  int64_t fineEdges = graph->numEdge;
  OrderingGraph* coarse = static_cast<OrderingGraph*>(poolAlloc(pool, sizeof(OrderingGraph), 0));
  if (!coarse) return ORDERING_NOMEM;
  InitGraph(coarse);
  int64_t cc = coarseCount;
  int32_t* block = static_cast<int32_t*>(poolAlloc(pool, 4 * (5 * cc + 1 + 2 * fineEdges), 0));
  if (!block) {
    poolFree(pool, coarse);
    return ORDERING_NOMEM;
  }
  coarse->graphStorage = block;
  coarse->numVertex = coarseCount;
  coarse->adjBegin = block;
  coarse->vertexWeight = block + cc + 1;
  coarse->adjWeightSum = block + 2 * cc + 1;
  coarse->coarseMap = block + 3 * cc + 1;
  coarse->adjIndex = block + 4 * cc + 1;
  coarse->adjWeight = block + 4 * cc + 1 + fineEdges;
  graph->coarser = coarse;
  coarse->finer = graph;

  const int32_t* adjBegin = graph->adjBegin;
  const int32_t* adjWeight = graph->adjWeight;
  const int32_t* vw = graph->vertexWeight;
  const int32_t* aws = graph->adjWeightSum;
  const int32_t* cmap = graph->coarseMap;
  int32_t* coarseOf = control->edgeScratch;
  for (int64_t p = 0; p < fineEdges; p++) coarseOf[p] = cmap[graph->adjIndex[p]];

  int32_t* cBegin = coarse->adjBegin;
  int32_t* cIndex = coarse->adjIndex;
  int32_t* cWeight = coarse->adjWeight;
  // A direct table while it is small or the graph is dense enough to pay for
  // clearing it; otherwise a small hash that keeps the table in cache.
  bool direct = coarseCount < 16376 || (n > 0 && graph->numEdge / n > 15);
  int32_t tableSize = direct ? coarseCount : 2048;
  int32_t mask = 2047;
  int32_t* table = poolmalloc(control, tableSize);
  for (int32_t i = 0; i < tableSize; i++) table[i] = -1;

  int32_t k = 0, pos = 0;
  cBegin[0] = 0;
  for (int32_t w = 0; w < n && k < coarseCount; w++) {
    int32_t v = walkOrder[w];
    if (cmap[v] != k) continue;
    int32_t u = match[v];
    int32_t start = pos;
    coarse->vertexWeight[k] = vw[v] + (u != v ? vw[u] : 0);
    coarse->adjWeightSum[k] = aws[v] + (u != v ? aws[u] : 0);
    for (int32_t pass = 0; pass < (u != v ? 2 : 1); pass++) {
      int32_t x = pass == 0 ? v : u;
      for (int32_t p = adjBegin[x]; p < adjBegin[x + 1]; p++) {
        int32_t ck = coarseOf[p];
        int32_t ew = adjWeight[p];
        if (direct) {
          int32_t at = table[ck];
          if (at == -1) {
            cIndex[pos] = ck;
            cWeight[pos] = ew;
            table[ck] = pos++;
          } else {
            cWeight[at] += ew;
          }
        } else {
          int32_t slot = ck & mask;
          int32_t at = table[slot];
          if (at == -1) {
            cIndex[pos] = ck;
            cWeight[pos] = ew;
            table[slot] = pos++;
          } else if (cIndex[at] == ck) {
            cWeight[at] += ew;
          } else {
            int32_t q = start;
            while (q < pos && cIndex[q] != ck) q++;
            if (q < pos) {
              cWeight[q] += ew;
            } else {
              cIndex[pos] = ck;
              cWeight[pos++] = ew;
            }
          }
        }
      }
    }
    // The edge v-u became a loop on k: out of the list and out of the sum.
    int32_t self = -1;
    for (int32_t q = start; q < pos; q++)
      if (cIndex[q] == k) {
        self = q;
        break;
      }
    if (self != -1) {
      coarse->adjWeightSum[k] -= cWeight[self];
      pos--;
      cIndex[self] = cIndex[pos];
      cWeight[self] = cWeight[pos];
      if (direct) table[k] = -1;
      else if (table[k & mask] == self) table[k & mask] = -1;
    }
    for (int32_t q = start; q < pos; q++) table[direct ? cIndex[q] : (cIndex[q] & mask)] = -1;
    if (!direct) table[k & mask] = -1;
    cBegin[++k] = pos;
  }
  poolfree(control, tableSize);
  coarse->numEdge = pos;

  if (pos > 100000 && pos < 0.7 * (double)fineEdges) {
    // Give the unused tail back: the weights move down behind the indices.
    int32_t* weights = cIndex + pos;
    for (int32_t q = 0; q < pos; q++) weights[q] = cWeight[q];
    int32_t* shrunk =
        static_cast<int32_t*>(poolRealloc(pool, block, 4 * (5 * cc + 1 + 2 * (int64_t)pos), 0));
    if (!shrunk) {
      FreeCoarseLevel(control, coarse);
      return ORDERING_NOMEM;
    }
    coarse->graphStorage = shrunk;
    coarse->adjBegin = shrunk;
    coarse->vertexWeight = shrunk + cc + 1;
    coarse->adjWeightSum = shrunk + 2 * cc + 1;
    coarse->coarseMap = shrunk + 3 * cc + 1;
    coarse->adjIndex = shrunk + 4 * cc + 1;
    coarse->adjWeight = coarse->adjIndex + pos;
  }
  return ORDERING_OK;
}

int32_t RandomMatch(OrderingControl* control, OrderingGraph* graph) {
  int32_t n = graph->numVertex;
  int32_t* perm = poolmalloc(control, n);
  int32_t* match = poolmalloc(control, n);
  RandomPermute(n, perm, control);
  for (int32_t v = 0; v < n; v++) match[v] = -1;
  const int32_t* adjBegin = graph->adjBegin;
  const int32_t* adjIndex = graph->adjIndex;
  const int32_t* vw = graph->vertexWeight;
  int32_t maxWeight = control->maxVertexWeight;
  int32_t cnum = 0;
  for (int32_t i = 0; i < n; i++) {
    int32_t v = perm[i];
    if (match[v] != -1) continue;
    int32_t u = v;
    for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) {
      int32_t k = adjIndex[p];
      if (match[k] == -1 && vw[v] + vw[k] <= maxWeight) {
        u = k;
        break;
      }
    }
    match[v] = u;
    match[u] = v;
    graph->coarseMap[v] = graph->coarseMap[u] = cnum++;
  }
  int32_t rc = CreateCoarseGraph(control, graph, cnum, match, perm);
  poolfree(control, n);
  poolfree(control, n);
  return rc;
}

int32_t SortedMatch(OrderingControl* control, OrderingGraph* graph) {
  int32_t n = graph->numVertex;
  const int32_t* adjBegin = graph->adjBegin;
  const int32_t* adjIndex = graph->adjIndex;
  const int32_t* adjWeight = graph->adjWeight;
  const int32_t* vw = graph->vertexWeight;
  int32_t maxWeight = control->maxVertexWeight;
  int32_t cap = n > 0 ? (int32_t)(0.7 * (double)(adjBegin[n] / n)) : 0;

  int32_t* perm = poolmalloc(control, n);
  int32_t* walkOrder = poolmalloc(control, n);
  int32_t* match = poolmalloc(control, n);
  RandomPermute(n, perm, control);
  // Counting sort by capped degree; ties keep the random order.
  int32_t* count = control->vertexScratch;
  for (int32_t d = 0; d < cap + 2; d++) count[d] = 0;
  for (int32_t v = 0; v < n; v++) {
    int32_t deg = adjBegin[v + 1] - adjBegin[v];
    count[(deg < cap ? deg : cap) + 1]++;
  }
  for (int32_t d = 1; d < cap + 2; d++) count[d] += count[d - 1];
  for (int32_t i = 0; i < n; i++) {
    int32_t v = perm[i];
    int32_t deg = adjBegin[v + 1] - adjBegin[v];
    walkOrder[count[deg < cap ? deg : cap]++] = v;
  }
  for (int32_t v = 0; v < n; v++) match[v] = -1;

  int32_t cnum = 0;
  int32_t tail = n - 1;  // scan for a partner of an isolated vertex; only falls
  bool isolatedPhase = true;
  for (int32_t i = 0; i < n; i++) {
    int32_t v = walkOrder[i];
    if (match[v] != -1) continue;
    int32_t u = v;
    if (isolatedPhase && adjBegin[v] == adjBegin[v + 1]) {
      // Pair it with a vertex that has neighbours, from the far end: an
      // isolated pair would stay isolated through every level.
      while (tail > i) {
        int32_t x = walkOrder[tail];
        if (match[x] == -1 && adjBegin[x] < adjBegin[x + 1]) break;
        tail--;
      }
      if (tail > i) u = walkOrder[tail];
    } else {
      isolatedPhase = false;
      int32_t best = 0;
      for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) {
        int32_t k = adjIndex[p];
        if (match[k] == -1 && adjWeight[p] > best && vw[v] + vw[k] <= maxWeight) {
          u = k;
          best = adjWeight[p];
        }
      }
    }
    match[v] = u;
    match[u] = v;
    graph->coarseMap[v] = graph->coarseMap[u] = cnum++;
  }
  int32_t rc = CreateCoarseGraph(control, graph, cnum, match, walkOrder);
  poolfree(control, n);
  poolfree(control, n);
  poolfree(control, n);
  return rc;
}

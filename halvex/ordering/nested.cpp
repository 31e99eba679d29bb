// Multilevel nested dissection: a separator takes the last free positions,
// the connected components of what remains are dissected in turn, and small
// components are ordered by multiple minimum degree.
#include "frame/qv.h"
#include "ordering/nested.h"
#include "ordering/pqueue.h"

namespace {

inline QVPool* controlPool(OrderingControl* control) {
  return *reinterpret_cast<QVPool**>(control->env);
}

// The three blocks that a dissected graph owns; the top graph's adjacency is
// the caller's and stays.
void freeGraphBlocks(OrderingControl* control, OrderingGraph* g) {
  QVPool* pool = controlPool(control);
  if (g->graphStorage) poolFree(pool, g->graphStorage);
  if (g->refineStorage) poolFree(pool, g->refineStorage);
  if (g->origLabel) poolFree(pool, g->origLabel);
  g->graphStorage = nullptr;
  g->refineStorage = nullptr;
  g->origLabel = nullptr;
}

}  // namespace

int32_t SplitGraphIntoComponents(OrderingControl* control, OrderingGraph* graph,
                                 OrderingGraph* records, int32_t count, const int32_t* begin,
                                 const int32_t* list) {
  QVPool* pool = controlPool(control);
  int32_t n = graph->numVertex;
  const int32_t* adjBegin = graph->adjBegin;
  const int32_t* adjIndex = graph->adjIndex;
  const int32_t* side = graph->side;
  int32_t* marked = graph->boundaryPos;
  // From here on boundaryPos only says whether a vertex has a separator
  // neighbour (not -1), so that the others copy their lists whole; off the
  // separator it is -1 already.
  for (int32_t b = 0; b < graph->numBoundary; b++) {
    int32_t v = graph->boundaryList[b];
    for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++)
      if (side[adjIndex[p]] != 2) marked[adjIndex[p]] = 1;
  }
  int32_t* local = poolmalloc(control, n);
  int32_t rc = ORDERING_OK;
  int32_t made = 0;
  for (int32_t i = 0; i < count && rc == ORDERING_OK; i++) {
    OrderingGraph* c = records + i;
    InitGraph(c);
    int32_t first = begin[i];
    int32_t size = begin[i + 1] - first;
    const int32_t* members = list + first;
    c->numVertex = size;
    c->origLabel = static_cast<int32_t*>(poolAlloc(pool, 4 * (int64_t)size, 0));
    if (!c->origLabel) {
      rc = ORDERING_NOMEM;
      break;
    }
    made = i + 1;
    for (int32_t j = 0; j < size; j++) {
      c->origLabel[j] = graph->origLabel[members[j]];
      local[members[j]] = j;
    }
    // A small block is only labelled; it needs no adjacency.
    if (control->blockMode && size < ND_LEAF_SIZE) continue;

    int64_t edges = 0;
    for (int32_t j = 0; j < size; j++) {
      int32_t v = members[j];
      if (marked[v] == -1) {
        edges += adjBegin[v + 1] - adjBegin[v];
      } else {
        for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++)
          if (side[adjIndex[p]] != 2) edges++;
      }
    }
    bool leaf = size < ND_LEAF_SIZE;
    int64_t cs = size;
    int32_t* block = static_cast<int32_t*>(
        poolAlloc(pool, 4 * (4 * cs + 1 + edges + (leaf ? 0 : edges)), 0));
    if (!block) {
      rc = ORDERING_NOMEM;
      break;
    }
    c->graphStorage = block;
    c->numEdge = (int32_t)edges;
    c->adjBegin = block;
    c->vertexWeight = block + cs + 1;
    c->adjWeightSum = block + 2 * cs + 1;
    c->coarseMap = block + 3 * cs + 1;
    c->adjIndex = block + 4 * cs + 1;
    c->adjWeight = leaf ? nullptr : c->adjIndex + edges;
    int32_t pos = 0;
    c->adjBegin[0] = 0;
    for (int32_t j = 0; j < size; j++) {
      int32_t v = members[j];
      for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) {
        int32_t k = adjIndex[p];
        if (marked[v] != -1 && side[k] == 2) continue;
        c->adjIndex[pos++] = local[k];
      }
      c->adjBegin[j + 1] = pos;
      c->adjWeightSum[j] = pos - c->adjBegin[j];
      c->vertexWeight[j] = graph->vertexWeight[v];
    }
    if (!leaf)
      for (int32_t p = 0; p < pos; p++) c->adjWeight[p] = 1;
  }
  poolfree(control, n);
  if (rc != ORDERING_OK)
    for (int32_t i = 0; i < made; i++) freeGraphBlocks(control, records + i);
  return rc;
}

int32_t NestedDissection(OrderingControl* control, OrderingGraph* graph, int32_t* order,
                         int32_t lastPosition) {
  int32_t n = graph->numVertex;
  if (n <= 0) {
    freeGraphBlocks(control, graph);
    return ORDERING_OK;
  }
  int64_t total = sumInt(n, graph->vertexWeight);
  int32_t targets[2] = {(int32_t)(total / 2), (int32_t)(total - total / 2)};
  int32_t rc = NodeBisection(control, graph, targets);
  if (rc != ORDERING_OK) {
    freeGraphBlocks(control, graph);
    return rc;
  }

  if (!control->blockMode) {
    for (int32_t b = 0; b < graph->numBoundary; b++) {
      int32_t v = graph->origLabel[graph->boundaryList[b]];
      control->separatorList[control->numSeparator++] = v;
      order[v] = --lastPosition;
    }
  } else {
    control->numSeparatorBlock++;
    int32_t label = control->numVertex - control->numSeparatorBlock;
    for (int32_t b = 0; b < graph->numBoundary; b++)
      control->blockLabel[graph->origLabel[graph->boundaryList[b]]] = label;
  }

  int32_t* mark = control->vertexScratch;
  int32_t* begin = mark + n;
  int32_t* list = begin + n + 1;
  int32_t count = FindComponents(graph, mark, begin, list);
  OrderingGraph* parts = nullptr;
  if (count > 0) {
    parts = static_cast<OrderingGraph*>(
        poolAlloc(controlPool(control), sizeof(OrderingGraph) * (int64_t)count, 0));
    if (!parts) {
      freeGraphBlocks(control, graph);
      return ORDERING_NOMEM;
    }
    rc = SplitGraphIntoComponents(control, graph, parts, count, begin, list);
  }
  freeGraphBlocks(control, graph);
  if (rc != ORDERING_OK) {
    if (parts) poolFree(controlPool(control), parts);
    return rc;
  }

  int32_t offset = 0;
  for (int32_t i = 0; i < count; i++) {
    OrderingGraph* c = parts + i;
    int32_t top = lastPosition - offset;
    offset += c->numVertex;
    if (c->adjWeight) {
      rc = NestedDissection(control, c, order, top);
      if (rc != ORDERING_OK) {
        for (int32_t j = i + 1; j < count; j++) freeGraphBlocks(control, parts + j);
        break;
      }
      continue;
    }
    if (control->blockMode) {
      for (int32_t j = 0; j < c->numVertex; j++)
        control->blockLabel[c->origLabel[j]] = control->numLeafBlock;
      control->numLeafBlock++;
    } else if (c->numVertex == 1) {
      order[c->origLabel[0]] = top - 1;
    } else {
      int32_t* work = poolmalloc(control, 7 * (int64_t)c->numVertex - 2);
      MMDOrder(c, order, top, work);
      poolfree(control, 7 * (int64_t)c->numVertex - 2);
    }
    freeGraphBlocks(control, c);
  }
  if (parts) poolFree(controlPool(control), parts);
  return rc;
}

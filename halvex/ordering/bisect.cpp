// Bisection of one graph by a vertex separator: coarsen, split the coarsest
// level by an edge cut grown from random seeds, take both sides of the cut
// as the separator, and thin it level by level on the way back.
#include "frame/qv.h"
#include "ordering/nested.h"
#include "ordering/pqueue.h"

namespace {

inline int32_t absInt(int32_t x) { return x < 0 ? -x : x; }

inline void boundaryAdd(OrderingGraph* g, int32_t v) {
  g->boundaryList[g->numBoundary] = v;
  g->boundaryPos[v] = g->numBoundary++;
}

inline void boundaryRemove(OrderingGraph* g, int32_t v) {
  int32_t at = g->boundaryPos[v];
  int32_t last = g->boundaryList[--g->numBoundary];
  g->boundaryList[at] = last;
  g->boundaryPos[last] = at;
  g->boundaryPos[v] = -1;
}

// Moves the degrees of v's neighbours after v changed side, with the
// boundary following externalDegree.  queueOf(k) names the queue that holds
// k's gain, or null.  In the general form every queued neighbour is updated;
// otherwise the queue holds exactly the boundary and follows it.
template <typename QueueOf>
void moveEdgeVertex(OrderingGraph* g, int32_t v, QueueOf queueOf, bool general) {
  int32_t* id = g->internalDegree;
  int32_t* ed = g->externalDegree;
  int32_t to = g->side[v];
  for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
    int32_t k = g->adjIndex[p];
    int32_t ew = g->adjWeight[p];
    int32_t oldGain = ed[k] - id[k];
    if (g->side[k] == to) {
      id[k] += ew;
      ed[k] -= ew;
    } else {
      id[k] -= ew;
      ed[k] += ew;
    }
    bool wasOn = g->boundaryPos[k] != -1;
    if (wasOn && ed[k] == 0)
      boundaryRemove(g, k);
    else if (!wasOn && ed[k] > 0)
      boundaryAdd(g, k);
    PQueueMax* q = queueOf(k);
    if (!q) continue;
    if (general)
      PQueueMaxUpdate(q, k, oldGain, ed[k] - id[k]);
    else if (wasOn && ed[k] == 0)
      PQueueMaxDelete(q, k, oldGain);
    else if (wasOn)
      PQueueMaxUpdate(q, k, oldGain, ed[k] - id[k]);
    else if (ed[k] > 0)
      PQueueMaxInsert(q, k, ed[k] - id[k]);
  }
}

int32_t maxAdjWeightSum(const OrderingGraph* g) {
  int32_t m = 0;
  for (int32_t v = 0; v < g->numVertex; v++)
    if (g->adjWeightSum[v] > m) m = g->adjWeightSum[v];
  return m;
}

// Fiduccia-Mattheyses passes on the edge cut of the coarsest level.
int32_t refineEdgeCut(OrderingControl* control, OrderingGraph* g, const int32_t* targets) {
  int32_t n = g->numVertex;
  int32_t* id = g->internalDegree;
  int32_t* ed = g->externalDegree;
  int32_t* vw = g->vertexWeight;
  int32_t* w = g->sideWeight;
  int32_t limit = (int32_t)(0.01 * n);
  if (limit < 15) limit = 15;
  if (limit > 100) limit = 100;
  int32_t total = w[0] + w[1];
  int32_t avgWeight = total / 20;
  if (n > 0 && 2 * total / n < avgWeight) avgWeight = 2 * total / n;
  int32_t origDiff = absInt(targets[0] - w[0]);

  PQueueMax queues[2];
  int32_t maxGain = maxAdjWeightSum(g);
  if (PQueueMaxInit(control, &queues[0], n, maxGain) != ORDERING_OK) return ORDERING_NOMEM;
  if (PQueueMaxInit(control, &queues[1], n, maxGain) != ORDERING_OK) {
    PQueueMaxFree(control, &queues[0]);
    return ORDERING_NOMEM;
  }
  int32_t* moved = poolmalloc(control, n);
  int32_t* swaps = poolmalloc(control, n);
  int32_t* perm = poolmalloc(control, n);
  for (int32_t v = 0; v < n; v++) moved[v] = -1;

  for (int32_t pass = 0; pass < 4; pass++) {
    PQueueMaxReset(&queues[0]);
    PQueueMaxReset(&queues[1]);
    int32_t startCut = g->separatorWeight;
    RandomPermute(g->numBoundary, perm, control);
    for (int32_t i = 0; i < g->numBoundary; i++) {
      int32_t v = g->boundaryList[perm[i]];
      PQueueMaxInsert(&queues[g->side[v]], v, ed[v] - id[v]);
    }
    int32_t newCut = startCut, bestCut = startCut;
    int32_t minDiff = absInt(targets[0] - w[0]);
    int32_t bestStep = -1, steps = 0;
    for (int32_t s = 0; s < n; s++) {
      int32_t from = (targets[1] - w[1] <= targets[0] - w[0]) ? 1 : 0;
      int32_t to = 1 - from;
      int32_t v = PQueueMaxGetMax(&queues[from]);
      if (v == -1) break;
      int32_t gain = ed[v] - id[v];
      newCut -= gain;
      w[to] += vw[v];
      w[from] -= vw[v];
      int32_t diff = absInt(targets[0] - w[0]);
      if ((newCut < bestCut && diff <= origDiff + avgWeight) ||
          (newCut == bestCut && diff < minDiff)) {
        bestCut = newCut;
        minDiff = diff;
        bestStep = s;
      } else if (s - bestStep > limit) {
        newCut += gain;
        w[to] -= vw[v];
        w[from] += vw[v];
        break;
      }
      g->side[v] = to;
      moved[v] = s;
      swaps[s] = v;
      steps = s + 1;
      int32_t t = id[v];
      id[v] = ed[v];
      ed[v] = t;
      if (ed[v] == 0 && g->adjBegin[v] < g->adjBegin[v + 1]) boundaryRemove(g, v);
      moveEdgeVertex(
          g, v, [&](int32_t k) { return moved[k] == -1 ? &queues[g->side[k]] : nullptr; }, false);
    }
    for (int32_t s = 0; s < steps; s++) moved[swaps[s]] = -1;
    for (int32_t s = steps - 1; s > bestStep; s--) {
      int32_t v = swaps[s];
      int32_t to = 1 - g->side[v];
      g->side[v] = to;
      w[to] += vw[v];
      w[1 - to] -= vw[v];
      int32_t t = id[v];
      id[v] = ed[v];
      ed[v] = t;
      if (ed[v] == 0 && g->boundaryPos[v] != -1 && g->adjBegin[v] < g->adjBegin[v + 1])
        boundaryRemove(g, v);
      else if (ed[v] > 0 && g->boundaryPos[v] == -1)
        boundaryAdd(g, v);
      moveEdgeVertex(g, v, [](int32_t) -> PQueueMax* { return nullptr; }, false);
    }
    g->separatorWeight = bestCut;
    if (bestStep == -1 || bestCut == startCut) break;
  }
  poolfree(control, n);
  poolfree(control, n);
  poolfree(control, n);
  PQueueMaxFree(control, &queues[1]);
  PQueueMaxFree(control, &queues[0]);
  return ORDERING_OK;
}

// The two balancing routines of the edge bisection share everything but the
// start set and the neighbour rule.
int32_t balanceEdgeCut(OrderingControl* control, OrderingGraph* g, const int32_t* targets,
                       bool general) {
  int32_t n = g->numVertex;
  int32_t* id = g->internalDegree;
  int32_t* ed = g->externalDegree;
  int32_t* vw = g->vertexWeight;
  int32_t* w = g->sideWeight;
  int32_t minDiff = absInt(targets[0] - w[0]);
  int32_t from = w[0] < targets[0] ? 1 : 0;
  int32_t to = 1 - from;
  PQueueMax queue;
  if (PQueueMaxInit(control, &queue, n, maxAdjWeightSum(g)) != ORDERING_OK) return ORDERING_NOMEM;
  int32_t* moved = poolmalloc(control, n);
  int32_t* perm = poolmalloc(control, n);
  for (int32_t v = 0; v < n; v++) moved[v] = -1;
  if (general) {
    RandomPermute(n, perm, control);
    for (int32_t i = 0; i < n; i++) {
      int32_t v = perm[i];
      if (g->side[v] == from && vw[v] <= minDiff) PQueueMaxInsert(&queue, v, ed[v] - id[v]);
    }
  } else {
    RandomPermute(g->numBoundary, perm, control);
    for (int32_t i = 0; i < g->numBoundary; i++) {
      int32_t v = g->boundaryList[perm[i]];
      if (g->side[v] == from && vw[v] <= minDiff) PQueueMaxInsert(&queue, v, ed[v] - id[v]);
    }
  }
  int32_t cut = g->separatorWeight;
  for (int32_t s = 0; s < n; s++) {
    int32_t v = PQueueMaxGetMax(&queue);
    if (v == -1) break;
    if (w[to] + vw[v] > targets[to]) break;
    w[to] += vw[v];
    w[from] -= vw[v];
    g->side[v] = to;
    cut -= ed[v] - id[v];
    moved[v] = s;
    int32_t t = id[v];
    id[v] = ed[v];
    ed[v] = t;
    bool hasNeighbours = g->adjBegin[v] < g->adjBegin[v + 1];
    if (ed[v] == 0 && hasNeighbours && g->boundaryPos[v] != -1)
      boundaryRemove(g, v);
    else if (general && ed[v] > 0 && g->boundaryPos[v] == -1)
      boundaryAdd(g, v);
    auto queueOf = [&](int32_t k) -> PQueueMax* {
      return moved[k] == -1 && g->side[k] == from && vw[k] <= minDiff ? &queue : nullptr;
    };
    moveEdgeVertex(g, v, queueOf, general);
  }
  g->separatorWeight = cut;
  poolfree(control, n);
  poolfree(control, n);
  PQueueMaxFree(control, &queue);
  return ORDERING_OK;
}

}  // namespace

void Compute2WayPartitionParams(OrderingGraph* g) {
  int32_t n = g->numVertex;
  int32_t* id = g->internalDegree;
  int32_t* ed = g->externalDegree;
  g->sideWeight[0] = g->sideWeight[1] = 0;
  g->numBoundary = 0;
  int64_t cut = 0;
  for (int32_t v = 0; v < n; v++) {
    int32_t s = g->side[v];
    g->sideWeight[s] += g->vertexWeight[v];
    int32_t in = 0, ex = 0;
    for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
      if (g->side[g->adjIndex[p]] == s)
        in += g->adjWeight[p];
      else
        ex += g->adjWeight[p];
    }
    id[v] = in;
    ed[v] = ex;
    g->boundaryPos[v] = -1;
    if (ex > 0 || g->adjBegin[v] == g->adjBegin[v + 1]) {
      boundaryAdd(g, v);
      cut += ex;
    }
  }
  g->separatorWeight = (int32_t)(cut / 2);
}

int32_t Bnd2WayBalance(OrderingControl* control, OrderingGraph* graph, const int32_t* targets) {
  return balanceEdgeCut(control, graph, targets, false);
}

int32_t General2WayBalance(OrderingControl* control, OrderingGraph* graph,
                           const int32_t* targets) {
  return balanceEdgeCut(control, graph, targets, true);
}

void untouchedCount(UntouchedBlocks* u, const int32_t* touched, int32_t n) {
  int32_t size = 1 << u->shift;
  for (int32_t b = 0, v = 0; v < n; b++) {
    int32_t end = n - v < size ? n : v + size, free = 0;
    for (; v < end; v++) free += touched[v] == 0;
    u->count[b] = free;
  }
}

int32_t untouchedFind(const UntouchedBlocks* u, const int32_t* touched, int32_t k) {
  int32_t b = 0;
  while (k >= u->count[b]) k -= u->count[b++];
  int32_t v = b << u->shift;
  for (;; v++)
    if (!touched[v] && k-- == 0) return v;
}

int32_t Init2WayPartition(OrderingControl* control, OrderingGraph* g, const int32_t* targets) {
  if (AllocatePartition(control, g) != ORDERING_OK) return ORDERING_NOMEM;
  int32_t n = g->numVertex;
  int32_t* vw = g->vertexWeight;
  int32_t tries = n <= control->coarsenTo ? 3 : 8;
  int64_t bestCut = 1;
  for (int32_t v = 0; v < n; v++) bestCut += g->adjWeightSum[v];
  int32_t* bestSide = control->vertexScratch;
  int32_t* queue = bestSide + n;
  int32_t* touched = queue + n;
  double r = control->balanceRatio;
  int32_t t0 = targets[0], t1 = targets[1];
  int32_t lo = (int32_t)(t1 / r), hi = (int32_t)(r * t1);

  for (int32_t attempt = 0; attempt < tries; attempt++) {
    for (int32_t v = 0; v < n; v++) {
      g->side[v] = 1;
      touched[v] = 0;
    }
    int32_t w0 = 0, w1 = t0 + t1;
    int32_t seed = (qvRand(&control->seed) >> 3) % n;
    touched[seed] = 1;
    queue[0] = seed;
    int32_t first = 0, last = 1, left = n - 1;
    // The degree arrays are free until the partition's parameters are
    // computed below; the counts are made at the first restart, so that a
    // connected graph never pays for them.
    UntouchedBlocks blocks = {nullptr, untouchedShift(n)};
    for (;;) {
      if (first == last) {
        // The component is used up: restart at a random untouched vertex.
        if (left == 0) break;
        int32_t k = (qvRand(&control->seed) >> 3) % left;
        if (!blocks.count) {
          blocks.count = g->externalDegree;
          untouchedCount(&blocks, touched, n);
        }
        int32_t v = untouchedFind(&blocks, touched, k);
        untouchedTake(&blocks, touched, v);
        queue[last++] = v;
        left--;
      }
      int32_t i = queue[first++];
      if (w0 > 0 && w1 - vw[i] < lo) {
        if (first == last) break;
        continue;
      }
      g->side[i] = 0;
      w0 += vw[i];
      w1 -= vw[i];
      if (w1 <= hi) break;
      for (int32_t p = g->adjBegin[i]; p < g->adjBegin[i + 1]; p++) {
        int32_t k = g->adjIndex[p];
        if (!touched[k]) {
          untouchedTake(&blocks, touched, k);
          queue[last++] = k;
          left--;
        }
      }
    }
    if (w1 == 0) g->side[(qvRand(&control->seed) >> 3) % n] = 1;
    Compute2WayPartitionParams(g);

    int32_t* sw = g->sideWeight;
    int32_t d = absInt(t0 - sw[0]);
    int32_t total = sw[0] + sw[1];
    if (3 * (int64_t)total / n <= d && (sw[0] <= t0 || sw[0] >= (int32_t)(t0 * r)) &&
        (sw[1] <= t1 || sw[1] >= (int32_t)(t1 * r))) {
      int32_t rc = g->numBoundary > 0 ? Bnd2WayBalance(control, g, targets)
                                      : General2WayBalance(control, g, targets);
      if (rc != ORDERING_OK) return rc;
    }
    if (refineEdgeCut(control, g, targets) != ORDERING_OK) return ORDERING_NOMEM;
    if (g->separatorWeight < bestCut) {
      bestCut = g->separatorWeight;
      for (int32_t v = 0; v < n; v++) bestSide[v] = g->side[v];
      if (bestCut == 0) break;
    }
  }
  g->separatorWeight = (int32_t)bestCut;
  for (int32_t v = 0; v < n; v++) g->side[v] = bestSide[v];
  return ORDERING_OK;
}

void ComputeSeparatorParams(OrderingGraph* g) {
  int32_t n = g->numVertex;
  int32_t* w = g->sideWeight;
  w[0] = w[1] = w[2] = 0;
  g->numBoundary = 0;
  for (int32_t v = 0; v < n; v++) {
    int32_t s = g->side[v];
    w[s] += g->vertexWeight[v];
    g->boundaryPos[v] = -1;
    if (s != 2) continue;
    boundaryAdd(g, v);
    int32_t reach[3] = {0, 0, 0};
    for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
      int32_t k = g->adjIndex[p];
      reach[g->side[k]] += g->vertexWeight[k];
    }
    g->sideReach[v][0] = reach[0];
    g->sideReach[v][1] = reach[1];
  }
  g->separatorWeight = w[2];
}

int32_t NodeBisection(OrderingControl* control, OrderingGraph* graph, const int32_t* targets) {
  int32_t n = graph->numVertex;
  int32_t coarsenTo = n / 32;
  if (coarsenTo < 40) coarsenTo = 40;
  if (coarsenTo > 99) coarsenTo = 100;
  control->coarsenTo = coarsenTo;
  control->maxVertexWeight = (int32_t)(1.6 * ((targets[0] + targets[1]) / coarsenTo));

  // Coarsening.
  graph->finer = nullptr;
  OrderingGraph* level = graph;
  for (;;) {
    int32_t rc = level == graph ? RandomMatch(control, level) : SortedMatch(control, level);
    if (rc != ORDERING_OK) {
      while (graph->coarser) {
        OrderingGraph* c = graph;
        while (c->coarser) c = c->coarser;
        FreeCoarseLevel(control, c);
      }
      return rc;
    }
    OrderingGraph* coarse = level->coarser;
    int32_t c = coarse->numVertex;
    if (c >= 0.9 * control->numVertex && graph->numEdge / n < 200) {
      // Matching found almost nothing to merge: dissection will not pay.
      FreeCoarseLevel(control, coarse);
      while (graph->coarser) {
        OrderingGraph* x = graph;
        while (x->coarser) x = x->coarser;
        FreeCoarseLevel(control, x);
      }
      return ORDERING_STALL;
    }
    level = coarse;
    if (!(c > coarsenTo && c < 0.9 * level->finer->numVertex && c / 2 < level->numEdge)) break;
  }

  auto freeBelow = [&]() {
    while (graph->coarser) {
      OrderingGraph* x = graph;
      while (x->coarser) x = x->coarser;
      FreeCoarseLevel(control, x);
    }
  };

  if (Init2WayPartition(control, level, targets) != ORDERING_OK) {
    freeBelow();
    return ORDERING_NOMEM;
  }
  Compute2WayPartitionParams(level);
  for (int32_t b = 0; b < level->numBoundary; b++) {
    int32_t v = level->boundaryList[b];
    if (level->adjBegin[v] < level->adjBegin[v + 1]) level->side[v] = 2;
  }
  ComputeSeparatorParams(level);
  NodeRefine(control, level, 6);

  for (;;) {
    int32_t rc = NodeBalance(control, level);
    if (rc == ORDERING_OK) rc = NodeRefineOneSided(control, level, 8);
    if (rc != ORDERING_OK) {
      freeBelow();
      return rc;
    }
    if (level == graph) return ORDERING_OK;
    OrderingGraph* coarse = level;
    level = level->finer;
    if (AllocatePartition(control, level) != ORDERING_OK) {
      freeBelow();
      return ORDERING_NOMEM;
    }
    for (int32_t v = 0; v < level->numVertex; v++)
      level->side[v] = coarse->side[level->coarseMap[v]];
    FreeCoarseLevel(control, coarse);
    ComputeSeparatorParams(level);
  }
}

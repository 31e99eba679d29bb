// Thinning and balancing of a vertex separator.  Moving separator vertex v
// to side `to` pulls its neighbours on the other side into the separator, so
// the separator shrinks by vertexWeight[v] - sideReach[v][other].
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

void recomputeReach(OrderingGraph* g, int32_t v) {
  int32_t reach[3] = {0, 0, 0};
  for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
    int32_t k = g->adjIndex[p];
    reach[g->side[k]] += g->vertexWeight[k];
  }
  g->sideReach[v][0] = reach[0];
  g->sideReach[v][1] = reach[1];
}

// Bounds every gain that a separator vertex can have: its own weight at the
// top, minus the weight of its neighbours at the bottom.
int32_t gainBound(const OrderingGraph* g) {
  int32_t n = g->numVertex;
  int32_t bound = -n;
  for (int32_t v = 0; v < n; v++) {
    int32_t sum = 0;
    for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++)
      sum += g->vertexWeight[g->adjIndex[p]];
    if (sum > bound) bound = sum;
    // A heavy coarse vertex among light ones could outgrow the buckets.
    if (g->vertexWeight[v] > bound) bound = g->vertexWeight[v];
  }
  return bound;
}

inline int32_t badWeightOf(const OrderingControl* control, const OrderingGraph* g) {
  const int32_t* w = g->sideWeight;
  return (int32_t)(0.5 * control->balanceRatio * ((double)w[0] + w[1] + w[2]));
}

// Takes back the steps after bestStep, last first: the moved vertex returns
// to the separator and the vertices that its move pulled in go home.
void undoSteps(OrderingGraph* g, const int32_t* swaps, const int32_t* pulledBegin,
               const int32_t* pulled, int32_t steps, int32_t bestStep) {
  int32_t* w = g->sideWeight;
  const int32_t* vw = g->vertexWeight;
  for (int32_t s = steps - 1; s > bestStep; s--) {
    int32_t v = swaps[s];
    int32_t t = g->side[v];
    int32_t other = 1 - t;
    w[2] += vw[v];
    w[t] -= vw[v];
    g->side[v] = 2;
    boundaryAdd(g, v);
    recomputeReach(g, v);
    for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
      int32_t k = g->adjIndex[p];
      if (g->side[k] == 2) g->sideReach[k][t] -= vw[v];
    }
    for (int32_t j = pulledBegin[s]; j < pulledBegin[s + 1]; j++) {
      int32_t k = pulled[j];
      g->side[k] = other;
      w[other] += vw[k];
      w[2] -= vw[k];
      boundaryRemove(g, k);
      for (int32_t p = g->adjBegin[k]; p < g->adjBegin[k + 1]; p++) {
        int32_t m = g->adjIndex[p];
        if (g->side[m] == 2) g->sideReach[m][other] += vw[k];
      }
    }
  }
}

}  // namespace

int32_t NodeRefine(OrderingControl* control, OrderingGraph* g, int32_t passes) {
  int32_t n = g->numVertex;
  const int32_t* vw = g->vertexWeight;
  int32_t* w = g->sideWeight;
  int32_t (*reach)[2] = g->sideReach;
  // The arrays go on the stack before the queues, so that buckets that no
  // longer fit take the pool instead of running past the workspace.
  int32_t* moved = poolmalloc(control, n);
  int32_t* swaps = poolmalloc(control, n);
  int32_t* pulledBegin = poolmalloc(control, n + 1);
  // A vertex is pulled at most once from where it started and once after
  // its own move, so 2n entries always suffice.
  int32_t* pulled = poolmalloc(control, 2 * (int64_t)n);
  int32_t* perm = poolmalloc(control, n);
  auto freeArrays = [&]() {
    poolfree(control, n);
    poolfree(control, 2 * (int64_t)n);
    poolfree(control, n + 1);
    poolfree(control, n);
    poolfree(control, n);
  };
  int32_t maxGain = gainBound(g);
  PQueueMax queue[2];
  if (PQueueMaxInit(control, &queue[0], n, maxGain) != ORDERING_OK) {
    freeArrays();
    return ORDERING_NOMEM;
  }
  if (PQueueMaxInit(control, &queue[1], n, maxGain) != ORDERING_OK) {
    PQueueMaxFree(control, &queue[0]);
    freeArrays();
    return ORDERING_NOMEM;
  }
  int32_t badWeight = badWeightOf(control, g);

  for (int32_t pass = 0; pass < passes; pass++) {
    for (int32_t v = 0; v < n; v++) moved[v] = -1;
    PQueueMaxReset(&queue[0]);
    PQueueMaxReset(&queue[1]);
    int32_t initCut = g->separatorWeight, bestCut = initCut;
    RandomPermute(g->numBoundary, perm, control);
    for (int32_t i = 0; i < g->numBoundary; i++) {
      int32_t v = g->boundaryList[perm[i]];
      PQueueMaxInsert(&queue[0], v, vw[v] - reach[v][1]);
      PQueueMaxInsert(&queue[1], v, vw[v] - reach[v][0]);
    }
    pulledBegin[0] = 0;
    int32_t numPulled = 0;
    int32_t minDiff = absInt(w[0] - w[1]);
    int32_t limit = 5 * g->numBoundary < 400 ? 5 * g->numBoundary : 400;
    int32_t bestStep = -1, steps = 0;
    for (int32_t s = 0; s < n; s++) {
      int32_t c0 = PQueueMaxSeeMax(&queue[0]);
      int32_t c1 = PQueueMaxSeeMax(&queue[1]);
      int32_t to;
      if (c0 == -1 && c1 == -1) break;
      if (c1 == -1) {
        if (w[0] + vw[c0] > badWeight) break;
        to = 0;
      } else if (c0 == -1) {
        if (w[1] + vw[c1] > badWeight) break;
        to = 1;
      } else {
        int32_t g0 = vw[c0] - reach[c0][1], g1 = vw[c1] - reach[c1][0];
        to = g0 > g1 ? 0 : g1 > g0 ? 1 : pass % 2;
        if (w[to] + vw[to == 0 ? c0 : c1] > badWeight) to = 1 - to;
      }
      int32_t other = 1 - to;
      int32_t v = PQueueMaxGetMax(&queue[to]);
      if (moved[v] == -1) PQueueMaxDelete(&queue[other], v, vw[v] - reach[v][to]);
      int32_t gain = vw[v] - reach[v][other];
      w[2] -= gain;
      int32_t newDiff = absInt(w[to] + vw[v] - (w[other] - reach[v][other]));
      if (w[2] < bestCut || (w[2] == bestCut && newDiff < minDiff)) {
        bestCut = w[2];
        minDiff = newDiff;
        bestStep = s;
      } else if (s - bestStep > limit) {
        w[2] += gain;
        break;
      }
      boundaryRemove(g, v);
      w[to] += vw[v];
      g->side[v] = to;
      moved[v] = s;
      swaps[s] = v;
      steps = s + 1;
      for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
        int32_t k = g->adjIndex[p];
        if (g->side[k] == 2) {
          int32_t old = vw[k] - reach[k][to];
          reach[k][to] += vw[v];
          if (moved[k] == -1 || moved[k] == -(2 + other))
            PQueueMaxUpdate(&queue[other], k, old, old - vw[v]);
        } else if (g->side[k] == other) {
          boundaryAdd(g, k);
          g->side[k] = 2;
          w[other] -= vw[k];
          pulled[numPulled++] = k;
          recomputeReach(g, k);
          for (int32_t q = g->adjBegin[k]; q < g->adjBegin[k + 1]; q++) {
            int32_t m = g->adjIndex[q];
            if (g->side[m] != 2) continue;
            int32_t old = vw[m] - reach[m][other];
            reach[m][other] -= vw[k];
            if (moved[m] == -1 || moved[m] == -(2 + to))
              PQueueMaxUpdate(&queue[to], m, old, old + vw[k]);
          }
          if (moved[k] == -1) {
            PQueueMaxInsert(&queue[to], k, vw[k] - reach[k][other]);
            moved[k] = -(2 + to);
          }
        }
      }
      pulledBegin[s + 1] = numPulled;
    }
    undoSteps(g, swaps, pulledBegin, pulled, steps, bestStep);
    g->separatorWeight = bestCut;
    if (bestStep == -1 || bestCut >= initCut) break;
  }
  PQueueMaxFree(control, &queue[1]);
  PQueueMaxFree(control, &queue[0]);
  freeArrays();
  return ORDERING_OK;
}

int32_t NodeRefineOneSided(OrderingControl* control, OrderingGraph* g, int32_t passes) {
  int32_t n = g->numVertex;
  const int32_t* vw = g->vertexWeight;
  int32_t* w = g->sideWeight;
  int32_t (*reach)[2] = g->sideReach;
  PQueueMax queue;
  if (PQueueMaxInit(control, &queue, n, gainBound(g)) != ORDERING_OK) return ORDERING_NOMEM;
  int32_t* swaps = poolmalloc(control, n);
  int32_t* pulledBegin = poolmalloc(control, n + 1);
  int32_t* pulled = poolmalloc(control, n);
  int32_t* perm = poolmalloc(control, n);
  int32_t badWeight = badWeightOf(control, g);

  int32_t other = w[0] < w[1] ? 1 : 0;
  int32_t to = 1 - other;
  for (int32_t pass = 0; pass < passes; pass++) {
    if (pass > 0) {
      other = to;
      to = 1 - other;
    }
    PQueueMaxReset(&queue);
    int32_t initCut = g->separatorWeight, bestCut = initCut;
    RandomPermute(g->numBoundary, perm, control);
    for (int32_t i = 0; i < g->numBoundary; i++) {
      int32_t v = g->boundaryList[perm[i]];
      PQueueMaxInsert(&queue, v, vw[v] - reach[v][other]);
    }
    pulledBegin[0] = 0;
    int32_t numPulled = 0;
    int32_t minDiff = absInt(w[0] - w[1]);
    int32_t limit = 5 * g->numBoundary < 400 ? 5 * g->numBoundary : 400;
    int32_t bestStep = -1, steps = 0;
    for (int32_t s = 0; s < n; s++) {
      int32_t v = PQueueMaxGetMax(&queue);
      if (v == -1) break;
      if (w[to] + vw[v] > badWeight) break;
      int32_t gain = vw[v] - reach[v][other];
      w[2] -= gain;
      int32_t newDiff = absInt(w[to] - w[other] + vw[v] + reach[v][other]);
      if (w[2] < bestCut || (w[2] == bestCut && newDiff < minDiff)) {
        bestCut = w[2];
        minDiff = newDiff;
        bestStep = s;
      } else if (s - bestStep > limit) {
        w[2] += gain;
        break;
      }
      boundaryRemove(g, v);
      w[to] += vw[v];
      g->side[v] = to;
      swaps[s] = v;
      steps = s + 1;
      for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
        int32_t k = g->adjIndex[p];
        if (g->side[k] == 2) {
          reach[k][to] += vw[v];
        } else if (g->side[k] == other) {
          boundaryAdd(g, k);
          g->side[k] = 2;
          w[other] -= vw[k];
          pulled[numPulled++] = k;
          recomputeReach(g, k);
          for (int32_t q = g->adjBegin[k]; q < g->adjBegin[k + 1]; q++) {
            int32_t m = g->adjIndex[q];
            if (g->side[m] != 2) continue;
            int32_t old = vw[m] - reach[m][other];
            reach[m][other] -= vw[k];
            PQueueMaxUpdateUp(&queue, m, old, old + vw[k]);
          }
          PQueueMaxInsert(&queue, k, vw[k] - reach[k][other]);
        }
      }
      pulledBegin[s + 1] = numPulled;
    }
    undoSteps(g, swaps, pulledBegin, pulled, steps, bestStep);
    g->separatorWeight = bestCut;
    if (pass % 2 == 1 && (bestStep == -1 || bestCut >= initCut)) break;
  }
  poolfree(control, n);
  poolfree(control, n);
  poolfree(control, n + 1);
  poolfree(control, n);
  PQueueMaxFree(control, &queue);
  return ORDERING_OK;
}

int32_t NodeBalance(OrderingControl* control, OrderingGraph* g) {
  int32_t n = g->numVertex;
  const int32_t* vw = g->vertexWeight;
  int32_t* w = g->sideWeight;
  int32_t (*reach)[2] = g->sideReach;
  int32_t d = absInt(w[0] - w[1]);
  if (d < (int32_t)((control->balanceRatio - 1.0) * ((double)w[0] + w[1]))) return ORDERING_OK;
  if (n == 0 || d < 3 * sumInt(n, vw) / n) return ORDERING_OK;
  int32_t to = w[1] <= w[0] ? 1 : 0;
  int32_t other = 1 - to;
  PQueueMax queue;
  if (PQueueMaxInit(control, &queue, n, gainBound(g)) != ORDERING_OK) return ORDERING_NOMEM;
  int32_t* moved = poolmalloc(control, n);
  int32_t* perm = poolmalloc(control, n);
  RandomPermute(g->numBoundary, perm, control);
  for (int32_t i = 0; i < g->numBoundary; i++) {
    int32_t v = g->boundaryList[perm[i]];
    PQueueMaxInsert(&queue, v, vw[v] - reach[v][other]);
  }
  for (int32_t v = 0; v < n; v++) moved[v] = -1;
  for (int32_t s = 0; s < n; s++) {
    int32_t v = PQueueMaxGetMax(&queue);
    if (v == -1) break;
    moved[v] = 1;
    int32_t r = reach[v][other];
    if ((w[0] + w[1]) / 2 > w[other] - r) continue;
    w[2] = w[2] - vw[v] + r;
    boundaryRemove(g, v);
    w[to] += vw[v];
    g->side[v] = to;
    for (int32_t p = g->adjBegin[v]; p < g->adjBegin[v + 1]; p++) {
      int32_t k = g->adjIndex[p];
      if (g->side[k] == 2) {
        reach[k][to] += vw[v];
      } else if (g->side[k] == other) {
        boundaryAdd(g, k);
        g->side[k] = 2;
        w[other] -= vw[k];
        recomputeReach(g, k);
        for (int32_t q = g->adjBegin[k]; q < g->adjBegin[k + 1]; q++) {
          int32_t m = g->adjIndex[q];
          if (g->side[m] != 2) continue;
          int32_t old = vw[m] - reach[m][other];
          reach[m][other] -= vw[k];
          if (moved[m] == -1) PQueueMaxUpdateUp(&queue, m, old, old + vw[k]);
        }
        PQueueMaxInsert(&queue, k, vw[k] - reach[k][other]);
      }
    }
    if (w[other] < w[to]) break;
  }
  g->separatorWeight = w[2];
  poolfree(control, n);
  poolfree(control, n);
  PQueueMaxFree(control, &queue);
  return ORDERING_OK;
}

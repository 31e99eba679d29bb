// The ordering driver: picks a method for a symmetric graph, prepares the
// graph record for nested dissection, and joins the result with the dense
// vertices that were held back.
#include "ordering/ordering.h"

#include "frame/qv.h"
#include "ordering/pqueue.h"

namespace {

void identityOrder(int32_t n, int32_t* perm, int32_t* invPerm) {
  for (int32_t i = 0; i < n; i++) perm[i] = invPerm[i] = i;
}

// Rejects adjacency that would break the quotient graph: starts out of
// order, neighbours out of range, self loops, repeated neighbours, or an
// entry count per vertex that differs from the count of entries naming it
// (a one-sided edge).  mark and count hold n ints each.
bool adjacencyIsSound(int32_t n, const int32_t* adjBegin, const int32_t* adjIndex,
                      int32_t* mark, int32_t* count) {
  if (adjBegin[0] != 0) return false;
  for (int32_t i = 0; i < n; i++) {
    if (adjBegin[i + 1] < adjBegin[i]) return false;
    mark[i] = -1;
    count[i] = 0;
  }
  for (int32_t i = 0; i < n; i++) {
    for (int32_t p = adjBegin[i]; p < adjBegin[i + 1]; p++) {
      int32_t j = adjIndex[p];
      if (j < 0 || j >= n || j == i || mark[j] == i) return false;
      mark[j] = i;
      count[j]++;
    }
  }
  for (int32_t i = 0; i < n; i++)
    if (count[i] != adjBegin[i + 1] - adjBegin[i]) return false;
  return true;
}

void freeTopGraph(QVPool* pool, OrderingGraph* graph) {
  if (graph->graphStorage) poolFree(pool, graph->graphStorage);
  if (graph->origLabel) poolFree(pool, graph->origLabel);
  graph->graphStorage = nullptr;
  graph->origLabel = nullptr;
}

// Minimum-degree run over n vertices whose lengths are computed from
// adjBegin; the n-sized work arrays come from work (7n+1 ints).
void runMinimumDegree(int32_t method, int32_t n, int32_t* adjBegin, int32_t* adjIndex,
                      int32_t adjCapacity, int32_t orderClass, int32_t denseRule,
                      int32_t fallback, int32_t* perm, int32_t* invPerm, int32_t* work) {
  int32_t* len = work;
  int32_t* superSize = work + n;
  int32_t* bucketHead = work + 2 * (int64_t)n;
  int32_t* elementLength = work + 3 * (int64_t)n + 1;
  int32_t* degree = work + 4 * (int64_t)n + 1;
  int32_t* stamp = work + 5 * (int64_t)n + 1;
  int32_t* score = work + 6 * (int64_t)n + 1;
  for (int32_t i = 0; i < n; i++) len[i] = adjBegin[i + 1] - adjBegin[i];
  if (method == ORDER_MINDEG)
    nd_amd(n, adjBegin, adjIndex, len, adjCapacity, adjBegin[n], superSize, invPerm, perm,
           bucketHead, elementLength, degree, stamp, 0, orderClass, fallback);
  else
    nd_amf(n, adjBegin, adjIndex, len, adjCapacity, adjBegin[n], superSize, invPerm, perm,
           bucketHead, elementLength, degree, stamp, score, denseRule, orderClass, fallback);
}

}  // namespace

int32_t RemoveDenseVertices(double denseFactor, OrderingGraph* graph, int32_t n,
                            int32_t* adjBegin, int32_t* adjIndex, int32_t* workspace,
                            const int32_t* inputWeights, QVPool* pool) {
  int32_t avgInt = n > 0 ? adjBegin[n] / n : 0;
  double threshold = avgInt > 0 ? denseFactor * avgInt : denseFactor;
  int32_t* kept = workspace;
  int32_t* map = workspace + n;
  int32_t numKept = 0, numDense = 0;
  int64_t keptDegree = 0;
  for (int32_t v = 0; v < n; v++) {
    int32_t deg = adjBegin[v + 1] - adjBegin[v];
    if ((double)deg >= threshold) {
      numDense++;
      kept[n - numDense] = v;
      map[v] = n - numDense;
    } else {
      map[v] = numKept;
      kept[numKept++] = v;
      keptDegree += deg;
    }
  }

  InitGraph(graph);
  graph->numVertex = numKept;
  graph->adjBegin = adjBegin;
  graph->adjIndex = adjIndex;
  int64_t edgeBound;
  if (numDense == 0) {
    edgeBound = adjBegin[n];
  } else {
    int64_t d = numDense;
    edgeBound = d * (d - 1) + 2 * keptDegree - adjBegin[n];
    if (keptDegree < edgeBound) edgeBound = keptDegree;
    if (edgeBound < 0) edgeBound = 0;
  }
  int32_t* storage = (int32_t*)poolAlloc(pool, 4 * (edgeBound + 3 * (int64_t)numKept), 0);
  if (!storage) return ORDERING_NOMEM;
  graph->graphStorage = storage;
  graph->vertexWeight = storage;
  graph->adjWeightSum = storage + numKept;
  graph->coarseMap = storage + 2 * (int64_t)numKept;
  graph->adjWeight = storage + 3 * (int64_t)numKept;

  if (numDense > 0) {
    // Rewritten in place: kept vertices only, renumbered; a vertex never
    // moves up, so nothing is overwritten before it is read.
    int32_t pos = 0;
    for (int32_t k = 0; k < numKept; k++) {
      int32_t v = kept[k];
      int32_t start = adjBegin[v], end = adjBegin[v + 1];
      adjBegin[k] = pos;
      for (int32_t p = start; p < end; p++) {
        int32_t j = map[adjIndex[p]];
        if (j < numKept) adjIndex[pos++] = j;
      }
    }
    adjBegin[numKept] = pos;
    if (pos > edgeBound) {
      freeTopGraph(pool, graph);
      return ORDERING_SIZE;
    }
    graph->numEdge = pos;
  } else {
    graph->numEdge = adjBegin[n];
  }

  // Kept vertex k takes the caller's weight at position k, not that of the
  // vertex it came from.  Singles (-2) weigh 1, pairs (-1) weigh 2.
  for (int32_t k = 0; k < numKept; k++)
    graph->vertexWeight[k] = inputWeights ? inputWeights[k] + 3 : 1;
  for (int32_t p = 0; p < graph->numEdge; p++) graph->adjWeight[p] = 1;
  for (int32_t k = 0; k < numKept; k++)
    graph->adjWeightSum[k] = adjBegin[k + 1] - adjBegin[k];
  graph->origLabel = (int32_t*)poolAlloc(pool, 4 * (int64_t)(numKept > 0 ? numKept : 1), 0);
  if (!graph->origLabel) {
    freeTopGraph(pool, graph);
    return ORDERING_NOMEM;
  }
  for (int32_t k = 0; k < numKept; k++) graph->origLabel[k] = k;
  return ORDERING_OK;
}

int32_t CompressGraph(int32_t n, int32_t* adjBegin, int32_t* adjIndex, OrderingGraph* out,
                      int32_t* groupBegin, int32_t* groupList, int32_t* mark, QVPool* pool) {
  InitGraph(out);
  out->numVertex = n;
  out->numEdge = adjBegin[n];
  out->adjBegin = adjBegin;
  out->adjIndex = adjIndex;
  if (n <= 0) return 1;
  int32_t* pairs = (int32_t*)poolAlloc(pool, 4 * 4 * (int64_t)n, 0);
  if (!pairs) return 1;
  int32_t* scratch = pairs + 2 * (int64_t)n;
  for (int32_t v = 0; v < n; v++) {
    // Sums of numbers can pass 2^31 on big graphs; wrapping keeps equal
    // neighbourhoods equal, which is all the key is for.
    uint32_t key = (uint32_t)v;
    for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) key += (uint32_t)adjIndex[p];
    pairs[2 * v] = (int32_t)(key & 0x7fffffffu);
    pairs[2 * v + 1] = v;
  }
  ikeysort(n, reinterpret_cast<IKeyValue*>(pairs));

  // mark[v]: group of v once grouped, else -1.  scratch (n ints) stamps the
  // closed neighbourhood of the group's first vertex.
  int32_t* stampOf = scratch;
  for (int32_t v = 0; v < n; v++) {
    mark[v] = -1;
    stampOf[v] = -1;
  }
  int32_t groups = 0, listed = 0;
  for (int32_t a = 0; a < n; a++) {
    int32_t v = pairs[2 * a + 1];
    if (mark[v] != -1) continue;
    int32_t g = groups++;
    groupBegin[g] = listed;
    groupList[listed++] = v;
    mark[v] = g;
    stampOf[v] = g;
    int32_t degV = adjBegin[v + 1] - adjBegin[v];
    for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) stampOf[adjIndex[p]] = g;
    for (int32_t b = a + 1; b < n && pairs[2 * b] == pairs[2 * a]; b++) {
      int32_t u = pairs[2 * b + 1];
      if (mark[u] != -1 || adjBegin[u + 1] - adjBegin[u] != degV || stampOf[u] != g) continue;
      bool same = true;
      for (int32_t p = adjBegin[u]; same && p < adjBegin[u + 1]; p++)
        if (stampOf[adjIndex[p]] != g) same = false;
      if (same) {
        groupList[listed++] = u;
        mark[u] = g;
      }
    }
  }
  groupBegin[groups] = listed;
  if ((double)groups >= 0.85 * n) {
    poolFree(pool, pairs);
    return 1;
  }

  // Adjacency over groups, through each group's first member (all members
  // share the closed neighbourhood).
  int64_t bound = 0;
  for (int32_t g = 0; g < groups; g++) {
    int32_t v = groupList[groupBegin[g]];
    bound += adjBegin[v + 1] - adjBegin[v];
  }
  int32_t* store = (int32_t*)poolAlloc(pool, 4 * (groups + 1 + bound + 2 * (int64_t)groups), 0);
  if (!store) {
    poolFree(pool, pairs);
    return 1;
  }
  int32_t* cBegin = store;
  int32_t* cIndex = store + groups + 1;
  int32_t* seen = pairs;  // reuse: n ints free now
  for (int32_t g = 0; g < groups; g++) seen[g] = -1;
  int32_t pos = 0;
  for (int32_t g = 0; g < groups; g++) {
    cBegin[g] = pos;
    seen[g] = g;
    int32_t v = groupList[groupBegin[g]];
    for (int32_t p = adjBegin[v]; p < adjBegin[v + 1]; p++) {
      int32_t h = mark[adjIndex[p]];
      if (seen[h] != g) {
        seen[h] = g;
        cIndex[pos++] = h;
      }
    }
  }
  cBegin[groups] = pos;
  poolFree(pool, pairs);
  out->graphStorage = store;
  out->numVertex = groups;
  out->numEdge = pos;
  out->adjBegin = cBegin;
  out->adjIndex = cIndex;
  out->vertexWeight = cIndex + bound;
  for (int32_t g = 0; g < groups; g++) out->vertexWeight[g] = groupBegin[g + 1] - groupBegin[g];
  return 0;
}

int32_t OrderChooseMethod(int32_t wanted, int32_t orderClass, int32_t denseRule, int32_t n,
                          double avg) {
  if (wanted == ORDER_MINDEG || wanted == ORDER_MINFILL) return wanted;
  if (wanted != ORDER_AUTO) return ORDER_NESTED;
  if (orderClass == 0) return (n >= 3500 && avg >= 13.0) ? ORDER_NESTED : ORDER_MINFILL;
  if (orderClass == 1) {
    // Alternating bands, tuned on the augmented systems of the solver.
    if (n < 3500) return ORDER_MINFILL;
    if (avg < 3.75) return ORDER_NESTED;
    if (avg < 4.69) return ORDER_MINFILL;
    if (avg < 5.6) return ORDER_NESTED;
    if (avg < 6.5) return ORDER_MINFILL;
    if (avg < 7.0) return ORDER_MINDEG;
    return ORDER_NESTED;
  }
  if (denseRule == 0) return n < 10000 ? ORDER_MINFILL : ORDER_NESTED;
  if (n < 3500) return ORDER_MINFILL;
  return avg < 5.0 ? ORDER_MINFILL : ORDER_NESTED;
}

int32_t OrderGraph(LAEnv* env, int32_t numVertex, int32_t* adjBegin, int32_t* adjIndex,
                   int32_t adjCapacity, int32_t orderClass, const int32_t* inputWeights,
                   int32_t denseRule, int32_t* perm, int32_t* invPerm, int32_t* numDense,
                   int32_t* methodInOut, int32_t separatorsLast, int32_t blockMode,
                   int32_t* blockLabel, int32_t seed, int32_t* workspace, double balanceRatio,
                   double denseFactor) {
  int32_t n = numVertex;
  if (!env || n < 0 || !adjBegin || !methodInOut || (n > 0 && (!perm || !invPerm || !workspace)))
    return ORDERING_SIZE;
  if (n == 0) {
    *methodInOut = ORDER_NATURAL;
    return ORDERING_OK;
  }
  int32_t nnz = adjBegin[n];
  if (nnz < 0 || (nnz > 0 && !adjIndex) || adjCapacity < nnz) return ORDERING_SIZE;
  double avg = (double)nnz / (double)n;
  if (nnz == 0 || avg > (double)(n / 4)) {
    identityOrder(n, perm, invPerm);
    *methodInOut = ORDER_NATURAL;
    return ORDERING_OK;
  }
  if (!adjacencyIsSound(n, adjBegin, adjIndex, workspace, workspace + n)) return ORDERING_SIZE;

  if (balanceRatio == 0.0) {
    if (avg > 1600.0)
      balanceRatio = 1.2;
    else if (avg > 1000.0)
      balanceRatio = 1.25;
    else if (avg > 440.0)
      balanceRatio = 1.3;
    else if (avg > 360.0)
      balanceRatio = 1.35;
    else if (avg >= 4.0)
      balanceRatio = 1.4;
    else
      balanceRatio = 1.45;
  }
  if (denseFactor == -1.0) denseFactor = 50.0;
  if (seed == 0) seed = 4321;

  int32_t method = OrderChooseMethod(*methodInOut, orderClass, denseRule, n, avg);
  if (method != ORDER_NESTED) {
    // The minimum-degree codes need one element's worth of elbow room.
    if ((int64_t)adjCapacity < (int64_t)nnz + n) return ORDERING_SIZE;
    *methodInOut = method;
    runMinimumDegree(method, n, adjBegin, adjIndex, adjCapacity, orderClass,
                     method == ORDER_MINFILL ? denseRule : 0, 0, perm, invPerm, workspace);
    return ORDERING_OK;
  }

  // Nested dissection.
  *methodInOut = ORDER_NESTED;
  qvRand(&seed);
  QVPool* pool = envPool(env);
  OrderingGraph graph;
  InitGraph(&graph);
  int32_t rc = RemoveDenseVertices(denseFactor, &graph, n, adjBegin, adjIndex, workspace,
                                   inputWeights, pool);
  if (rc != ORDERING_OK) {
    freeTopGraph(pool, &graph);
    return rc;
  }
  int32_t kept = graph.numVertex;
  if (numDense) *numDense = n - kept;

  OrderingControl control = {};
  control.numVertex = kept;
  control.seed = seed;
  control.separatorsLast = separatorsLast;
  control.balanceRatio = balanceRatio;
  control.denseFactor = denseFactor;
  control.blockMode = blockMode;
  control.blockLabel = blockLabel;
  control.env = env;
  rc = AllocateWorkSpace(&control, &graph);
  if (rc != ORDERING_OK) {
    freeTopGraph(pool, &graph);
    return rc;
  }
  control.separatorList = workspace + n;
  control.vertexScratch = workspace + 2 * (int64_t)n;
  int32_t* keptList = workspace;

  rc = NestedDissection(&control, &graph, invPerm, kept);
  bool ordered = false;  // invPerm holds an order in the kept numbering
  if (rc == ORDERING_STALL) {
    // Coarsening got nowhere: minimum fill on what dense removal left, with
    // the stack workspace as its arrays.
    *methodInOut = ORDER_MINFILL;
    if (control.workIntsSize < 7 * (int64_t)kept + 1 ||
        (int64_t)adjCapacity < (int64_t)adjBegin[kept] + kept) {
      rc = ORDERING_SIZE;
    } else {
      runMinimumDegree(ORDER_MINFILL, kept, adjBegin, adjIndex, adjCapacity, orderClass, 0, 1,
                       perm, invPerm, control.workInts);
      rc = ORDERING_OK;
      ordered = true;
      control.numSeparator = 0;
    }
  } else if (rc == ORDERING_OK) {
    ordered = blockMode == 0;
  }
  poolFree(pool, control.workBase);
  freeTopGraph(pool, &graph);
  if (rc != ORDERING_OK) return rc;

  if (!ordered) {
    // Labels only: close the gap between leaf and separator labels.  The
    // shift uses the caller's n, not the kept count.
    int32_t S = control.numSeparatorBlock, L = control.numLeafBlock;
    if (blockLabel)
      for (int32_t k = 0; k < kept; k++)
        if (blockLabel[k] >= L) blockLabel[k] -= n - S - L;
    for (int32_t i = 0; i < n; i++) perm[i] = keptList[i];
    for (int32_t i = 0; i < n; i++) invPerm[perm[i]] = i;
    return ORDERING_OK;
  }

  if (kept < n) {
    for (int32_t i = 0; i < kept; i++) perm[i] = invPerm[i];
    for (int32_t i = 0; i < kept; i++) invPerm[keptList[i]] = perm[i];
    // The first dense vertex found sits last in the list, so dense vertices
    // close the order in descending number.
    for (int32_t i = kept; i < n; i++) invPerm[keptList[i]] = i;
  }
  for (int32_t i = 0; i < n; i++) perm[invPerm[i]] = i;

  if (separatorsLast && control.numSeparator > 0) {
    int32_t* sep = control.separatorList;
    int32_t ns = control.numSeparator;
    if (kept < n)
      for (int32_t s = 0; s < ns; s++) sep[s] = keptList[sep[s]];
    for (int32_t s = 0; s < ns; s++) perm[invPerm[sep[s]]] = -1;
    int32_t next = 0;
    for (int32_t pos = 0; pos < kept; pos++)
      if (perm[pos] != -1) invPerm[perm[pos]] = next++;
    int32_t down = kept - 1;
    for (int32_t s = 0; s < ns; s++) invPerm[sep[s]] = down--;
    for (int32_t i = 0; i < n; i++) perm[invPerm[i]] = i;
  }
  return ORDERING_OK;
}

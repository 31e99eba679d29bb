// The LDL analysis driver: one call from a symmetric pattern to the plan that
// factor and solve work on, and the clean-up that releases it.
#include <string.h>

#include "la/la_internal.h"
#include "la/la_numeric_internal.h"
#include "ordering/ordering.h"

bool laHalvesMatch(int32_t n, const int32_t* colBegin, const int32_t* rowIndex) {
  int64_t above = 0, below = 0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      if (rowIndex[p] < j) above++;
      else if (rowIndex[p] > j) below++;
    }
  return above == below;
}

// Bad input is reported, never followed.
bool laPatternIsWellFormed(int32_t n, const int32_t* colBegin, const int32_t* rowIndex) {
  if (n < 0 || !colBegin) return false;
  if (n == 0) return true;
  if (colBegin[0] != 0) return false;
  for (int32_t j = 0; j < n; j++)
    if (colBegin[j + 1] < colBegin[j]) return false;
  if (colBegin[n] > 0 && !rowIndex) return false;
  for (int32_t p = 0; p < colBegin[n]; p++)
    if (rowIndex[p] < 0 || rowIndex[p] >= n) return false;
  return true;
}

namespace {

// Expands the ordering of the compressed graph to all n positions.  perm
// and invPerm hold the compressed order on entry; pivots holds one marker
// per group.  tmp: 2n entries.
int32_t expandOrder(int32_t n, int32_t nc, LASymbolic* sym, const int32_t* perm0, int32_t* tmp) {
  int32_t* perm = sym->perm;
  int32_t* pivots = sym->pivots;
  if (nc == n) {
    for (int32_t i = 0; i < n; i++) tmp[i] = pivots[perm[i]];
    for (int32_t i = 0; i < n; i++) {
      pivots[i] = tmp[i];
      perm[i] = perm0[perm[i]];
    }
  } else {
    int32_t* groupFirst = tmp;
    int32_t* newPerm = tmp + n;
    int32_t pos = 0;
    for (int32_t g = 0; g < nc; g++) {
      groupFirst[g] = pos;
      pos += pivots[g] == LA_PIVOT_PAIR ? 2 : 1;
    }
    if (pos != n) return LA_ERR_INTERNAL;
    // Marks per position go to groupFirst's tail only after it is read.
    int32_t out = 0;
    for (int32_t k = 0; k < nc; k++) {
      int32_t g = perm[k];
      int32_t first = groupFirst[g];
      newPerm[out++] = perm0[first];
      if (pivots[g] == LA_PIVOT_PAIR) {
        if (out >= n) return LA_ERR_INTERNAL;
        newPerm[out++] = perm0[first + 1];
      }
    }
    if (out != n) return LA_ERR_INTERNAL;
    // Pair members stay adjacent: mark them by the groups in ordering order.
    out = 0;
    for (int32_t k = 0; k < nc; k++) {
      int32_t g = perm[k];
      if (pivots[g] == LA_PIVOT_PAIR) {
        tmp[out++] = LA_PIVOT_PAIR;
        tmp[out++] = LA_PIVOT_PAIR;
      } else {
        tmp[out++] = LA_PIVOT_SINGLE;
      }
    }
    memcpy(pivots, tmp, sizeof(int32_t) * (size_t)n);
    memcpy(perm, newPerm, sizeof(int32_t) * (size_t)n);
  }
  for (int32_t i = 0; i < n; i++) sym->invPerm[i] = -1;
  for (int32_t i = 0; i < n; i++) {
    int32_t v = perm[i];
    if (v < 0 || v >= n || sym->invPerm[v] != -1) return LA_ERR_INTERNAL;
    sym->invPerm[v] = i;
  }
  return LA_OK;
}

}  // namespace

// The re-ordering of a nested-dissection result inside its blocks.  Its
// eleven work arrays are taken from the pool for the one call: the path is
// off by default and would otherwise size the analysis block for everyone.
int32_t laConstrainedReorder(LAEnv* env, int32_t nc, int32_t numDense,
                           int32_t* cBegin, int32_t* cIndex, int32_t capacity,
                           const int32_t* blockLabel, LASymbolic* sym, int32_t* tmp) {
  int32_t m = nc - numDense;
  if (numDense > 0) {
    int32_t status = PruneMatrixWithPerm(nc, m, cBegin, cIndex, sym->invPerm);
    if (status) return status;
  }
  int64_t stride = (int64_t)m + 1;
  int32_t* area = static_cast<int32_t*>(laAlloc(env->pool, 11 * stride * (int64_t)sizeof(int32_t)));
  if (!area) return LA_ERR_MEMORY;
  int32_t* listLength = area;
  int32_t* superSize = area + stride;
  int32_t* nextInList = area + 2 * stride;
  int32_t* prevInList = area + 3 * stride;
  int32_t* bucketHead = area + 4 * stride;
  int32_t* elementLength = area + 5 * stride;
  int32_t* degree = area + 6 * stride;
  int32_t* stamp = area + 7 * stride;
  int32_t* score = area + 8 * stride;
  int32_t* labelOrder = area + 9 * stride;
  for (int32_t j = 0; j < m; j++) listLength[j] = cBegin[j + 1] - cBegin[j];
  nd_camf(m, cBegin, cIndex, listLength, capacity, cBegin[m], blockLabel, superSize, nextInList,
          prevInList, bucketHead, elementLength, degree, stamp, score, labelOrder,
          env->orderClass);
  if (numDense > 0) {
    // Pruned vertex v stands for the vertex at position v of the old order.
    for (int32_t v = 0; v < m; v++) tmp[v] = sym->perm[v];
    for (int32_t v = 0; v < m; v++) sym->invPerm[tmp[v]] = nextInList[v];
    for (int32_t v = 0; v < nc; v++) sym->perm[sym->invPerm[v]] = v;
  } else {
    memcpy(sym->perm, prevInList, sizeof(int32_t) * (size_t)nc);
    memcpy(sym->invPerm, nextInList, sizeof(int32_t) * (size_t)nc);
  }
  laFree(env->pool, area);
  return LA_OK;
}

int32_t InitMemoryAndStructsLDL(LAEnv* env, int32_t n, int32_t nnz, LASymbolic** symbolic,
                                LANumeric** numeric) {
  QVPool* pool = env->pool;
  LASymbolic* sym = static_cast<LASymbolic*>(laAlloc(pool, sizeof(LASymbolic), POOL_ZERO));
  if (!sym) return LA_ERR_MEMORY;
  memset(sym, 0, sizeof(LASymbolic));
  *symbolic = sym;
  LANumeric* num = static_cast<LANumeric*>(laAlloc(pool, sizeof(LANumeric), POOL_ZERO));
  if (!num) return LA_ERR_MEMORY;
  memset(num, 0, sizeof(LANumeric));
  *numeric = num;
  sym->n = n;
  sym->kind = 1;
  sym->threadsUsed = 1;

  double size1 = (2.0 * n + 2.0) * 8.0 + 0x75 + 0x34 * (double)n;
  double a = (2.0 * n + 2.0 + nnz) * 8.0, b = ((double)n + 1.2 * nnz) * 4.0;
  double size2 = (a > b ? a : b) + 15.0;
  if (size1 >= LA_SIZE_LIMIT || size2 >= LA_SIZE_LIMIT || size1 + size2 >= 9.2e18)
    return LA_ERR_MEMORY;
  num->block1Size = (uint64_t)align16Down((int64_t)size1);
  num->block2Size = (uint64_t)align16Down((int64_t)size2);
  num->block = laAlloc(pool, (int64_t)(num->block1Size + num->block2Size), 0);
  if (!num->block) return LA_ERR_MEMORY;
  char* base = static_cast<char*>(num->block);
  num->block2 = base + num->block1Size;
  int32_t* ints = static_cast<int32_t*>(num->block);
  sym->snodeParent = ints;
  sym->perm = ints + n;
  sym->invPerm = ints + 2 * (int64_t)n;
  sym->pivots = ints + 3 * (int64_t)n;
  sym->colToSNode = ints + 4 * (int64_t)n;
  sym->snodeStart = ints + 5 * (int64_t)n;
  // Until the patterns are built the scratch starts right behind these.
  num->scratch = base + align16Up((6 * (int64_t)n + 1) * 4);
  num->lowerCopy.numRows = n;
  num->lowerCopy.numCols = n;
  return LA_OK;
}

int32_t PermuteCompressMatrix(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                              int32_t* pivots, const int32_t* perm0, const int32_t* invPerm0,
                              int32_t numCompressed, int32_t* outBegin, int32_t* outIndex,
                              int32_t* work) {
  // The caller may write an entry more than once (the factor adds the parts
  // up), but the graph must name each neighbour once: the orderings refuse
  // repeated edges, and a repeat would also inflate the degrees that choose
  // the method and the dense vertices.  lastSeen[r] is the last position
  // that took row r.
  int32_t* lastSeen = work;
  for (int32_t r = 0; r < n; r++) lastSeen[r] = -1;
  int32_t count = 0;
  for (int32_t i = 0; i < n; i++) {
    int32_t old = perm0[i];
    outBegin[i] = count;
    lastSeen[i] = i;  // no diagonal
    for (int32_t p = colBegin[old]; p < colBegin[old + 1]; p++) {
      int32_t r = invPerm0[rowIndex[p]];
      if (lastSeen[r] != i) {
        lastSeen[r] = i;
        outIndex[count++] = r;
      }
    }
  }
  outBegin[n] = count;
  if (numCompressed == n) return LA_OK;

  int32_t* groupOf = work;
  int32_t* marker = work + n;
  int32_t groups = 0;
  for (int32_t pos = 0; pos < n;) {
    if (pivots[pos] == LA_PIVOT_PAIR) {
      if (pos + 1 >= n || pivots[pos + 1] != LA_PIVOT_PAIR) return LA_ERR_INTERNAL;
      groupOf[pos] = groupOf[pos + 1] = groups++;
      pos += 2;
    } else {
      groupOf[pos++] = groups++;
    }
  }
  if (groups != numCompressed) return LA_ERR_INTERNAL;
  for (int32_t g = 0; g < groups; g++) marker[g] = -1;

  // In place: a group never writes more than its columns held, and it reads
  // its begins before it writes its own.
  int32_t out = 0, written = 0;
  for (int32_t pos = 0; pos < n;) {
    int32_t g = groupOf[pos];
    bool pair = pos + 1 < n && groupOf[pos + 1] == g;
    int32_t beg = outBegin[pos];
    int32_t end = outBegin[pos + (pair ? 2 : 1)];
    outBegin[g] = out;
    if (pair) {
      marker[g] = g;
      for (int32_t p = beg; p < end; p++) {
        int32_t h = groupOf[outIndex[p]];
        if (marker[h] != g) {
          marker[h] = g;
          outIndex[out++] = h;
        }
      }
    } else {
      for (int32_t p = beg; p < end; p++) {
        int32_t v = outIndex[p];
        int32_t h = groupOf[v];
        bool hPair = (v + 1 < n && groupOf[v + 1] == h) || (v > 0 && groupOf[v - 1] == h);
        if (!hPair) {
          outIndex[out++] = h;
        } else if (marker[h] != g) {
          marker[h] = g;
          outIndex[out++] = h;
        }
      }
    }
    pivots[g] = pair ? LA_PIVOT_PAIR : LA_PIVOT_SINGLE;
    written++;
    pos += pair ? 2 : 1;
  }
  outBegin[groups] = out;
  return written == numCompressed ? LA_OK : LA_ERR_INTERNAL;
}

int32_t ChooseTaskCapacity(int32_t numLeaves, int32_t numSNodes) {
  if (numLeaves <= 100000) return 10000;
  double r = numSNodes > 0 ? (double)numLeaves / (double)numSNodes : 0.0;
  if (r < 0.85) return 20000;
  if (r >= 0.95) return 10000;
  if (numLeaves <= 300000) return 10000;
  if (numLeaves <= 450000) return 20000;
  return 40000;
}

HALVEX_EXPORT int32_t LA_AnalyzeMatrixLDL(int32_t n, const int32_t* colBegin,
                                          const int32_t* rowIndex, const double* value,
                                          LAEnv* env, LASymbolic** symbolic,
                                          LANumeric** numeric) {
  return laAnalyzeWithPlan(n, colBegin, rowIndex, value, env, symbolic, numeric, 0, 0);
}

int32_t laAnalyzeWithPlan(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                          const double* value, LAEnv* env, LASymbolic** symbolic,
                          LANumeric** numeric, int32_t forcedThreads, int32_t forcedBlockSize) {
  if (!symbolic || !numeric) return LA_ERR_INTERNAL;
  *symbolic = nullptr;
  *numeric = nullptr;
  if (!env || !env->pool) return LA_ERR_INTERNAL;
  if (!laPatternIsWellFormed(n, colBegin, rowIndex)) return LA_ERR_INTERNAL;
  int32_t nnz = n > 0 ? colBegin[n] : 0;
  QVPool* pool = env->pool;

  // 1. Records and the analysis block.
  int32_t status = InitMemoryAndStructsLDL(env, n, nnz, symbolic, numeric);
  if (status) return status;
  LASymbolic* sym = *symbolic;
  LANumeric* num = *numeric;
  char* base = static_cast<char*>(num->block);
  int32_t* block2Ints = static_cast<int32_t*>(num->block2);

  // The halves are counted once here too, before the ordering sees a graph
  // that is not symmetric in size.
  if (!laHalvesMatch(n, colBegin, rowIndex)) return LA_ERR_INTERNAL;

  // Ordering-phase scratch: perm0, invPerm0, a copy of pivots, blockLabel,
  // then the ordering workspace (7n + 1).
  int32_t* scratch = static_cast<int32_t*>(num->scratch);
  int32_t* perm0 = scratch;
  int32_t* invPerm0 = scratch + n;
  int32_t* pivotsCopy = scratch + 2 * (int64_t)n;
  int32_t* blockLabel = scratch + 3 * (int64_t)n;
  int32_t* workspace = scratch + 4 * (int64_t)n;
  if ((char*)(workspace + 7 * (int64_t)n + 1) > base + num->block1Size) return LA_ERR_INTERNAL;

  // 2. Static permutation, if asked for; otherwise every vertex is single.
  int32_t numSingle = n, numPair = 0;
  if (env->useStaticPermAug || env->useStaticPermGen) {
    if (nnz > 0 && !value) return LA_ERR_INTERNAL;  // the matching weighs values
    // The matching reads values; its work lives in the free second section.
    double* dblWork = static_cast<double*>(num->block2);
    if (env->useStaticPermAug) {
      status = FindStaticPermAug(pool, n, env->numLeadingRows, n - env->numLeadingRows, colBegin,
                                 rowIndex, value, env->requirePerfect, perm0, &numSingle,
                                 &numPair, sym->pivots, workspace, dblWork);
    } else {
      status = FindStaticPermGen(pool, n, colBegin, rowIndex, value, env->requirePerfect, perm0,
                                 &numSingle, &numPair, sym->pivots, workspace, dblWork);
    }
    if (status) return status;
    if (numSingle < 0 || numPair < 0 || numSingle + 2 * (int64_t)numPair != n)
      return LA_ERR_INTERNAL;
  } else {
    for (int32_t i = 0; i < n; i++) {
      perm0[i] = i;
      sym->pivots[i] = LA_PIVOT_SINGLE;
    }
  }
  int32_t nc = numSingle + numPair;

  // 3. invPerm0; keep pivots if the constrained path will need them again.
  for (int32_t i = 0; i < n; i++) invPerm0[i] = -1;
  for (int32_t i = 0; i < n; i++) {
    int32_t v = perm0[i];
    if (v < 0 || v >= n || invPerm0[v] != -1) return LA_ERR_INTERNAL;
    invPerm0[v] = i;
  }
  bool keepPivots = env->useConstrainedOrdering == 1 && nc < n;
  if (keepPivots) memcpy(pivotsCopy, sym->pivots, sizeof(int32_t) * (size_t)n);

  // 4. The graph that the ordering sees, in the second section.
  int32_t* cBegin = block2Ints;
  int32_t* cIndex = block2Ints + n + 1;
  int64_t capacity64 = (int64_t)(num->block2Size / 4) - n - 1;
  int32_t capacity = capacity64 > INT32_MAX ? INT32_MAX : (int32_t)capacity64;
  if (n > 0) {
    status = PermuteCompressMatrix(n, colBegin, rowIndex, sym->pivots, perm0, invPerm0, nc, cBegin,
                                   cIndex, workspace);
    if (status) return status;
  }

  // 5. Ordering.
  int32_t method = env->orderingMethod;
  int32_t numDense = 0;
  if (nc > 0) {
    status = OrderGraph(env, nc, cBegin, cIndex, capacity, env->orderClass,
                        numSingle != n ? sym->pivots : nullptr, 1, sym->perm, sym->invPerm,
                        &numDense, &method, 1, env->useConstrainedOrdering, blockLabel, 0,
                        workspace, 0.0, -1.0);
    if (status) return status;
  }

  // 6. Constrained re-ordering of a nested-dissection result.
  if (env->useConstrainedOrdering == 1 && method == ORDER_NESTED && nc > 0) {
    if (keepPivots) memcpy(sym->pivots, pivotsCopy, sizeof(int32_t) * (size_t)n);
    for (int32_t i = 0; i < n; i++) invPerm0[perm0[i]] = i;
    status = PermuteCompressMatrix(n, colBegin, rowIndex, sym->pivots, perm0, invPerm0, nc, cBegin,
                                   cIndex, workspace);
    if (status) return status;
    if (numDense < 0 || numDense > nc) return LA_ERR_INTERNAL;
    status = laConstrainedReorder(env, nc, numDense, cBegin, cIndex, capacity, blockLabel, sym,
                                workspace);
    if (status) return status;
  }

  // 7. Back to all n positions.
  if (n > 0) {
    status = expandOrder(n, nc, sym, perm0, workspace);
    if (status) return status;
  }

  // 8. Patterns and tree.  From here on rowBegin, factorBegin and the
  // scratch sit at their final places.
  int64_t finalAt = align16Down((6 * (int64_t)n + 6) * 4 + 15);
  sym->rowBegin = reinterpret_cast<int64_t*>(base + finalAt);
  sym->factorBegin = sym->rowBegin + n + 1;
  num->scratch = sym->factorBegin + n + 1;
  int32_t* fscratch = static_cast<int32_t*>(num->scratch);
  int32_t* parent = fscratch;
  int32_t* colCounts = fscratch + n;
  int32_t* work = fscratch + 2 * (int64_t)n;
  if ((char*)(work + 5 * (int64_t)n + 1) > base + num->block1Size) return LA_ERR_INTERNAL;

  LAMatrix upper, lower;
  memset(&upper, 0, sizeof(upper));
  memset(&lower, 0, sizeof(lower));
  int32_t half = nnz / 2;
  upper.colBegin = block2Ints;
  upper.rowIndex = block2Ints + n + 1;
  upper.numCoef = half;
  lower.colBegin = upper.rowIndex + half;
  lower.rowIndex = lower.colBegin + n + 1;
  lower.numCoef = half;
  status = PermuteSymMatrixPattern(n, colBegin, rowIndex, 0, &upper, &lower, sym->perm, sym->invPerm);
  if (status) return status;
  if (n > 0) {
    BuildETree(&upper, parent, work);
    PostOrder(n, parent, sym, work);
  }
  upper.numCoef = half;
  status = PermuteSymMatrixPattern(n, colBegin, rowIndex, 1, &upper, &lower, sym->perm, sym->invPerm);
  if (status) return status;

  // lowerCopy: values first, then rows, then begins, all in the second
  // section; filled by each factor step.
  int64_t lowerCount = (int64_t)nnz - upper.numCoef;
  if ((uint64_t)(lowerCount * 12 + 4 * ((int64_t)n + 1)) > num->block2Size) return LA_ERR_INTERNAL;
  num->lowerCopy.numCoef = (int32_t)lowerCount;
  num->lowerCopy.value = static_cast<double*>(num->block2);
  num->lowerCopy.rowIndex = reinterpret_cast<int32_t*>(num->lowerCopy.value + lowerCount);
  num->lowerCopy.colBegin = num->lowerCopy.rowIndex + lowerCount;

  FindColCounts(&lower, parent, colCounts, &sym->estFactorEntries, &sym->estOperations, work);
  if (sym->estFactorEntries >= LA_SIZE_LIMIT) return LA_ERR_TOO_BIG;
  ChooseSequentialOrThreaded(sym, env->numThreads, 1);
  if (forcedThreads > 0 && forcedBlockSize > 0) {
    sym->threaded = 1;
    sym->threadsUsed = forcedThreads;
    sym->blockSize = forcedBlockSize;
  }
  status = SupernodalAnalysis(env, n, &upper, env->orderClass, 1 - sym->threaded, parent,
                              colCounts, sym, num, work);
  if (status) return status;

  // 9. Factor and per-thread kernel areas.
  int32_t threads = sym->threadsUsed;
  double factorBytes = (double)sym->numFactorEntries * 8.0;
  if (factorBytes >= LA_SIZE_LIMIT) return LA_ERR_TOO_BIG;
  sym->factor = static_cast<double*>(laAlloc(pool, sym->numFactorEntries * 8));
  if (!sym->factor) return LA_ERR_MEMORY;
  // The solves' copies of the narrow diagonal blocks: at most
  // LA_DIAG_COPY_COLS doubles per column, plus the composed interchanges.
  sym->diagCopyBegin =
      static_cast<int64_t*>(laAlloc(pool, ((int64_t)sym->numSNodes + 1) * 8));
  if (!sym->diagCopyBegin) return LA_ERR_MEMORY;
  int64_t copyEntries = laDiagCopyLayout(sym);
  sym->diagCopy = static_cast<double*>(
      laAlloc(pool, copyEntries * 8 + ((int64_t)n * 4 + sym->numRowEntries) * 4));
  if (!sym->diagCopy) return LA_ERR_MEMORY;
  sym->diagCopyPairs = reinterpret_cast<int32_t*>(sym->diagCopy + copyEntries);
  sym->solvePos = sym->diagCopyPairs + n;
  sym->solvePerm = sym->solvePos + n;
  sym->solveInvPerm = sym->solvePerm + n;
  sym->solveRowList = sym->solveInvPerm + n;
  for (int32_t s = 0; s < sym->numSNodes; s++) sym->diagCopyPairs[sym->snodeStart[s]] = -1;
  if (sym->threaded) num->panelWidth = sym->blockSize;
  num->panelBuffers = static_cast<double*>(
      laAlloc(pool, (int64_t)num->panelWidth * LA_SEQ_PANEL_WIDTH * 8 * threads));
  if (!num->panelBuffers) return LA_ERR_MEMORY;
  num->packBuffers = laAlloc(pool, (int64_t)LA_PACK_BUFFER_BYTES * threads);
  if (!num->packBuffers) return LA_ERR_MEMORY;

  // 10. Sequential path: one work area.
  if (!sym->threaded) {
    sym->work = laAlloc(pool, ((int64_t)sym->updateBufferSize + sym->panelBufferSize) * 8);
    return sym->work ? LA_OK : LA_ERR_MEMORY;
  }

  // 11. Threaded path: block tables, slots, per-thread work, leaves.
  status = FindBlockSizes(pool, sym, work);
  if (status) return status;
  status = FindBlockDependencyCounts(sym, num);
  if (status) return status;
  int32_t nb = sym->blockSize;
  int64_t slotBase = 0, panel = 0;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int64_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    if (c > nb) {
      if (r / nb > slotBase) slotBase = r / nb;
    } else if (c * r > panel) {
      panel = c * r;
    }
  }
  if (panel > INT32_MAX || slotBase * threads > INT32_MAX) return LA_ERR_TOO_BIG;
  sym->panelBufferSize = (int32_t)panel;
  sym->numSlots = (int32_t)(slotBase * threads);

  sym->slotPool = static_cast<LASlotPool*>(laAlloc(pool, sizeof(LASlotPool), POOL_ZERO));
  if (!sym->slotPool) return LA_ERR_MEMORY;
  memset(sym->slotPool, 0, sizeof(LASlotPool));
  if (sym->numSlots > 0) {
    sym->slotPool->data = static_cast<double*>(
        laAlloc(pool, (int64_t)sym->numSlots * nb * nb * (int64_t)sizeof(double)));
    if (!sym->slotPool->data) return LA_ERR_MEMORY;
    sym->slotPool->inUse = static_cast<int32_t*>(
        laAlloc(pool, 2 * (int64_t)sym->numSlots * (int64_t)sizeof(int32_t), POOL_ZERO));
    if (!sym->slotPool->inUse) return LA_ERR_MEMORY;
    sym->slotPool->refCount = sym->slotPool->inUse + sym->numSlots;
  }

  int64_t relEntries = n > 2 * nb ? n : 2 * nb;
  int64_t stride = align16Up(((int64_t)sym->updateBufferSize + sym->panelBufferSize) * 8 + 16 +
                             relEntries * 4);
  sym->work = laAlloc(pool, stride * threads);
  if (!sym->work) return LA_ERR_MEMORY;

  sym->leaves = static_cast<int32_t*>(laAlloc(pool, (int64_t)sym->numSNodes * 4));
  if (!sym->leaves) return LA_ERR_MEMORY;
  GetLeaves(sym, num);
  sym->taskCapacity = ChooseTaskCapacity(sym->numLeaves, sym->numSNodes);
  return LA_OK;
}

void laReleasePlan(QVPool* pool, LASymbolic* sym, LANumeric* num) {
  if (num) {
    laFree(pool, num->block);
    laFree(pool, num->panelBuffers);
    laFree(pool, num->packBuffers);
  }
  if (sym) {
    laFree(pool, sym->rowList);
    laFree(pool, sym->factor);
    laFree(pool, sym->diagCopyBegin);
    laFree(pool, sym->diagCopy);
    laFree(pool, sym->work);
    if (sym->blockDeps) {
      laFree(pool, sym->blockDeps[0]);
      laFree(pool, sym->blockDeps);
    }
    if (sym->blockDepsInit) {
      laFree(pool, sym->blockDepsInit[0]);
      laFree(pool, sym->blockDepsInit);
    }
    if (sym->blockLocks) {
      laFree(pool, sym->blockLocks[0]);
      laFree(pool, sym->blockLocks);
    }
    laFree(pool, sym->leaves);
    laFree(pool, sym->cholInfo);
    if (sym->slotPool) {
      laFree(pool, sym->slotPool->data);
      laFree(pool, sym->slotPool->inUse);
      laFree(pool, sym->slotPool);
    }
  }
  laFree(pool, sym);
  laFree(pool, num);
}

HALVEX_EXPORT void LA_CleanUpLDL(LAEnv* env, LASymbolic** symbolic, LANumeric** numeric) {
  if (!env || !env->pool) return;
  laReleasePlan(env->pool, symbolic ? *symbolic : nullptr, numeric ? *numeric : nullptr);
}

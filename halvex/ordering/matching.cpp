// Static pivot orders by matching.  A matching that puts large entries on
// the diagonal, or pairs them into 2x2 blocks, lets the LDL' factor keep its
// pivot order fixed; the analysis then orders the pairs as single vertices.
//
// Costs are logarithms, ln(colmax / |a|), so that the cheapest transversal
// is the one of largest scaled product.  A stored zero costs the largest
// double and is never part of a path.
#include <math.h>

#include "frame/qv.h"
#include "ordering/ordering.h"
#include "ordering/pqueue.h"

namespace {

const double kNoCost = 1.7976931348623157e308;
// Keys this close to the smallest are taken out of the heap together: ties
// of floating sums would otherwise cost a heap operation each.
const double kBatchFactor = 1.00000000000001;
// A search that has found a free row and still holds this many candidates
// is not worth finishing: the first path found is good enough.
const int32_t kHeapLimit = 100;

// States of a row in the augmenting search, beside the heap positions that
// the locator holds while a row is queued there.
const int32_t kUntouched = -1;
const int32_t kInBatch = -2;
const int32_t kVisited = -3;

// Magnitudes in, costs out.  A non-finite maximum is refused with the empty
// and zero columns: its costs would all be NaN.
int32_t costsFromMagnitudes(int32_t nCols, const int32_t* colBegin, double* cost) {
  for (int32_t j = 0; j < nCols; j++) {
    int32_t beg = colBegin[j], end = colBegin[j + 1];
    if (beg == end) return ORDERING_UNFIT;
    double m = 0.0;
    for (int32_t p = beg; p < end; p++)
      if (cost[p] > m) m = cost[p];
    if (!(m > 0.0) || m > kNoCost) return ORDERING_UNFIT;
    for (int32_t p = beg; p < end; p++)
      cost[p] = cost[p] > 0.0 ? log(m / cost[p]) : kNoCost;
  }
  return ORDERING_OK;
}

// Takes entry p off column j's tight list; prev is its predecessor or -1.
// The links live in the cost slots, so the entry gets its cost 0 back.
inline void unlinkTight(double* cost, int32_t* listHead, int32_t j, int32_t p, int32_t prev) {
  int32_t next = (int32_t)cost[p];
  if (prev == -1)
    listHead[j] = next;
  else
    cost[prev] = (double)next;
  cost[p] = 0.0;
}

// Jaccard similarity of two columns' row lists.
double similarity(const int32_t* colBegin, const int32_t* rowIndex, int32_t a, int32_t b,
                  int32_t* stamp, int32_t* tag) {
  int32_t la = colBegin[a + 1] - colBegin[a], lb = colBegin[b + 1] - colBegin[b];
  int32_t shortCol = la <= lb ? a : b, longCol = la <= lb ? b : a;
  int32_t t = ++*tag;
  for (int32_t p = colBegin[shortCol]; p < colBegin[shortCol + 1]; p++) stamp[rowIndex[p]] = t;
  int32_t common = 0, other = 0;
  for (int32_t p = colBegin[longCol]; p < colBegin[longCol + 1]; p++) {
    if (stamp[rowIndex[p]] == t)
      common++;
    else
      other++;
  }
  int32_t uni = (la <= lb ? la : lb) + other;
  return uni > 0 ? (double)common / uni : 0.0;
}

struct PivotWriter {
  int32_t* perm0;
  int32_t* pivots;
  int32_t out;
  int32_t singles;
  int32_t pairs;
  void single(int32_t v) {
    perm0[out] = v;
    pivots[out++] = -2;
    singles++;
  }
  void pair(int32_t a, int32_t b) {
    perm0[out] = a;
    pivots[out++] = -1;
    perm0[out] = b;
    pivots[out++] = -1;
    pairs++;
  }
};

// Splits one cycle c[0..L) of length 3 or more into pairs and at most one
// single.  The two alternating products of similarities along the cycle
// choose the pairing of an even cycle; for an odd one every vertex is tried
// as the single, scored by the product of the pairs around it.
void splitCycle(const int32_t* c, int32_t L, const int32_t* colBegin, const int32_t* rowIndex,
                int32_t* stamp, int32_t* tag, double* w, PivotWriter* out) {
  for (int32_t k = 0; k < L; k++) {
    double s = similarity(colBegin, rowIndex, c[k], c[(k + 1) % L], stamp, tag);
    w[k] = k < 2 ? s : s * w[k - 2];
  }
  if (L % 2 == 0) {
    if (w[L - 2] <= w[L - 1]) {
      out->pair(c[0], c[L - 1]);
      for (int32_t k = 1; k + 1 < L - 1; k += 2) out->pair(c[k], c[k + 1]);
    } else {
      for (int32_t k = 0; k < L; k += 2) out->pair(c[k], c[k + 1]);
    }
    return;
  }
  int32_t bestP = 0;
  double bestScore = w[L - 2];
  for (int32_t p = 1; p < L; p++) {
    double score;
    if (p == 1)
      score = w[0] > 0.0 ? w[L - 1] / w[0] : 0.0;
    else
      score = w[p - 1] > 0.0 ? w[p - 2] * w[L - 1 - ((L - p) % 2)] / w[p - 1] : 0.0;
    if (score > bestScore) {
      bestScore = score;
      bestP = p;
    }
  }
  int32_t p = bestP;
  if (p % 2 == 0) {
    for (int32_t k = 0; k + 1 < p; k += 2) out->pair(c[k], c[k + 1]);
    out->single(c[p]);
    for (int32_t k = p + 1; k + 1 < L; k += 2) out->pair(c[k], c[k + 1]);
  } else {
    out->pair(c[0], c[L - 1]);
    for (int32_t k = 1; k + 1 < p; k += 2) out->pair(c[k], c[k + 1]);
    out->single(c[p]);
    for (int32_t k = p + 1; k + 1 < L - 1; k += 2) out->pair(c[k], c[k + 1]);
  }
}

// Walks the cycle of the permutation match that starts at j into cycle;
// mark 0 means unseen.  Returns the length, or 0 when the chain breaks (a
// column without a match, or a walk that runs into another cycle).
int32_t walkCycle(int32_t n, const int32_t* match, int32_t j, int32_t* mark, int32_t* cycle) {
  int32_t len = 0, k = j;
  do {
    if (k < 0 || k >= n || mark[k] != 0) return 0;
    mark[k] = 3;
    cycle[len++] = k;
    k = match[k];
  } while (k != j);
  return len;
}

}  // namespace

int32_t FindInitialMatching(int32_t nRows, int32_t nCols, const int32_t* colBegin,
                            const int32_t* rowIndex, double* cost, double* rowMin,
                            int32_t* colMatch, int32_t* rowMatch, int32_t* matched,
                            int32_t* listHead) {
  *matched = 0;
  for (int32_t i = 0; i < nRows; i++) {
    rowMin[i] = kNoCost;
    rowMatch[i] = -1;
  }
  for (int32_t j = 0; j < nCols; j++) colMatch[j] = -1;
  for (int32_t p = 0; p < colBegin[nCols]; p++)
    if (cost[p] < rowMin[rowIndex[p]]) rowMin[rowIndex[p]] = cost[p];
  for (int32_t i = 0; i < nRows; i++)
    if (rowMin[i] >= kNoCost) return ORDERING_UNFIT;

  // Reduce by row and column minima; the zeros are the tight entries, kept
  // on one list per column in column order.  Stored zeros stay unusable.
  for (int32_t j = 0; j < nCols; j++) {
    int32_t beg = colBegin[j], end = colBegin[j + 1];
    double colMin = kNoCost;
    for (int32_t p = beg; p < end; p++) {
      if (cost[p] >= kNoCost) continue;
      cost[p] -= rowMin[rowIndex[p]];
      if (cost[p] < colMin) colMin = cost[p];
    }
    listHead[j] = -1;
    if (colMin >= kNoCost) continue;
    for (int32_t p = end - 1; p >= beg; p--) {
      if (cost[p] >= kNoCost) continue;
      cost[p] -= colMin;
      if (cost[p] == 0.0) {
        cost[p] = (double)listHead[j];
        listHead[j] = p;
      }
    }
  }

  int32_t count = 0;
  for (int32_t j = 0; j < nCols; j++) {
    bool done = false;
    for (int32_t p = listHead[j], prev = -1; p != -1 && !done;) {
      int32_t next = (int32_t)cost[p];
      int32_t i = rowIndex[p];
      if (rowMatch[i] == -1) {
        unlinkTight(cost, listHead, j, p, prev);
        colMatch[j] = i;
        rowMatch[i] = j;
        count++;
        done = true;
      } else {
        prev = p;
        p = next;
      }
    }
    // No free row: one step of augmentation, through the column that holds
    // a tight row of j to a free tight row of its own.
    for (int32_t p = listHead[j], prev = -1; p != -1 && !done;) {
      int32_t next = (int32_t)cost[p];
      int32_t i = rowIndex[p];
      int32_t k = rowMatch[i];
      for (int32_t q = listHead[k], prevQ = -1; q != -1;) {
        int32_t nextQ = (int32_t)cost[q];
        int32_t r = rowIndex[q];
        if (rowMatch[r] == -1) {
          unlinkTight(cost, listHead, k, q, prevQ);
          unlinkTight(cost, listHead, j, p, prev);
          colMatch[k] = r;
          rowMatch[r] = k;
          colMatch[j] = i;
          rowMatch[i] = j;
          count++;
          done = true;
          break;
        }
        prevQ = q;
        q = nextQ;
      }
      prev = p;
      p = next;
    }
  }
  for (int32_t j = 0; j < nCols; j++) {
    for (int32_t p = listHead[j]; p != -1;) {
      int32_t next = (int32_t)cost[p];
      cost[p] = 0.0;
      p = next;
    }
    listHead[j] = -1;
  }
  *matched = count;
  return ORDERING_OK;
}

int32_t FindColPerfectMatching(QVPool* pool, int32_t nRows, int32_t nCols,
                               const int32_t* colBegin, const int32_t* rowIndex,
                               int32_t requirePerfect, const double* cost, int32_t* colMatch,
                               int32_t* rowMatch, int32_t* matched, int32_t* intWork,
                               double* dist) {
  if (nRows < nCols || nCols < 0) return ORDERING_SIZE;
  int32_t* parent = intWork;
  int32_t* locator = intWork + nCols;
  int32_t* batch = locator + nRows;
  PQueueMin heap;
  if (PQueueMinInit(pool, &heap, nRows, locator) != ORDERING_OK) return ORDERING_NOMEM;
  for (int32_t i = 0; i < nRows; i++) {
    dist[i] = kNoCost;
    locator[i] = kUntouched;
  }

  for (int32_t j0 = 0; j0 < nCols && *matched < nCols; j0++) {
    if (colMatch[j0] != -1) continue;
    parent[j0] = -1;
    double best = kNoCost, current = 0.0, threshold = 0.0;
    int32_t batchHead = 0, batchTail = 0;
    int32_t targetCol = -1, targetRow = -1;
    for (int32_t j = j0;;) {
      int32_t beg = colBegin[j], end = colBegin[j + 1];
      bool accept = false;
      for (int32_t p = beg; p < end; p++) {
        int32_t i = rowIndex[p];
        if (locator[i] == kVisited) continue;
        double d = current + cost[p];
        if (d >= best) continue;
        int32_t k = rowMatch[i];
        if (k == -1) {
          best = d;
          targetCol = j;
          targetRow = i;
          if (0.1 * nRows < end - beg || heap.count > kHeapLimit) {
            accept = true;
            break;
          }
        } else if (d < dist[i]) {
          dist[i] = d;
          parent[k] = j;
          if (locator[i] == kUntouched) {
            if (d <= threshold) {
              batch[batchTail++] = i;
              locator[i] = kInBatch;
            } else {
              PQueueMinInsert(d, &heap, i);
            }
          } else if (locator[i] >= 0) {
            PQueueMinDecreaseKey(d, &heap, i);
          }
        }
      }
      if (accept) break;
      if (batchHead == batchTail) {
        if (heap.count == 0) break;
        current = PQueueMinSeeMin(&heap).key;
        threshold = current * kBatchFactor;
        while (heap.count > 0 && PQueueMinSeeMin(&heap).key <= threshold) {
          int32_t e = PQueueMinSeeMin(&heap).element;
          PQueueMinExtractMin(&heap);
          locator[e] = kInBatch;
          batch[batchTail++] = e;
        }
      }
      if (best <= current) break;
      int32_t i = batch[batchHead++];
      locator[i] = kVisited;
      j = rowMatch[i];
    }

    // Every row that got a distance went through the batch or is still in
    // the heap: clear exactly those.
    for (int32_t b = 0; b < batchTail; b++) {
      dist[batch[b]] = kNoCost;
      locator[batch[b]] = kUntouched;
    }
    for (int32_t h = 0; h < heap.count; h++) dist[heap.heap[h].element] = kNoCost;
    PQueueMinReset(&heap);

    if (targetRow == -1) {
      if (requirePerfect) {
        PQueueMinFree(pool, &heap);
        return ORDERING_UNFIT;
      }
      continue;
    }
    for (int32_t c = targetCol, r = targetRow; c != -1; c = parent[c]) {
      int32_t previous = colMatch[c];
      colMatch[c] = r;
      rowMatch[r] = c;
      r = previous;
    }
    (*matched)++;
  }
  PQueueMinFree(pool, &heap);

  // A structurally singular matrix still gets a complete assignment, so
  // that the caller has a permutation to take apart.
  if (*matched < nCols) {
    int32_t r = 0;
    for (int32_t j = 0; j < nCols; j++) {
      if (colMatch[j] != -1) continue;
      while (rowMatch[r] != -1) r++;
      colMatch[j] = r;
      rowMatch[r] = j;
    }
  }
  return ORDERING_OK;
}

int32_t FindStaticPermGen(QVPool* pool, int32_t n, const int32_t* colBegin,
                          const int32_t* rowIndex, const double* value, int32_t requirePerfect,
                          int32_t* perm0, int32_t* numSingle, int32_t* numPair, int32_t* pivots,
                          int32_t* intWork, double* dblWork) {
  *numSingle = *numPair = 0;
  if (n < 0) return ORDERING_SIZE;
  if (n == 0) return ORDERING_OK;
  int32_t nnz = colBegin[n];
  double* cost = dblWork;
  double* rowMin = dblWork + nnz;
  double* dist = rowMin + n;
  for (int32_t p = 0; p < nnz; p++) cost[p] = fabs(value[p]);
  int32_t status = costsFromMagnitudes(n, colBegin, cost);
  if (status) return status;

  int32_t* colMatch = intWork;
  int32_t* rowMatch = intWork + n;
  int32_t* rest = intWork + 2 * (int64_t)n;
  int32_t matched = 0;
  status = FindInitialMatching(n, n, colBegin, rowIndex, cost, rowMin, colMatch, rowMatch,
                               &matched, rest);
  if (status) return status;
  if (matched < n) {
    status = FindColPerfectMatching(pool, n, n, colBegin, rowIndex, requirePerfect, cost,
                                    colMatch, rowMatch, &matched, rest, dist);
    if (status) return status;
  }

  // Fixed points and 2-cycles are written as they are met; longer cycles
  // wait for a second walk, in the same order, once the short ones stand.
  int32_t* mark = rowMatch;
  int32_t* stamp = rest;
  int32_t* cycle = rest + n;
  double* w = dblWork;
  for (int32_t i = 0; i < n; i++) mark[i] = stamp[i] = 0;
  PivotWriter out{perm0, pivots, 0, 0, 0};
  for (int32_t j = 0; j < n; j++) {
    if (mark[j] != 0) continue;
    int32_t len = walkCycle(n, colMatch, j, mark, cycle);
    if (len == 0) return ORDERING_SIZE;
    for (int32_t k = 0; k < len; k++) mark[cycle[k]] = len > 2 ? 2 : 1;
    if (len == 1) out.single(j);
    if (len == 2) out.pair(j, cycle[1]);
  }
  int32_t tag = 0;
  for (int32_t j = 0; j < n; j++) {
    if (mark[j] != 2) continue;
    int32_t len = 0;
    for (int32_t k = j; mark[k] == 2; k = colMatch[k]) {
      mark[k] = 1;
      cycle[len++] = k;
    }
    splitCycle(cycle, len, colBegin, rowIndex, stamp, &tag, w, &out);
  }
  if (out.out != n) return ORDERING_SIZE;
  *numSingle = out.singles;
  *numPair = out.pairs;
  return ORDERING_OK;
}

int32_t FindStaticPermAug(QVPool* pool, int32_t n, int32_t n1, int32_t n2,
                          const int32_t* colBegin, const int32_t* rowIndex, const double* value,
                          int32_t requirePerfect, int32_t* perm0, int32_t* numSingle,
                          int32_t* numPair, int32_t* pivots, int32_t* intWork,
                          double* dblWork) {
  *numSingle = *numPair = 0;
  if (n1 < 0 || n2 < 0 || (int64_t)n1 + n2 != n) return ORDERING_SIZE;
  if (n == 0) return ORDERING_OK;
  int32_t nnz = colBegin[n];
  // The smaller block gives the columns, so that each of its vertices can
  // find a partner in the other.
  bool colsFirst = n1 < n2;
  int32_t nCols = colsFirst ? n1 : n2, nRows = colsFirst ? n2 : n1;
  int32_t colBase = colsFirst ? 0 : n1, rowBase = colsFirst ? n1 : 0;
  int64_t kept = 0;
  for (int32_t j = colBase; j < colBase + nCols; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++)
      if (rowIndex[p] >= rowBase && rowIndex[p] < rowBase + nRows) kept++;
  int64_t costSlots = nnz / 2;
  if (kept * 4.0 + (costSlots + 2.0 * nRows) * 8.0 > (2.0 * n + nnz) * 8.0 || kept > costSlots)
    return ORDERING_SIZE;

  double* cost = dblWork;
  double* rowMin = dblWork + costSlots;
  double* dist = rowMin + nRows;
  int32_t* keptRows = reinterpret_cast<int32_t*>(dist + nRows);
  int32_t* cBegin = intWork;
  int32_t* colMatch = cBegin + nCols + 1;
  int32_t* rowMatch = colMatch + nCols;
  int32_t* rest = rowMatch + nRows;
  int32_t k = 0;
  for (int32_t c = 0; c < nCols; c++) {
    cBegin[c] = k;
    int32_t j = colBase + c;
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      int32_t r = rowIndex[p] - rowBase;
      if (r < 0 || r >= nRows) continue;
      keptRows[k] = r;
      cost[k++] = fabs(value[p]);
    }
  }
  cBegin[nCols] = k;

  for (int32_t r = 0; r < nRows; r++) rowMatch[r] = -1;
  if (nCols > 0) {
    int32_t status = costsFromMagnitudes(nCols, cBegin, cost);
    if (status) return status;
    int32_t matched = 0;
    status = FindInitialMatching(nRows, nCols, cBegin, keptRows, cost, rowMin, colMatch,
                                 rowMatch, &matched, rest);
    if (status) return status;
    if (matched < nCols) {
      status = FindColPerfectMatching(pool, nRows, nCols, cBegin, keptRows, requirePerfect, cost,
                                      colMatch, rowMatch, &matched, rest, dist);
      if (status) return status;
    }
  }

  PivotWriter out{perm0, pivots, 0, 0, 0};
  for (int32_t r = 0; r < nRows; r++) {
    int32_t v = rowBase + r;
    if (rowMatch[r] == -1) {
      out.single(v);
    } else {
      int32_t c = colBase + rowMatch[r];
      // The first block's vertex leads either way.
      if (colsFirst)
        out.pair(c, v);
      else
        out.pair(v, c);
    }
  }
  if (out.out != n) return ORDERING_SIZE;
  *numSingle = out.singles;
  *numPair = out.pairs;
  return ORDERING_OK;
}

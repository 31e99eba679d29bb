// Symbolic analysis: permuted patterns, elimination tree, postorder, column
// counts, supernodes, row lists, storage map and the block tables of the
// threaded path.  Pure structure work; no numeric value is touched.
#include <string.h>

#include "la/la_internal.h"

namespace {

inline int32_t wrapMul32(int32_t a, int32_t b) {
  // The column-count statistics feed thresholds only and are formed in 32
  // bits on purpose; unsigned arithmetic keeps the wrap well defined.
  return (int32_t)((uint32_t)a * (uint32_t)b);
}

}  // namespace

int32_t PermuteSymMatrixPattern(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                                int32_t which, LAMatrix* upper, LAMatrix* lower,
                                const int32_t* perm, const int32_t* invPerm) {
  if (which != 0 && which != 1) return LA_ERR_INTERNAL;
  // Count first so that nothing is written past a target's capacity.
  int64_t numUpper = 0, numLower = 0;
  for (int32_t k = 0; k < n; k++) {
    int32_t old = perm[k];
    for (int32_t p = colBegin[old]; p < colBegin[old + 1]; p++) {
      int32_t r = invPerm[rowIndex[p]];
      if (r < k) numUpper++;
      else if (r > k) numLower++;
    }
  }
  if (which == 1 && numUpper != numLower) return LA_ERR_INTERNAL;
  if (numUpper > upper->numCoef) return LA_ERR_INTERNAL;
  if (which == 1 && numLower > lower->numCoef) return LA_ERR_INTERNAL;

  int32_t nu = 0, nl = 0;
  for (int32_t k = 0; k < n; k++) {
    int32_t old = perm[k];
    upper->colBegin[k] = nu;
    if (which == 1) lower->colBegin[k] = nl;
    for (int32_t p = colBegin[old]; p < colBegin[old + 1]; p++) {
      int32_t r = invPerm[rowIndex[p]];
      if (r < k) upper->rowIndex[nu++] = r;
      else if (which == 1 && r > k) lower->rowIndex[nl++] = r;
    }
  }
  upper->colBegin[n] = nu;
  upper->numCoef = nu;
  upper->numRows = upper->numCols = n;
  upper->value = nullptr;
  if (which == 1) {
    lower->colBegin[n] = nl;
    lower->numCoef = nl;
    lower->numRows = lower->numCols = n;
    lower->value = nullptr;
  }
  return LA_OK;
}

int32_t PermuteSymMatrixLower(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                              const double* value, LAMatrix* target, const int32_t* perm,
                              const int32_t* invPerm) {
  int64_t count = 0;
  for (int32_t k = 0; k < n; k++) {
    int32_t old = perm[k];
    target->colBegin[k] = (int32_t)count;
    for (int32_t p = colBegin[old]; p < colBegin[old + 1]; p++) {
      int32_t r = invPerm[rowIndex[p]];
      if (r < k) continue;
      if (count >= target->numCoef) return LA_ERR_INTERNAL;
      target->rowIndex[count] = r;
      if (value && target->value) target->value[count] = value[p];
      count++;
    }
  }
  target->colBegin[n] = (int32_t)count;
  return count == target->numCoef ? LA_OK : LA_ERR_INTERNAL;
}

int32_t PruneMatrixWithPerm(int32_t n, int32_t m, int32_t* colBegin, int32_t* rowIndex,
                            const int32_t* invPerm) {
  // The kept vertices keep their relative order, so compacting the columns in
  // place lands column j at invPerm[j].
  int32_t out = 0, col = 0;
  int32_t start = colBegin[0];
  for (int32_t j = 0; j < n; j++) {
    int32_t end = colBegin[j + 1];
    if (invPerm[j] < m) {
      if (invPerm[j] != col) return LA_ERR_INTERNAL;
      colBegin[col] = out;
      for (int32_t p = start; p < end; p++) {
        int32_t r = invPerm[rowIndex[p]];
        if (r < m) rowIndex[out++] = r;
      }
      col++;
    }
    start = end;
  }
  if (col != m) return LA_ERR_INTERNAL;
  colBegin[m] = out;
  return LA_OK;
}

void RemoveDiagonals(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                     int32_t* outBegin, int32_t* outIndex) {
  int32_t out = 0;
  for (int32_t j = 0; j < n; j++) {
    outBegin[j] = colBegin[j] - j;
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++)
      if (rowIndex[p] != j) outIndex[out++] = rowIndex[p];
  }
  outBegin[n] = colBegin[n] - n;
}

void BuildETree(const LAMatrix* upper, int32_t* parent, int32_t* ancestor) {
  int32_t n = upper->numCols;
  for (int32_t j = 0; j < n; j++) {
    parent[j] = -1;
    ancestor[j] = -1;
    for (int32_t p = upper->colBegin[j]; p < upper->colBegin[j + 1]; p++) {
      int32_t i = upper->rowIndex[p];
      while (i != -1 && i < j) {
        int32_t next = ancestor[i];
        if (next == j) break;
        ancestor[i] = j;
        if (next == -1) {
          parent[i] = j;
          break;
        }
        i = next;
      }
    }
  }
}

int32_t DFS(const int32_t* roots, int32_t numRoots, int32_t* firstChild, const int32_t* sibling,
            int32_t* post, int32_t* stack) {
  int32_t k = 0;
  for (int32_t r = 0; r < numRoots; r++) {
    int32_t top = 0;
    stack[0] = roots[r];
    while (top >= 0) {
      int32_t v = stack[top];
      int32_t c = firstChild[v];
      if (c == -1) {
        post[k++] = v;
        top--;
      } else {
        firstChild[v] = sibling[c];
        stack[++top] = c;
      }
    }
  }
  return k;
}

void PostOrder(int32_t n, int32_t* parent, LASymbolic* sym, int32_t* work) {
  if (n <= 0) return;
  int32_t* firstChild = work;
  int32_t* sibling = work + n;
  int32_t* roots = work + 2 * n;
  int32_t* post = work + 3 * n;
  int32_t* stack = work + 4 * n;
  for (int32_t j = 0; j < n; j++) firstChild[j] = -1;
  for (int32_t j = n - 1; j >= 0; j--) {
    int32_t p = parent[j];
    if (p != -1) {
      sibling[j] = firstChild[p];
      firstChild[p] = j;
    }
  }
  // The last column is a root of the etree by construction; the other roots
  // follow in descending order so that the highest tree is visited first.
  int32_t numRoots = 0;
  roots[numRoots++] = n - 1;
  for (int32_t j = n - 2; j >= 0; j--)
    if (parent[j] == -1) roots[numRoots++] = j;
  DFS(roots, numRoots, firstChild, sibling, post, stack);

  // Renumber: perm, its inverse, parent, pivots.  firstChild, sibling and
  // roots are free now.
  int32_t* tmp = firstChild;
  int32_t* ipost = sibling;
  for (int32_t k = 0; k < n; k++) tmp[k] = sym->perm[post[k]];
  memcpy(sym->perm, tmp, sizeof(int32_t) * (size_t)n);
  for (int32_t k = 0; k < n; k++) sym->invPerm[sym->perm[k]] = k;
  for (int32_t k = 0; k < n; k++) ipost[post[k]] = k;
  for (int32_t k = 0; k < n; k++) {
    int32_t p = parent[post[k]];
    tmp[k] = p == -1 ? -1 : ipost[p];
  }
  memcpy(parent, tmp, sizeof(int32_t) * (size_t)n);
  if (sym->pivots) {
    for (int32_t k = 0; k < n; k++) tmp[k] = sym->pivots[post[k]];
    memcpy(sym->pivots, tmp, sizeof(int32_t) * (size_t)n);
  }
}

void FindColCounts(const LAMatrix* lower, const int32_t* parent, int32_t* colCounts,
                   double* factorEntries, double* operations, int32_t* work) {
  int32_t n = lower->numCols;
  int32_t* first = work;
  int32_t* prevLeaf = work + n;
  int32_t* maxSeen = work + 2 * n;
  int32_t* ancestor = work + 3 * n;
  for (int32_t j = 0; j < n; j++) {
    first[j] = -1;
    prevLeaf[j] = -1;
    maxSeen[j] = -1;
    ancestor[j] = j;
  }
  for (int32_t k = 0; k < n; k++) {
    colCounts[k] = first[k] == -1 ? 1 : 0;
    for (int32_t j = k; j != -1 && first[j] == -1; j = parent[j]) first[j] = k;
  }
  for (int32_t j = 0; j < n; j++) {
    if (parent[j] != -1) colCounts[parent[j]]--;
    for (int32_t p = lower->colBegin[j]; p < lower->colBegin[j + 1]; p++) {
      int32_t i = lower->rowIndex[p];
      if (i <= j) continue;
      if (maxSeen[i] < first[j]) {
        colCounts[j]++;
        int32_t q = prevLeaf[i];
        if (q != -1) {
          int32_t root = q;
          while (ancestor[root] != root) root = ancestor[root];
          while (q != root) {
            int32_t next = ancestor[q];
            ancestor[q] = root;
            q = next;
          }
          colCounts[root]--;
        }
        prevLeaf[i] = j;
      }
      maxSeen[i] = j;
    }
    if (parent[j] != -1) ancestor[j] = parent[j];
  }
  for (int32_t j = 0; j < n; j++)
    if (parent[j] != -1) colCounts[parent[j]] += colCounts[j];
  double entries = 0.0, ops = 0.0;
  for (int32_t j = 0; j < n; j++) {
    entries += colCounts[j];
    ops += (double)wrapMul32(colCounts[j] - 1, colCounts[j]);
  }
  *factorEntries = entries - n;
  *operations = ops;
}

void ChooseSequentialOrThreaded(LASymbolic* sym, int32_t threads, int32_t isLDL) {
  double ratio = sym->estFactorEntries > 0.0 ? sym->estOperations / sym->estFactorEntries : 0.0;
  if (threads < 1) threads = 1;
  if (isLDL) {
    double threshold;
    switch (threads) {
      case 1: threshold = 4900.0; break;
      case 2: threshold = 720.0; break;
      case 3: threshold = 400.0; break;
      case 4: threshold = 220.0; break;
      default: threshold = 220.0 + 50.0 * (threads - 4); break;
    }
    // One thread may still take the threaded path: it blocks better.
    sym->threaded = ratio > threshold ? 1 : 0;
    sym->threadsUsed = sym->threaded ? threads : 1;
  } else {
    if (threads > 1) {
      sym->threaded = 1;
      sym->threadsUsed = threads;
    } else {
      sym->threaded = ratio >= 400.0 ? 1 : 0;
      sym->threadsUsed = 1;
    }
  }
}

int32_t FindFundamentalSupernodes(int32_t n, const int32_t* parent, const int32_t* colCounts,
                                  int32_t* snodeStart, int32_t* snodeParent,
                                  int32_t* colToSNode, int32_t* rowsPerSNode) {
  if (n <= 0) {
    snodeStart[0] = 0;
    return 0;
  }
  // colToSNode counts children until it is filled in below.
  int32_t* children = colToSNode;
  for (int32_t j = 0; j < n; j++) children[j] = 0;
  for (int32_t j = 0; j < n; j++)
    if (parent[j] != -1) children[parent[j]]++;
  int32_t ns = 0;
  snodeStart[ns] = 0;
  rowsPerSNode[ns] = colCounts[0];
  ns++;
  for (int32_t i = 1; i < n; i++) {
    bool chain = children[i] == 1 && colCounts[i] == colCounts[i - 1] - 1;
    if (!chain) {
      snodeStart[ns] = i;
      rowsPerSNode[ns] = colCounts[i];
      ns++;
    }
  }
  snodeStart[ns] = n;
  for (int32_t s = 0; s < ns; s++)
    for (int32_t j = snodeStart[s]; j < snodeStart[s + 1]; j++) colToSNode[j] = s;
  for (int32_t s = 0; s < ns; s++) {
    int32_t p = parent[snodeStart[s + 1] - 1];
    snodeParent[s] = p == -1 ? -1 : colToSNode[p];
  }
  return ns;
}

namespace {

// Rebuilds colToSNode and snodeParent from snodeStart and the etree.
void rebuildSNodeMaps(const int32_t* parent, LASymbolic* sym) {
  for (int32_t s = 0; s < sym->numSNodes; s++)
    for (int32_t j = sym->snodeStart[s]; j < sym->snodeStart[s + 1]; j++) sym->colToSNode[j] = s;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t p = parent[sym->snodeStart[s + 1] - 1];
    sym->snodeParent[s] = p == -1 ? -1 : sym->colToSNode[p];
  }
}

}  // namespace

void FindRelaxedSupernodes(const int32_t* parent, const int32_t* pivots, LASymbolic* sym,
                           int32_t* rows, int32_t* work) {
  int32_t ns = sym->numSNodes;
  if (ns <= 0) return;
  bool isLDL = pivots != nullptr;
  int32_t* cols = work;
  int32_t* merged = work + ns;
  int32_t* zeros = work + 2 * ns;
  for (int32_t s = 0; s < ns; s++) {
    cols[s] = sym->snodeStart[s + 1] - sym->snodeStart[s];
    merged[s] = -1;
  }
  zeros[ns - 1] = 0;
  int32_t maxCols = 0;
  for (int32_t s = ns - 2; s >= 0; s--) {
    int32_t p0 = sym->snodeParent[s];
    if (p0 == -1) {
      zeros[s] = 0;
      continue;
    }
    int32_t root = p0;
    while (merged[root] != -1) root = merged[root];
    for (int32_t q = p0; merged[q] != -1;) {
      int32_t next = merged[q];
      merged[q] = root;
      q = next;
    }
    if (root != s + 1) {
      zeros[s] = 0;
      continue;
    }
    int32_t p = s + 1;
    int32_t total = cols[s] + cols[p];
    int32_t added = wrapMul32(rows[p] - rows[s] + cols[s], cols[s]);
    bool merge;
    if (added == 0) {
      // Dropping the group's earlier zeros here is intended.
      merge = true;
    } else {
      added += zeros[p];
      int32_t denom = wrapMul32(cols[s] + cols[p] - 1, total) / 2 +
                      wrapMul32(rows[p] - cols[p], total);
      double ratio = denom > 0 ? (double)added / (double)denom : 1e300;
      if (total <= 4) merge = true;
      else if (total <= 16) merge = isLDL ? (added < 128 || ratio < 0.1) : ratio < 0.8;
      else if (total <= 48) merge = ratio < 0.1;
      else merge = ratio < 0.05;
    }
    if (merge) {
      merged[p] = s;
      zeros[s] = added == 0 ? 0 : added;
      rows[s] = rows[p] + cols[s];
      cols[s] = total;
    } else {
      zeros[s] = 0;
    }
    if (cols[s] > maxCols) maxCols = cols[s];
  }
  int32_t k = 0;
  for (int32_t s = 0; s < ns; s++) {
    if (merged[s] != -1) continue;
    sym->snodeStart[k] = sym->snodeStart[s];
    rows[k] = rows[s];
    k++;
  }
  sym->snodeStart[k] = sym->snodeStart[ns];
  sym->numSNodes = k;
  sym->maxSNodeCols = k == 1 ? sym->snodeStart[1] - sym->snodeStart[0] : maxCols;
  rebuildSNodeMaps(parent, sym);
}

void AmalgamateSupernodes(const int32_t* parent, LASymbolic* sym, int32_t* rows, int32_t* work) {
  int32_t ns = sym->numSNodes;
  if (ns <= 1) return;
  const int32_t* start = sym->snodeStart;
  const int32_t* sp = sym->snodeParent;
  int32_t* desc = work;
  int32_t* newStart = work + ns;
  int32_t* newRows = work + 2 * ns + 1;
  for (int32_t s = 0; s < ns; s++) desc[s] = 0;
  for (int32_t s = 0; s < ns; s++)
    if (sp[s] != -1) desc[sp[s]] += desc[s] + 1;
  auto cc = [start](int32_t s) { return start[s + 1] - start[s]; };
  const int32_t limit = 32;
  int32_t out = 0, i = 0;
  while (i < ns) {
    int32_t last = i, sum = cc(i), p = sp[i], j = i + 1;
    bool alone = p != -1 && p - i >= limit;
    if (!alone) {
      for (int32_t k = j; k <= p; k++) {
        if (sum >= limit) {
          alone = true;
          break;
        }
        sum += cc(k);
        j = k + 1;
      }
    }
    if (!alone && p != -1) {
      for (;;) {
        if (sum >= limit) break;
        last = p;
        p = sp[last];
        if (p == -1 || p - j >= limit) break;
        for (int32_t k = j; k <= p; k++) sum += cc(k);
        j = p + 1;
      }
    }
    newStart[out] = start[i];
    if (last == i) {
      newRows[out] = rows[i];
    } else {
      int32_t r = cc(i) + rows[last];
      for (int32_t k = i + 1; k < last; k++) r += cc(k);
      newRows[out] = r;
    }
    out++;
    int32_t next = last + 1;
    while (next < ns && desc[next] != 0 && next != ns - 1) {
      newStart[out] = start[next];
      newRows[out] = rows[next];
      out++;
      next++;
    }
    i = next;
  }
  int32_t n = start[ns];
  for (int32_t s = 0; s < out; s++) {
    sym->snodeStart[s] = newStart[s];
    rows[s] = newRows[s];
  }
  sym->snodeStart[out] = n;
  sym->numSNodes = out;
  rebuildSNodeMaps(parent, sym);
}

int32_t FindLSupernodalStructure(const LAMatrix* upper, LASymbolic* sym, int32_t* marker) {
  int32_t ns = sym->numSNodes;
  const int64_t* rowBegin = sym->rowBegin;
  int32_t* rowList = sym->rowList;
  // Entries written so far per list; rowBegin stays as planned so that a
  // list that would overrun its room is caught instead of written.
  int32_t* count = marker + ns;
  for (int32_t s = 0; s < ns; s++) {
    marker[s] = -1;
    count[s] = 0;
  }
  for (int32_t s = 0; s < ns; s++) {
    int32_t first = sym->snodeStart[s], end = sym->snodeStart[s + 1];
    if (rowBegin[s + 1] - rowBegin[s] < end - first) return LA_ERR_INTERNAL;
    for (int32_t j = first; j < end; j++) rowList[rowBegin[s] + count[s]++] = j;
    // With j outermost every list comes out ascending without a sort.
    for (int32_t j = first; j < end; j++) {
      marker[s] = j;
      for (int32_t p = upper->colBegin[j]; p < upper->colBegin[j + 1]; p++) {
        int32_t i = upper->rowIndex[p];
        if (i >= j) continue;
        for (int32_t t = sym->colToSNode[i]; t != -1 && marker[t] != j; t = sym->snodeParent[t]) {
          if (rowBegin[t] + count[t] >= rowBegin[t + 1]) return LA_ERR_INTERNAL;
          rowList[rowBegin[t] + count[t]++] = j;
          marker[t] = j;
        }
      }
    }
  }
  for (int32_t s = 0; s < ns; s++)
    if (rowBegin[s] + count[s] != rowBegin[s + 1]) return LA_ERR_INTERNAL;
  return LA_OK;
}

// From column counts to the supernodal plan: supernodes, storage map, row
// lists, the work sizes of the sequential path and the block tables of the
// threaded one.
#include <stdint.h>
#include <string.h>

#include "la/la_internal.h"
#include "la/la_numeric_internal.h"

namespace {

inline int64_t min64(int64_t a, int64_t b) { return a < b ? a : b; }

int32_t blockSizeFor(int32_t kind, int32_t threads, int32_t maxCols) {
  if (kind == 0) {
    switch (threads) {
      case 1: return maxCols < 1800 ? 320 : (maxCols < 3000 ? 352 : 384);
      case 2: return 256;
      case 4: return maxCols < 4500 ? 192 : 320;
      case 8: return 192;
      default: return 256;
    }
  }
  if (threads <= 1) return maxCols < 4500 ? 160 : 192;
  if (threads <= 3) return maxCols < 4500 ? 144 : 176;
  return maxCols < 4500 ? 144 : 160;
}

// rowBegin and factorBegin from the rows per supernode.
int32_t buildStorageMap(LASymbolic* sym, const int32_t* rows, int32_t sequential) {
  int32_t ns = sym->numSNodes;
  int32_t nb = sym->blockSize;
  double sum = 0.0;
  sym->rowBegin[0] = 0;
  sym->factorBegin[0] = 0;
  for (int32_t s = 0; s < ns; s++) {
    int64_t r = rows[s];
    int64_t c = sym->snodeStart[s + 1] - sym->snodeStart[s];
    sym->rowBegin[s + 1] = sym->rowBegin[s] + r;
    if (sequential) {
      sum += (double)r * (double)c;
    } else {
      int64_t rowsLeft = r;
      for (int64_t done = 0; done < c; done += nb) {
        int64_t w = c - done < nb ? c - done : nb;
        sum += (double)(w * rowsLeft);
        rowsLeft -= nb;
      }
    }
    // Offsets are kept exact: a wrapped product would put supernodes on top
    // of each other.
    sym->factorBegin[s + 1] = (int64_t)sum;
  }
  if (sum * 8.0 >= LA_SIZE_LIMIT || (double)sym->rowBegin[ns] * 4.0 >= LA_SIZE_LIMIT)
    return LA_ERR_TOO_BIG;
  // The sequential kernels address the factor with 32-bit offsets.
  if (sequential && sum >= 2147483648.0) return LA_ERR_TOO_BIG;
  sym->numRowEntries = sym->rowBegin[ns];
  sym->numFactorEntries = sym->factorBegin[ns];
  return LA_OK;
}

// Work sizes of the sequential path.
int32_t sequentialWorkSizes(LASymbolic* sym, LANumeric* num) {
  int32_t ns = sym->numSNodes;
  int64_t update = 0, panel = 0;
  if (sym->kind == 1) {
    int64_t maxUpdate = 0;
    for (int32_t s = 0; s < ns; s++) {
      int64_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
      if (r - c > maxUpdate) maxUpdate = r - c;
      int64_t p = r == c ? c * LA_SEQ_PANEL_WIDTH : c * r;
      if (p > panel) panel = p;
    }
    update = (maxUpdate * maxUpdate + 15) & ~(int64_t)15;
  } else {
    for (int32_t s = 0; s + 1 < ns; s++) {
      int64_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
      const int32_t* list = sym->rowList + sym->rowBegin[s];
      for (int64_t p = c; p < r;) {
        int32_t t = sym->colToSNode[list[p]];
        int64_t q = p;
        while (q < r && sym->colToSNode[list[q]] == t) q++;
        int64_t size = (r - p) * (q - p);
        if (size > update) update = size;
        p = q;
      }
    }
  }
  if (update > INT32_MAX || panel > INT32_MAX) return LA_ERR_TOO_BIG;
  sym->updateBufferSize = (int32_t)update;
  sym->panelBufferSize = (int32_t)panel;
  num->panelWidth = LA_SEQ_PANEL_WIDTH;
  return LA_OK;
}

}  // namespace

int32_t SupernodalAnalysis(LAEnv* env, int32_t n, const LAMatrix* upper, int32_t orderClass,
                           int32_t sequential, int32_t* parent, int32_t* colCounts,
                           LASymbolic* sym, LANumeric* num, int32_t* work) {
  int32_t* rows = work;
  int32_t* temp = work + n;
  int32_t isLDL = sym->pivots != nullptr;

  int32_t fundamental = FindFundamentalSupernodes(n, parent, colCounts, sym->snodeStart,
                                                  sym->snodeParent, sym->colToSNode, rows);
  sym->numSNodes = fundamental;
  FindRelaxedSupernodes(parent, sym->pivots, sym, rows, temp);
  if (isLDL && !sequential && fundamental > 0 &&
      (orderClass != 1 || (double)sym->numSNodes / (double)fundamental > 0.9))
    AmalgamateSupernodes(parent, sym, rows, temp);
  sym->kind = isLDL;

  // A block edge set beforehand stays: it is a forced plan's.
  if (sequential) sym->blockSize = 0;
  else if (sym->blockSize <= 0)
    sym->blockSize = blockSizeFor(sym->kind, sym->threadsUsed, sym->maxSNodeCols);
  int32_t status = buildStorageMap(sym, rows, sequential);
  if (status) return status;
  int64_t listBytes = sym->numRowEntries * (int64_t)sizeof(int32_t);
  sym->rowList = static_cast<int32_t*>(poolAlloc(env->pool, listBytes > 0 ? listBytes : 16, 0));
  if (!sym->rowList) return LA_ERR_MEMORY;
  status = FindLSupernodalStructure(upper, sym, temp);
  if (status) return status;
  if (sequential) return sequentialWorkSizes(sym, num);
  return LA_OK;
}

int32_t FindBlockSizes(QVPool* pool, LASymbolic* sym, int32_t* work) {
  (void)work;
  int32_t ns = sym->numSNodes;
  int32_t nb = sym->blockSize;
  if (ns <= 0 || nb <= 0) return LA_ERR_INTERNAL;
  int64_t total = 0, update = (int64_t)nb * nb;
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    total += b.wide ? (int64_t)b.ncb * b.nrb : b.nrb;
    if (!b.wide) {
      int64_t u = (int64_t)laSNodeCols(sym, s) * b.h;
      if (u > update) update = u;
    }
  }
  if (total > INT32_MAX || update > INT32_MAX) return LA_ERR_TOO_BIG;
  sym->updateBufferSize = (int32_t)update;

  // Each table is allocated zeroed before its flat array, so that a failure
  // in between leaves a null first entry for the clean-up to pass over.
  int32_t*** intTables[2] = {&sym->blockDepsInit, &sym->blockDeps};
  for (int32_t k = 0; k < 2; k++) {
    *intTables[k] = static_cast<int32_t**>(poolAlloc(pool, (int64_t)sizeof(int32_t*) * ns, POOL_ZERO));
    if (!*intTables[k]) return LA_ERR_MEMORY;
    (*intTables[k])[0] = static_cast<int32_t*>(poolAlloc(pool, (int64_t)sizeof(int32_t) * total, POOL_ZERO));
    if (!(*intTables[k])[0]) return LA_ERR_MEMORY;
  }
  sym->blockLocks = static_cast<QVLock***>(poolAlloc(pool, (int64_t)sizeof(QVLock**) * ns, POOL_ZERO));
  if (!sym->blockLocks) return LA_ERR_MEMORY;
  sym->blockLocks[0] = static_cast<QVLock**>(poolAlloc(pool, (int64_t)sizeof(QVLock*) * total, POOL_ZERO));
  if (!sym->blockLocks[0]) return LA_ERR_MEMORY;

  int64_t at = 0;
  int32_t* depsInit = sym->blockDepsInit[0];
  int32_t* deps = sym->blockDeps[0];
  QVLock** locks = sym->blockLocks[0];
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    sym->blockDepsInit[s] = depsInit + at;
    sym->blockDeps[s] = deps + at;
    sym->blockLocks[s] = locks + at;
    at += b.wide ? (int64_t)b.ncb * b.nrb : b.nrb;
  }
  if (at != total) return LA_ERR_INTERNAL;
  sym->numBlocks = (int32_t)total;
  return LA_OK;
}

int32_t CountUpdateWalk(const LASymbolic* sym, int64_t colBeg, int64_t colEnd, int64_t rowBeg,
                        int64_t rowEnd, int32_t add) {
  const int32_t* rowList = sym->rowList;
  int32_t nb = sym->blockSize;
  int64_t rp = rowBeg;
  for (int64_t p = colBeg; p < colEnd;) {
    int32_t row = rowList[p];
    int32_t t = sym->colToSNode[row];
    int32_t first = sym->snodeStart[t];
    int32_t ct = laSNodeCols(sym, t);
    LABlockShape b = laBlockShape(sym, t);
    int32_t J = b.wide ? (row - first) / nb : 0;
    int32_t blockStart = first + J * b.w;
    int32_t blockEnd = first + (int32_t)min64((int64_t)(J + 1) * b.w, ct);
    int64_t q = p;
    while (q < colEnd && rowList[q] < blockEnd) q++;
    while (rp < rowEnd && rowList[rp] < blockStart) rp++;
    // Merge the row range into the target's list from the column block on.
    int64_t tBase = sym->rowBegin[t];
    int64_t tpos = tBase + (int64_t)J * b.w;
    int64_t tEnd = sym->rowBegin[t + 1];
    int32_t lastI = -1;
    int32_t* deps = sym->blockDepsInit[t];
    for (int64_t k = rp; k < rowEnd; k++) {
      int32_t row2 = rowList[k];
      tpos = laSeekRow(rowList, tpos, tEnd, row2);
      if (tpos == tEnd || rowList[tpos] != row2) return LA_ERR_INTERNAL;
      int32_t I = (int32_t)((tpos - tBase) / b.h);
      if (I != lastI) {
        deps[(int64_t)J * b.nrb + I] += add;
        lastI = I;
      }
    }
    p = q;
  }
  return LA_OK;
}

int32_t FindBlockDependencyCounts(LASymbolic* sym, LANumeric* num) {
  (void)num;
  int32_t ns = sym->numSNodes;
  int32_t nb = sym->blockSize;
  memset(sym->blockDepsInit[0], 0, sizeof(int32_t) * (size_t)sym->numBlocks);
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    int32_t* deps = sym->blockDepsInit[s];
    if (b.wide) {
      // Earlier column blocks update each block once; off-diagonal blocks
      // also wait for their own diagonal.
      for (int32_t J = 0; J < b.ncb; J++) {
        deps[(int64_t)J * b.nrb + J] += J;
        for (int32_t I = J + 1; I < b.nrb; I++) deps[(int64_t)J * b.nrb + I] += J + 1;
      }
    }
  }
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    if (r <= c) continue;
    int64_t base = sym->rowBegin[s];
    int32_t status;
    if (!b.wide) {
      status = CountUpdateWalk(sym, base + c, base + r, base + c, base + r, 1);
      if (status) return status;
      continue;
    }
    // Every pair of row blocks behind the columns, K <= I, is one update per
    // column block of the source.
    for (int32_t K = c / nb; K < b.nrb; K++) {
      int64_t kBeg = base + (K * nb > c ? K * nb : c);
      int64_t kEnd = base + min64((int64_t)(K + 1) * nb, r);
      for (int32_t I = K; I < b.nrb; I++) {
        int64_t iBeg = base + (I * nb > c ? I * nb : c);
        int64_t iEnd = base + min64((int64_t)(I + 1) * nb, r);
        status = CountUpdateWalk(sym, kBeg, kEnd, iBeg, iEnd, b.ncb);
        if (status) return status;
      }
    }
  }
  // A narrow target counts all its updates on its first entry.
  for (int32_t s = 0; s < ns; s++) {
    LABlockShape b = laBlockShape(sym, s);
    if (b.wide || b.nrb <= 1) continue;
    int32_t* deps = sym->blockDepsInit[s];
    for (int32_t I = 1; I < b.nrb; I++) {
      deps[0] += deps[I];
      deps[I] = 0;
    }
  }
  return LA_OK;
}

void GetLeaves(LASymbolic* sym, LANumeric* num) {
  int32_t ns = sym->numSNodes;
  int32_t* hasChild = static_cast<int32_t*>(num->scratch);
  for (int32_t s = 0; s < ns; s++) hasChild[s] = 0;
  for (int32_t s = 0; s < ns; s++)
    if (sym->snodeParent[s] != -1) hasChild[sym->snodeParent[s]] = 1;
  int32_t k = 0;
  for (int32_t s = 0; s < ns; s++)
    if (!hasChild[s] || sym->blockDepsInit[s][0] == 0) sym->leaves[k++] = s;
  sym->numLeaves = k;
}

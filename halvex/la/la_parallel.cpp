// The threaded numeric LDL': the factor is cut into dense blocks, and a team
// of kernel threads works through the graph of small tasks on them.  The
// edges of that graph were counted by the analysis; each finished piece of
// work decrements counts under the target block's own lock and queues what
// became ready.  Everything is sized before the run except the task queue.
#include <string.h>

#include "kernels/kernels.h"
#include "la/la_parallel.h"

namespace {

enum { TASK_FACTOR = 0, TASK_SOLVE = 1, TASK_INTERNAL = 2, TASK_EXTERNAL = 3, TASK_NONE = -1 };

// Cells that one thread writes under a lock while another reads them
// without: the reads tolerate staleness, but must not tear.
inline int32_t loadRelaxed(const int32_t* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
inline void storeRelaxed(int32_t* p, int32_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }

inline void takeLock(QVLock* l) { l->lock(l, 1, 1); }
inline void giveLock(QVLock* l) { l->unlock(l); }

inline int32_t min32(int32_t a, int32_t b) { return a < b ? a : b; }
inline int32_t max32(int32_t a, int32_t b) { return a > b ? a : b; }

// ---- geometry of one supernode -------------------------------------------------

struct SNode {
  int32_t first, c, r;
  LABlockShape b;
  double* F;
  int64_t rowBase;  // its first position in rowList
};

SNode snodeOf(const LASymbolic* sym, int32_t s) {
  SNode g;
  g.first = sym->snodeStart[s];
  g.c = laSNodeCols(sym, s);
  g.r = laSNodeRows(sym, s);
  g.b = laBlockShape(sym, s);
  g.F = sym->factor + sym->factorBegin[s];
  g.rowBase = sym->rowBegin[s];
  return g;
}

// Start of column block J; a narrow supernode has only J = 0.
inline double* colBlockStart(const SNode& g, int32_t nb, int32_t J) {
  return g.b.wide ? g.F + laWideColBlockStart(nb, g.r, J) : g.F;
}
inline int32_t colBlockWidth(const SNode& g, int32_t J) { return min32(g.b.w, g.c - J * g.b.w); }
inline int32_t rowBlockHeight(const SNode& g, int32_t I) { return min32(g.b.h, g.r - I * g.b.h); }
// Block (I, J) of a wide supernode.
inline double* blockAt(const SNode& g, int32_t nb, int32_t I, int32_t J) {
  return colBlockStart(g, nb, J) + (int64_t)(I - J) * nb * colBlockWidth(g, J);
}
inline int32_t depIndex(const SNode& g, int32_t I, int32_t J) { return J * g.b.nrb + I; }

// ---- the task queue ----------------------------------------------------------------

// Records and links share one allocation, links behind the records.
int32_t* queueLinks(LATaskQueue* q) { return reinterpret_cast<int32_t*>(q->tasks + q->capacity); }

void linkFree(LATaskQueue* q, int32_t from) {
  for (int32_t i = from; i < q->capacity; i++) q->next[i] = i + 1 < q->capacity ? i + 1 : -1;
  q->freeHead = from < q->capacity ? from : -1;
}

// Caller holds q->lock.  Doubles the records; the links move up behind them
// from the last one down, since old and new link areas overlap.
int32_t growQueue(LATaskQueue* q) {
  int32_t cap = q->capacity;
  if (cap > INT32_MAX / 2) return LA_ERR_MEMORY;
  int64_t bytes = (int64_t)2 * cap * (int64_t)(sizeof(LATaskRecord) + sizeof(int32_t));
  void* grown = poolRealloc(q->pool, q->tasks, bytes, 0);
  if (!grown) return LA_ERR_MEMORY;
  q->tasks = static_cast<LATaskRecord*>(grown);
  int32_t* oldLinks = reinterpret_cast<int32_t*>(q->tasks + cap);
  q->capacity = 2 * cap;
  q->next = queueLinks(q);
  for (int32_t i = cap - 1; i >= 0; i--) q->next[i] = oldLinks[i];
  linkFree(q, cap);
  return LA_OK;
}

void setFailed(LATaskQueue* q, int32_t code) {
  int32_t expected = 0;
  __atomic_compare_exchange_n(&q->failed, &expected, code, false, __ATOMIC_SEQ_CST,
                              __ATOMIC_SEQ_CST);
}
inline bool hasFailed(LATaskQueue* q) { return loadRelaxed(&q->failed) != 0; }

int32_t pushTask(LATaskQueue* q, const LATaskRecord& t) {
  takeLock(q->lock);
  if (q->freeHead < 0 && growQueue(q) != LA_OK) {
    setFailed(q, LA_ERR_MEMORY);
    giveLock(q->lock);
    return LA_ERR_MEMORY;
  }
  int32_t i = q->freeHead;
  q->freeHead = q->next[i];
  q->tasks[i] = t;
  q->next[i] = q->head[t.type];
  q->head[t.type] = i;
  storeRelaxed(&q->queued, q->queued + 1);
  giveLock(q->lock);
  return LA_OK;
}

// Highest type first: external updates free the most waiting work.
bool popTask(LAThreadContext* ctx, LATaskRecord* out) {
  LATaskQueue* q = ctx->queue;
  if (loadRelaxed(&q->queued) == 0) return false;
  takeLock(q->lock);
  for (int32_t type = 3; type >= 0; type--) {
    int32_t i = q->head[type];
    if (i < 0) continue;
    q->head[type] = q->next[i];
    q->next[i] = q->freeHead;
    q->freeHead = i;
    *out = q->tasks[i];
    storeRelaxed(&q->queued, q->queued - 1);
    qvAtomicAdd(ctx->busy, 1);
    giveLock(q->lock);
    return true;
  }
  giveLock(q->lock);
  return false;
}

bool takeLeaf(LAThreadContext* ctx, LATaskRecord* out) {
  if (loadRelaxed(ctx->nextLeaf) >= ctx->numLeaves) return false;
  takeLock(ctx->leafLock);
  int32_t k = *ctx->nextLeaf;
  bool got = k < ctx->numLeaves;
  if (got) {
    qvAtomicAdd(ctx->busy, 1);
    storeRelaxed(ctx->nextLeaf, k + 1);
  }
  giveLock(ctx->leafLock);
  if (!got) return false;
  memset(out, 0, sizeof(*out));
  out->type = TASK_FACTOR;
  out->snode = ctx->leaves[k];
  out->slot = -1;
  return true;
}

bool fetchTask(LAThreadContext* ctx, LATaskRecord* out) {
  if (takeLeaf(ctx, out)) return true;
  if (hasFailed(ctx->queue)) return false;
  return popTask(ctx, out);
}

// A task made ready by a handler: the first one is the handler's follow-up,
// the rest go to the queue.
struct Ready {
  LATaskRecord* running;
  bool haveFollowUp;
};

int32_t makeReady(LAThreadContext* ctx, Ready* ready, const LATaskRecord& t) {
  if (ready && !ready->haveFollowUp) {
    *ready->running = t;
    ready->haveFollowUp = true;
    return LA_OK;
  }
  return pushTask(ctx->queue, t);
}

LATaskRecord task(int32_t type, int32_t s, int32_t slot, int32_t I, int32_t J, int32_t K) {
  LATaskRecord t;
  t.type = type;
  t.snode = s;
  t.slot = slot;
  t.rowBlock = I;
  t.colBlock = J;
  t.otherBlock = K;
  return t;
}

// ---- slots ---------------------------------------------------------------------------

// The analysis sizes the slot pool by the tallest wide supernode and the
// team, but a column block holds its slots until its last block below is
// solved, and several column blocks and supernodes may wait at once: the
// count can be passed.  Then more slots come in chunks that never move, so
// that readers need no lock; each chunk doubles the extra capacity.
int32_t growSlots(LAThreadContext* ctx) {
  LASlotSpace* sp = ctx->slots;
  if (sp->numChunks == LA_MAX_SLOT_CHUNKS) return LA_ERR_MEMORY;
  int64_t nb = ctx->sym->blockSize;
  int32_t add = sp->total > 16 ? sp->total : 16;
  if ((int64_t)sp->total + add > INT32_MAX) return LA_ERR_MEMORY;
  int32_t total = sp->total + add;
  double* chunk = static_cast<double*>(poolAlloc(sp->pool, (int64_t)add * nb * nb * 8, 0));
  if (!chunk) return LA_ERR_MEMORY;
  int32_t* flags = static_cast<int32_t*>(poolAlloc(sp->pool, (int64_t)total * 8, POOL_ZERO));
  if (!flags) {
    poolFree(sp->pool, chunk);
    return LA_ERR_MEMORY;
  }
  if (sp->total > 0) {
    memcpy(flags, sp->inUse, sizeof(int32_t) * (size_t)sp->total);
    memcpy(flags + total, sp->refCount, sizeof(int32_t) * (size_t)sp->total);
  }
  if (sp->ownFlags) poolFree(sp->pool, sp->ownFlags);
  sp->ownFlags = flags;
  sp->inUse = flags;
  sp->refCount = flags + total;
  sp->chunk[sp->numChunks] = chunk;
  sp->chunkStart[sp->numChunks] = sp->total;
  sp->chunkEnd[sp->numChunks] = total;
  sp->numChunks++;
  sp->total = total;
  return LA_OK;
}

int32_t takeSlot(LAThreadContext* ctx, int32_t refs, int32_t* slot) {
  LASlotSpace* sp = ctx->slots;
  takeLock(ctx->slotLock);
  int32_t k = 0;
  while (k < sp->total && sp->inUse[k]) k++;
  if (k == sp->total && growSlots(ctx) != LA_OK) {
    giveLock(ctx->slotLock);
    setFailed(ctx->queue, LA_ERR_MEMORY);
    return LA_ERR_INTERNAL;
  }
  sp->inUse[k] = 1;
  sp->refCount[k] = refs;
  giveLock(ctx->slotLock);
  *slot = k;
  return LA_OK;
}

void releaseSlot(LAThreadContext* ctx, int32_t k) {
  LASlotSpace* sp = ctx->slots;
  takeLock(ctx->slotLock);
  if (--sp->refCount[k] == 0) sp->inUse[k] = 0;
  giveLock(ctx->slotLock);
}

double* slotData(const LAThreadContext* ctx, int32_t k) {
  const LASlotSpace* sp = ctx->slots;
  int64_t nb = ctx->sym->blockSize;
  if (k < sp->baseSlots) return sp->base + (int64_t)k * nb * nb;
  // Only chunks up to k's own are read: they were in place before k was
  // handed out, while later ones may be in the making.
  int32_t c = 0;
  while (k >= sp->chunkEnd[c]) c++;
  return sp->chunk[c] + (int64_t)(k - sp->chunkStart[c]) * nb * nb;
}

// ---- counts --------------------------------------------------------------------------

// Decrements entry e of supernode t under its lock; at 0 the task goes out.
int32_t countDown(LAThreadContext* ctx, Ready* ready, int32_t t, int32_t e, const LATaskRecord& next) {
  QVLock* l = ctx->blockLocks[t][e];
  int32_t* d = &ctx->blockDeps[t][e];
  takeLock(l);
  int32_t v = loadRelaxed(d) - 1;
  storeRelaxed(d, v);
  int32_t status = v == 0 ? makeReady(ctx, ready, next) : LA_OK;
  giveLock(l);
  return status;
}

// ---- distributing an update ------------------------------------------------------------

// Where an update comes from: a finished array (type 3), or the factored
// narrow supernode that makes each piece on demand.
struct UpdateSource {
  // Finished: U holds (column range) x (row range), leading dimension ldu,
  // and with coinciding ranges only its upper triangle.
  const double* U;
  int32_t ldu;
  int64_t colBeg, rowBeg;
  bool sameRanges;
  // On demand: the narrow supernode's L and W = L * D, leading dimension r.
  const double* L;
  const double* W;
  int32_t ld, k;
  int64_t srcBase;  // rowList position of row 0 of L and W
};

}  // namespace

void ConvertRowToColumnWise(int32_t triangular, int32_t rows, int32_t cols, const double* source,
                            double* target) {
  int32_t i = 0;
  if (!triangular) {
    // Eight rows at a time, so that each column of the target is written a
    // whole cache line at once rather than one entry per line.
    for (; i + 8 <= rows; i += 8) {
      const double* r = source + (int64_t)i * cols;
      for (int32_t j = 0; j < cols; j++) {
        double* t = target + i + (int64_t)j * rows;
        for (int32_t k = 0; k < 8; k++) t[k] = r[(int64_t)k * cols + j];
      }
    }
  }
  for (; i < rows; i++) {
    const double* row = source + (int64_t)i * cols;
    int32_t end = triangular ? min32(i + 1, cols) : cols;
    for (int32_t j = 0; j < end; j++) target[i + (int64_t)j * rows] = row[j];
  }
}

int32_t ApplyUpdatesBlock(int32_t consecutive, int32_t diagonal, int32_t n1, int32_t n2,
                          int32_t sourceOffset, int32_t targetWidth, int32_t firstPos,
                          int32_t sourceStride, const int32_t* pos1, const int32_t* pos2,
                          double* target, const double* source, QVLock* lock) {
  // Column x of the source piece is the first-part row x, its row y the
  // second-part row y; the target is row-major, rows pos2, columns pos1.
  // On a diagonal piece the first part is also the head of the second, and
  // only x <= y + sourceOffset holds numbers.
  //
  // The target rows are far apart in memory, and a large target is not in
  // cache: the lines of a row a few ahead are asked for while this one is
  // done.
  int32_t lo = consecutive ? firstPos : pos1[0];
  int32_t hi = consecutive ? firstPos + n1 - 1 : pos1[n1 - 1];
  takeLock(lock);
  const int32_t kRowsAhead = 6;
  for (int32_t y = 0; y < kRowsAhead && y < n2; y++) {
    const double* row = target + (int64_t)pos2[y] * targetWidth;
    for (int32_t x = lo; x <= hi; x += 8) __builtin_prefetch(row + x, 1);
    __builtin_prefetch(row + hi, 1);
  }
  for (int32_t y = 0; y < n2; y++) {
    // The update area and the factor never overlap.
    const double* __restrict u = source + (int64_t)y * sourceStride;
    double* __restrict t = target + (int64_t)pos2[y] * targetWidth;
    if (y + kRowsAhead < n2) {
      const double* next = target + (int64_t)pos2[y + kRowsAhead] * targetWidth;
      for (int32_t x = lo; x <= hi; x += 8) __builtin_prefetch(next + x, 1);
      __builtin_prefetch(next + hi, 1);
    }
    int32_t end = diagonal ? min32(n1, y + sourceOffset + 1) : n1;
    if (consecutive) {
      double* __restrict tc = t + firstPos;
      for (int32_t x = 0; x < end; x++) tc[x] -= u[x];
    } else {
      for (int32_t x = 0; x < end; x++) t[pos1[x]] -= u[x];
    }
  }
  giveLock(lock);
  return 0;
}

namespace {

// The piece (column rows [p, q)) x (row rows [kb, ke)) of an on-demand
// source, into the thread's update area, leading dimension q - p.
const double* makePiece(LAThreadContext* ctx, const UpdateSource& src, int64_t p, int64_t q,
                        int64_t kb, int64_t ke) {
  int32_t m1 = (int32_t)(q - p), m2 = (int32_t)(ke - kb);
  double* U = ctx->U;
  const double* Wp = src.W + (p - src.srcBase);
  const double* Lk = src.L + (kb - src.srcBase);
  if (src.k == 1) {
    my_outer_prod(m1, m2, Wp, Lk, U);
    return U;
  }
  // With kb == p the head of the rows is the first part itself: its
  // triangle comes from the symmetric kernel, the rest from a product.
  int32_t tri = kb == p ? min32(m1, m2) : 0;
  if (tri > 0) {
    my_dsyrk2_UNT_0p1(&tri, &src.k, Wp, &src.ld, Lk, &src.ld, U, &m1, ctx->packBuffer,
                      ctx->panelBuffer);
  }
  if (m2 > tri) {
    laGemmNT(m1, m2 - tri, src.k, 1.0, Wp, src.ld, Lk + tri, src.ld, 0.0, U + (int64_t)tri * m1,
             m1);
  }
  return U;
}

// Walks an update of source rows colRange x rowRange (rowList positions,
// both ascending) through its targets, the way the analysis counted it.
int32_t applyUpdates(LAThreadContext* ctx, int64_t colBeg, int64_t colEnd, int64_t rowBeg,
                     int64_t rowEnd, const UpdateSource& src, bool onDemand) {
  LASymbolic* sym = ctx->sym;
  const int32_t* rowList = sym->rowList;
  int32_t nb = sym->blockSize;
  int32_t* pos1 = ctx->relIndex;
  int32_t* pos2 = ctx->relIndex + nb;
  int32_t cap2 = ctx->relEntries - nb;
  int64_t rp = rowBeg;
  for (int64_t p = colBeg; p < colEnd;) {
    int32_t row = rowList[p];
    int32_t t = sym->colToSNode[row];
    SNode g = snodeOf(sym, t);
    int32_t J = g.b.wide ? (row - g.first) / nb : 0;
    int32_t w = colBlockWidth(g, J);
    int32_t blockFirst = g.first + J * g.b.w;
    int32_t blockEnd = blockFirst + w;
    int64_t q = p;
    while (q < colEnd && rowList[q] < blockEnd) {
      pos1[q - p] = rowList[q] - blockFirst;
      q++;
    }
    int32_t m1 = (int32_t)(q - p);
    bool consecutive = pos1[m1 - 1] - pos1[0] == m1 - 1;
    while (rp < rowEnd && rowList[rp] < blockFirst) rp++;
    double* CB = colBlockStart(g, nb, J);
    // On demand, one product serves the pieces of all row blocks below: the
    // rows from the first chunk on, as many as the update area holds.
    int64_t madeBeg = 0, madeEnd = 0;
    int64_t madeCap = onDemand ? ctx->updateDoubles / m1 : 0;
    int64_t tBase = g.rowBase;
    int64_t tpos = tBase + (int64_t)J * g.b.w;
    int64_t tEnd = g.rowBase + g.r;
    int64_t k = rp;
    for (int32_t I = J; I < g.b.nrb && k < rowEnd; I++) {
      int64_t blockRowEnd = tBase + min32((I + 1) * g.b.h, g.r);
      bool any = false;
      // Rows of this row block, in chunks that fit the position array.
      for (;;) {
        int32_t n2 = 0;
        int64_t chunkBeg = k;
        while (k < rowEnd && n2 < cap2) {
          int32_t r2 = rowList[k];
          tpos = laSeekRow(rowList, tpos, tEnd, r2);
          if (tpos == tEnd || rowList[tpos] != r2 || tpos >= blockRowEnd) break;
          pos2[n2++] = (int32_t)(tpos - tBase - (int64_t)J * g.b.w);
          k++;
        }
        if (n2 == 0) break;
        any = true;
        const double* piece;
        int32_t stride;
        // With coinciding ranges, x <= y + offset marks the lower triangle.
        int32_t offset = (int32_t)(chunkBeg - p);
        if (onDemand) {
          if (chunkBeg < madeBeg || k > madeEnd) {
            madeBeg = chunkBeg;
            // A chunk stays inside one row block, which the area holds.
            madeEnd = rowEnd - chunkBeg > madeCap ? chunkBeg + madeCap : rowEnd;
            makePiece(ctx, src, p, q, madeBeg, madeEnd);
          }
          piece = ctx->U + (chunkBeg - madeBeg) * m1;
          stride = m1;
        } else {
          piece = src.U + (p - src.colBeg) + (chunkBeg - src.rowBeg) * src.ldu;
          stride = src.ldu;
        }
        ApplyUpdatesBlock(consecutive, src.sameRanges, m1, n2, offset, w, pos1[0], stride, pos1,
                          pos2, CB, piece, ctx->blockLocks[t][depIndex(g, I, J)]);
        if (n2 < cap2) break;
      }
      if (!any) continue;
      // One event per row block that received rows, as the analysis counted.
      int32_t e = depIndex(g, I, J), type = I == J ? TASK_FACTOR : TASK_SOLVE;
      if (!g.b.wide) {
        type = TASK_FACTOR;
        if (g.b.nrb > 1) e = 0;
      }
      int32_t status = countDown(ctx, nullptr, t, e, task(type, t, -1, I, J, J));
      if (status) return status;
    }
    p = q;
  }
  return LA_OK;
}

}  // namespace

int32_t ApplyUpdatesBig(LAThreadContext* ctx, int64_t colBeg, int64_t colEnd, int64_t rowBeg,
                        int64_t rowEnd, const double* U) {
  UpdateSource src;
  memset(&src, 0, sizeof(src));
  src.U = U;
  src.ldu = (int32_t)(colEnd - colBeg);
  src.colBeg = colBeg;
  src.rowBeg = rowBeg;
  src.sameRanges = colBeg == rowBeg;
  return applyUpdates(ctx, colBeg, colEnd, rowBeg, rowEnd, src, false);
}

int32_t ApplyUpdatesSmall(LAThreadContext* ctx, int32_t s) {
  SNode g = snodeOf(ctx->sym, s);
  UpdateSource src;
  memset(&src, 0, sizeof(src));
  src.sameRanges = true;
  src.L = g.F + g.c;
  src.W = ctx->W + g.c;
  src.ld = g.r;
  src.k = g.c;
  src.srcBase = g.rowBase + g.c;
  int64_t beg = g.rowBase + g.c, end = g.rowBase + g.r;
  return applyUpdates(ctx, beg, end, beg, end, src, true);
}

int32_t PopulateSNodes(LAPopulateRange* range) {
  LASymbolic* sym = range->sym;
  const LAMatrix* lower = &range->num->lowerCopy;
  int32_t nb = sym->blockSize;
  int32_t* rel = range->work;
  for (int32_t s = range->first; s < range->end; s++) {
    SNode g = snodeOf(sym, s);
    // The whole array, not just its lower part: what lies above the
    // diagonal is never read, but a defined value keeps runs comparable.
    memset(g.F, 0, sizeof(double) * (size_t)(sym->factorBegin[s + 1] - sym->factorBegin[s]));
    const int32_t* rows = sym->rowList + g.rowBase;
    bool ownRowsOnly = g.r == g.c;
    if (!ownRowsOnly)
      for (int32_t i = g.c; i < g.r; i++) rel[rows[i]] = i;
    int32_t last = g.first + g.c;
    for (int32_t j = 0; j < g.c; j++) {
      int32_t col = g.first + j;
      int32_t J = g.b.wide ? j / nb : 0;
      int32_t jj = j - J * g.b.w, w = colBlockWidth(g, J);
      double* CB = colBlockStart(g, nb, J);
      for (int32_t p = lower->colBegin[col]; p < lower->colBegin[col + 1]; p++) {
        int32_t row = lower->rowIndex[p];
        int32_t i = row < last ? row - g.first : rel[row];
        // Added: duplicates in the input add up.
        CB[(int64_t)(i - J * g.b.w) * w + jj] += lower->value[p];
      }
    }
  }
  return 0;
}

namespace {

int64_t populateMain(void* arg) { return PopulateSNodes(static_cast<LAPopulateRange*>(arg)); }

// B (m rows by the n columns of a factored diagonal block F) := B L^-T D^-1
// in place, and W := B L^-T: the row solve of a block below the diagonal.
// Done column by column, each column a rank-one update of all the columns
// behind it, this runs at the speed of memory.  Here every interchange of
// the block is applied to B first, and each one also to the rows of L's
// earlier columns, which it had not touched: then the substitution is one
// unit lower triangular solve that the blocked kernel does from cache.  The
// products are the same; only the order of summation differs.  Lt (n by n,
// leading dimension ldl) is scratch for that L.  The result goes to out
// (leading dimension ldo), which may be B itself.
void solveBelowDiagonal(LAThreadContext* ctx, int32_t m, int32_t n, const double* F, int32_t ldf,
                        const int32_t* pivots, double* B, int32_t ldb, double* W, int32_t ldw,
                        double* Lt, int32_t ldl, double* out, int32_t ldo) {
  auto col = [](double* A, int32_t ld, int32_t j) { return A + (int64_t)j * ld; };
  for (int32_t j = 0; j < n; j++) {
    double* l = col(Lt, ldl, j);
    const double* f = F + (int64_t)j * ldf;
    l[j] = 1.0;
    for (int32_t i = j + 1; i < n; i++) l[i] = f[i];
  }
  for (int32_t k = 0; k < n;) {
    int32_t step = pivots[k] >= 0 ? 1 : 2;
    int32_t kk = k + step - 1, p = step == 1 ? pivots[k] : -pivots[k];
    // The second column of a 2x2 pivot holds D, not L.
    if (step == 2) col(Lt, ldl, k)[k + 1] = 0.0;
    if (p != kk) {
      my_dswap_one(m, col(B, ldb, kk), col(B, ldb, p));
      for (int32_t j = 0; j < k; j++) {
        double* l = col(Lt, ldl, j);
        double t = l[kk];
        l[kk] = l[p];
        l[p] = t;
      }
    }
    k += step;
  }
  int mm = m, nn = n, ldL = ldl, ldB = ldb;
  double one = 1.0;
  my_dtrsm_RLTN("R", "L", "T", "U", &mm, &nn, &one, Lt, &ldL, B, &ldB, ctx->packBuffer,
                ctx->panelBuffer);
  for (int32_t j = 0; j < n;) {
    const double* b0 = col(B, ldb, j);
    double* o0 = col(out, ldo, j);
    memcpy(col(W, ldw, j), b0, sizeof(double) * (size_t)m);
    if (pivots[j] >= 0) {
      double r = 1.0 / F[j + (int64_t)j * ldf];
      for (int32_t i = 0; i < m; i++) o0[i] = b0[i] * r;
      j += 1;
      continue;
    }
    const double* b1 = col(B, ldb, j + 1);
    double* o1 = col(out, ldo, j + 1);
    memcpy(col(W, ldw, j + 1), b1, sizeof(double) * (size_t)m);
    double d = F[j + 1 + (int64_t)j * ldf];
    double a = F[j + (int64_t)j * ldf] / d, b = F[j + 1 + (int64_t)(j + 1) * ldf] / d;
    double den = a * b - 1.0;
    for (int32_t i = 0; i < m; i++) {
      double t0 = b0[i] / d, t1 = b1[i] / d;
      o0[i] = (b * t0 - t1) / den;
      o1[i] = (t1 * a - t0) / den;
    }
    j += 2;
  }
}

// Type 0.
int32_t factorTask(LAThreadContext* ctx, const LATaskRecord* run, Ready* ready) {
  LASymbolic* sym = ctx->sym;
  int32_t s = run->snode, J = run->colBlock;
  int32_t nb = sym->blockSize;
  SNode g = snodeOf(sym, s);
  if (J == g.b.ncb - 1) qvAtomicAdd(ctx->done, 1);
  int32_t* pivots = sym->pivots + g.first + J * g.b.w;
  if (!g.b.wide) {
    int64_t size = (int64_t)g.r * g.c;
    ConvertRowToColumnWise(0, g.r, g.c, g.F, ctx->W);
    memcpy(g.F, ctx->W, sizeof(double) * (size_t)size);
    LA_DenseLDLFactorize(sym->pivotTol, g.r, g.c, g.F, g.r, pivots, ctx->W, &ctx->numPerturbed,
                         ctx->packBuffer, ctx->panelBuffer);
    return g.c < g.r ? ApplyUpdatesSmall(ctx, s) : LA_OK;
  }
  int32_t w = colBlockWidth(g, J);
  int32_t extra = min32(nb - w, g.r - g.c);
  int32_t hd = w + extra;
  double* D = blockAt(g, nb, J, J);
  ConvertRowToColumnWise(0, hd, w, D, ctx->U);
  DenseLDLNonBlock(sym->pivotTol, w, ctx->U, hd, pivots, &ctx->numPerturbed);
  int32_t slot = -1;
  if (extra > 0) {
    int32_t status = takeSlot(ctx, g.b.nrb - J, &slot);
    if (status) return status;
    // L goes to the slot's rows above the ones that receive W.
    double* sd = slotData(ctx, slot);
    solveBelowDiagonal(ctx, extra, w, ctx->U, hd, pivots, ctx->U + w, hd, sd + w, nb, sd, nb,
                       ctx->U + w, hd);
  }
  memcpy(D, ctx->U, sizeof(double) * (size_t)hd * w);
  if (extra > 0) {
    QVLock* l = ctx->blockLocks[s][depIndex(g, J, J)];
    takeLock(l);
    storeRelaxed(&ctx->blockDeps[s][depIndex(g, J, J)], -2 - slot);
    giveLock(l);
    // The extra rows update the ancestors at once.
    int32_t status = makeReady(ctx, ready, task(TASK_EXTERNAL, s, slot, J, J, J));
    if (status) return status;
  }
  for (int32_t I = J + 1; I < g.b.nrb; I++) {
    int32_t status = countDown(ctx, ready, s, depIndex(g, I, J), task(TASK_SOLVE, s, -1, I, J, J));
    if (status) return status;
  }
  return LA_OK;
}

}  // namespace

// Type 1.  Pairs of solved blocks are made here, under the lock of the
// diagonal, by whichever partner comes second, so each pair exists once.
int32_t SolveTask(LATaskRecord* run, LAThreadContext* ctx) {
  LASymbolic* sym = ctx->sym;
  int32_t s = run->snode, I = run->rowBlock, J = run->colBlock;
  int32_t nb = sym->blockSize;
  SNode g = snodeOf(sym, s);
  int32_t h = g.b.h, nrb = g.b.nrb;
  int32_t height = rowBlockHeight(g, I);
  int32_t w = colBlockWidth(g, J);
  int32_t refs = nrb - I;
  bool straddles = I * h < g.c && g.c < I * h + height;
  if (straddles) refs += nrb - I;
  int32_t k;
  int32_t status = takeSlot(ctx, refs, &k);
  if (status) return status;
  double* B = blockAt(g, nb, I, J);
  const double* D = blockAt(g, nb, J, J);
  int32_t hd = rowBlockHeight(g, J);
  ConvertRowToColumnWise(0, height, w, B, ctx->U);
  // The slot holds the solve's L until W overwrites it; the result goes
  // straight back to the block, column-major.
  double* sd = slotData(ctx, k);
  solveBelowDiagonal(ctx, height, w, D, hd, sym->pivots + g.first + J * nb, ctx->U, height, sd, nb,
                     sd, nb, B, height);

  Ready ready = {run, false};
  run->type = TASK_NONE;
  int32_t* deps = ctx->blockDeps[s];
  QVLock* l = ctx->blockLocks[s][depIndex(g, J, J)];
  int32_t lastCol = (g.c - 1) / h;
  auto solvedSlot = [&](int32_t I2) { return -2 - loadRelaxed(&deps[depIndex(g, I2, J)]); };
  takeLock(l);
  storeRelaxed(&deps[depIndex(g, I, J)], -2 - k);
  for (int32_t I2 = J + 1; I2 <= min32(I, lastCol) && !status; I2++) {
    int32_t k2 = solvedSlot(I2);
    if (k2 >= 0) status = makeReady(ctx, &ready, task(TASK_INTERNAL, s, k2, I, J, I2));
  }
  if (I <= lastCol)
    for (int32_t I2 = I + 1; I2 < nrb && !status; I2++)
      if (solvedSlot(I2) >= 0) status = makeReady(ctx, &ready, task(TASK_INTERNAL, s, k, I2, J, I));
  if (g.c < I * h + height) {
    int32_t first = (lastCol + 1) * h <= g.c ? lastCol + 1 : lastCol;
    for (int32_t I2 = first; I2 <= I && !status; I2++) {
      int32_t k2 = solvedSlot(I2);
      if (k2 >= 0) status = makeReady(ctx, &ready, task(TASK_EXTERNAL, s, k2, I, J, I2));
    }
    for (int32_t I2 = I + 1; I2 < nrb && !status; I2++)
      if (solvedSlot(I2) >= 0) status = makeReady(ctx, &ready, task(TASK_EXTERNAL, s, k, I2, J, I));
  }
  giveLock(l);
  return status;
}

// Type 2: target (I, K) of the same supernode, from solved (I, J) and the
// panel of (K, J).  The target is still row-major: its transpose is
// column-major with leading dimension K's width.
int32_t UpdateInternalTask(LATaskRecord* run, LAThreadContext* ctx) {
  LASymbolic* sym = ctx->sym;
  int32_t s = run->snode, I = run->rowBlock, J = run->colBlock, K = run->otherBlock;
  int32_t nb = sym->blockSize;
  SNode g = snodeOf(sym, s);
  int32_t hI = rowBlockHeight(g, I), wJ = colBlockWidth(g, J), wK = colBlockWidth(g, K);
  const double* L = blockAt(g, nb, I, J);
  const double* Wk = slotData(ctx, run->slot);
  double* T = blockAt(g, nb, I, K);
  int32_t e = depIndex(g, I, K);
  QVLock* l = ctx->blockLocks[s][e];
  takeLock(l);
  if (I != K) {
    laGemmNT(wK, hI, wJ, -1.0, Wk, nb, L, hI, 1.0, T, wK);
  } else {
    my_dsyrk2_UNT_1m1(&wK, &wJ, Wk, &nb, L, &hI, T, &wK, ctx->packBuffer, ctx->panelBuffer);
    if (hI > wK)
      laGemmNT(wK, hI - wK, wJ, -1.0, Wk, nb, L + wK, hI, 1.0, T + (int64_t)wK * wK, wK);
  }
  releaseSlot(ctx, run->slot);
  int32_t v = loadRelaxed(&ctx->blockDeps[s][e]) - 1;
  storeRelaxed(&ctx->blockDeps[s][e], v);
  int32_t status = LA_OK;
  if (v == 0) status = pushTask(ctx->queue, task(I == K ? TASK_FACTOR : TASK_SOLVE, s, -1, I, K, K));
  giveLock(l);
  return status;
}

namespace {

// Type 3: the rows of I and of K behind the supernode's columns.
int32_t externalTask(LATaskRecord* run, LAThreadContext* ctx) {
  LASymbolic* sym = ctx->sym;
  int32_t s = run->snode, I = run->rowBlock, J = run->colBlock, K = run->otherBlock;
  int32_t nb = sym->blockSize;
  SNode g = snodeOf(sym, s);
  int32_t wJ = colBlockWidth(g, J);
  int32_t hI = rowBlockHeight(g, I), hK = rowBlockHeight(g, K);
  int32_t oI = max32(0, g.c - I * nb), oK = max32(0, g.c - K * nb);
  int32_t mI = hI - oI, mK = hK - oK;
  const double* LI = blockAt(g, nb, I, J) + oI;
  const double* Wk = slotData(ctx, run->slot) + oK;
  if (I != K) {
    laGemmNT(mK, mI, wJ, 1.0, Wk, nb, LI, hI, 0.0, ctx->U, mK);
  } else {
    my_dsyrk2_UNT_0p1(&mK, &wJ, Wk, &nb, LI, &hI, ctx->U, &mK, ctx->packBuffer, ctx->panelBuffer);
  }
  releaseSlot(ctx, run->slot);
  int64_t kBeg = g.rowBase + K * nb + oK, iBeg = g.rowBase + I * nb + oI;
  return ApplyUpdatesBig(ctx, kBeg, kBeg + mK, iBeg, iBeg + mI, ctx->U);
}

// Runs a task and every follow-up that it leaves in the record.
int32_t runTask(LAThreadContext* ctx, LATaskRecord* run) {
  while (run->type != TASK_NONE) {
    int32_t status;
    switch (run->type) {
      case TASK_FACTOR: {
        LATaskRecord t = *run;
        run->type = TASK_NONE;
        Ready ready = {run, false};
        status = factorTask(ctx, &t, &ready);
        break;
      }
      case TASK_SOLVE:
        status = SolveTask(run, ctx);
        break;
      case TASK_INTERNAL:
        status = UpdateInternalTask(run, ctx);
        run->type = TASK_NONE;
        break;
      default:
        status = externalTask(run, ctx);
        run->type = TASK_NONE;
        break;
    }
    if (status) return status;
  }
  return LA_OK;
}

inline int64_t loadCell(volatile int64_t* cell) {
  return __atomic_load_n(const_cast<int64_t*>(cell), __ATOMIC_SEQ_CST);
}

// Nothing queued, no leaf left and nobody working, yet supernodes wait: the
// counts and the walk disagree, and waiting on would hang.
bool stuck(LAThreadContext* ctx) {
  if (__atomic_load_n(ctx->nextLeaf, __ATOMIC_SEQ_CST) < ctx->numLeaves) return false;
  // A thread at work is the common answer, and it needs no lock: the
  // poller must not take the queue's lock from the workers on every turn.
  if (loadCell(ctx->busy) != 0) return false;
  LATaskQueue* q = ctx->queue;
  takeLock(q->lock);
  bool none = q->queued == 0 && loadCell(ctx->busy) == 0;
  giveLock(q->lock);
  return none && loadCell(ctx->done) < ctx->numSNodes;
}

}  // namespace

int64_t ProcessTask(LAThreadContext* ctx) {
  LATaskQueue* q = ctx->queue;
  LATaskRecord run;
  for (;;) {
    if (hasFailed(q)) return 0;
    bool got = fetchTask(ctx, &run);
    if (!got) {
      if (loadCell(ctx->done) >= ctx->numSNodes) return 0;
      // One thread polls; the others queue up behind it on the lock.
      takeLock(ctx->idleLock);
      for (;;) {
        got = fetchTask(ctx, &run);
        if (got || hasFailed(q) || loadCell(ctx->done) >= ctx->numSNodes) break;
        if (stuck(ctx)) {
          setFailed(q, LA_ERR_INTERNAL);
          break;
        }
        __builtin_ia32_pause();
      }
      giveLock(ctx->idleLock);
      if (!got) continue;
    }
    int32_t status = runTask(ctx, &run);
    qvAtomicAdd(ctx->busy, -1);
    if (status) {
      setFailed(q, status);
      return 0;
    }
  }
}

namespace {

int64_t processMain(void* arg) { return ProcessTask(static_cast<LAThreadContext*>(arg)); }

// Threads of one phase: started through the kernel, each with its own end
// event.  A thread the kernel refuses runs on the caller instead.
struct Team {
  void** threads;
  void** events;
  int32_t started;
};

bool startThread(Team* team, QVThreadMain fn, void* arg, const char* name) {
  QVKernel* k = Exported_QVHandle;
  if (!k || !k->createThread || !k->createEvent) return false;
  int64_t attr4[4] = {0, 0, 0, 0};
  void* event = k->createEvent(k, attr4, 0, name);
  if (!event) return false;
  QVThreadAttr attr;
  memset(&attr, 0, sizeof(attr));
  attr.function = fn;
  attr.argument = arg;
  attr.endEvent = static_cast<QVEvent*>(event);
  void* thread = k->createThread(k, &attr, 0, name);
  if (!thread) {
    static_cast<QVEvent*>(event)->destroy(event);
    return false;
  }
  team->threads[team->started] = thread;
  team->events[team->started] = event;
  team->started++;
  return true;
}

// Joins the phase.  Every thread is waited for and destroyed, also when the
// wait itself fails.
int32_t joinTeam(Team* team) {
  int32_t status = LA_OK;
  if (team->started > 0 &&
      qvWait(nullptr, team->started, team->events, nullptr, 1, 0) != 0)
    status = LA_ERR_INTERNAL;
  for (int32_t i = 0; i < team->started; i++) {
    // Destroying a kernel thread joins it, so nothing outlives the call.
    static_cast<QVThread*>(team->threads[i])->destroy(team->threads[i]);
    static_cast<QVEvent*>(team->events[i])->destroy(team->events[i]);
  }
  team->started = 0;
  return status;
}

QVLock* newLock(const char* name) {
  QVKernel* k = Exported_QVHandle;
  if (!k || !k->createMutex) return nullptr;
  int64_t attr3[3] = {0, 0, 0};
  return static_cast<QVLock*>(k->createMutex(k, attr3, 0, name));
}

void dropLock(QVLock*& l) {
  if (l) l->destroy(l);
  l = nullptr;
}

}  // namespace

int32_t NumericLDLParallel(LAEnv* env, LASymbolic* sym, LANumeric* num) {
  QVPool* pool = env->pool;
  int32_t t = sym->threadsUsed > 0 ? sym->threadsUsed : 1;
  int32_t n = sym->n, ns = sym->numSNodes, nb = sym->blockSize;

  // 1. Everything of the run in two blocks: the fixed records, then the
  // queue's records, which alone may grow.
  int64_t fixedBytes = (int64_t)sizeof(void*) * 2 * t + (int64_t)sizeof(LAThreadContext) * t +
                       (int64_t)sizeof(LAPopulateRange) * t + (int64_t)sizeof(LATaskQueue);
  char* fixed = static_cast<char*>(poolAlloc(pool, fixedBytes, POOL_ZERO));
  if (!fixed) return LA_ERR_MEMORY;
  int32_t capacity = sym->taskCapacity > 0 ? sym->taskCapacity : 16;
  void* records = poolAlloc(
      pool, (int64_t)capacity * (int64_t)(sizeof(LATaskRecord) + sizeof(int32_t)), 0);
  if (!records) {
    poolFree(pool, fixed);
    return LA_ERR_MEMORY;
  }
  Team team;
  team.threads = reinterpret_cast<void**>(fixed);
  team.events = team.threads + t;
  team.started = 0;
  LAThreadContext* ctx = reinterpret_cast<LAThreadContext*>(fixed + sizeof(void*) * 2 * t);
  LAPopulateRange* ranges = reinterpret_cast<LAPopulateRange*>(ctx + t);
  LATaskQueue* q = reinterpret_cast<LATaskQueue*>(ranges + t);

  int64_t relEntries = n > 2 * nb ? n : 2 * nb;
  int64_t stride = (((int64_t)sym->updateBufferSize + sym->panelBufferSize) * 8 + 16 +
                    relEntries * 4 + 15) & ~(int64_t)15;
  auto slice = [&](int32_t i) { return reinterpret_cast<char*>(sym->work) + stride * i; };
  auto relOf = [&](int32_t i) {
    return reinterpret_cast<int32_t*>(
        slice(i) + ((int64_t)sym->updateBufferSize + sym->panelBufferSize) * 8);
  };

  // 2. Populate, on t - 1 threads while the caller prepares the rest.
  for (int32_t i = 0; i < t; i++) {
    ranges[i].sym = sym;
    ranges[i].num = num;
    ranges[i].work = relOf(i);
  }
  if (t < 2) {
    ranges[0].first = 0;
    ranges[0].end = ns;
  } else {
    int64_t chunk = n / (t - 1);
    auto snodeAt = [&](int64_t col) { return col < n ? sym->colToSNode[col] : ns; };
    for (int32_t i = 0; i < t - 1; i++) {
      ranges[i].first = snodeAt(i * (chunk + 1));
      ranges[i].end = i == t - 2 ? ns : snodeAt((i + 1) * (chunk + 1));
      if (!startThread(&team, populateMain, &ranges[i], "halvex populate"))
        PopulateSNodes(&ranges[i]);
    }
  }

  // 3. Shared state.
  memcpy(sym->blockDeps[0], sym->blockDepsInit[0], sizeof(int32_t) * (size_t)sym->numBlocks);
  q->tasks = static_cast<LATaskRecord*>(records);
  q->capacity = capacity;
  q->next = queueLinks(q);
  linkFree(q, 0);
  for (int32_t i = 0; i < 4; i++) q->head[i] = -1;
  q->failed = 0;
  q->queued = 0;
  q->pool = pool;
  QVLock* idleLock = newLock("halvex idle");
  QVLock* leafLock = newLock("halvex leaf");
  QVLock* slotLock = newLock("halvex slot");
  q->lock = newLock("halvex queue");
  bool locksMade = idleLock && leafLock && slotLock && q->lock;
  QVLock** blockLocks = sym->blockLocks[0];
  int32_t locksMadeCount = 0;
  for (; locksMade && locksMadeCount < sym->numBlocks; locksMadeCount++) {
    blockLocks[locksMadeCount] = newLock("halvex block");
    if (!blockLocks[locksMadeCount]) locksMade = false;
  }
  sym->nextLeaf = 0;
  if (sym->numSlots > 0) memset(sym->slotPool->inUse, 0, sizeof(int32_t) * (size_t)sym->numSlots);
  LASlotSpace slots;
  memset(&slots, 0, sizeof(slots));
  slots.pool = pool;
  slots.base = sym->slotPool ? sym->slotPool->data : nullptr;
  slots.baseSlots = sym->slotPool && sym->slotPool->data ? sym->numSlots : 0;
  slots.total = slots.baseSlots;
  slots.inUse = slots.total > 0 ? sym->slotPool->inUse : nullptr;
  slots.refCount = slots.total > 0 ? sym->slotPool->refCount : nullptr;
  int64_t done = 0, busy = 0;
  qvAtomicInit(&done, 0);
  qvAtomicInit(&busy, 0);

  // 4. The populate threads.
  int32_t status = joinTeam(&team);
  if (t < 2) PopulateSNodes(&ranges[0]);
  if (!locksMade && status == LA_OK) status = LA_ERR_MEMORY;

  // 5. and 6. The run: t - 1 threads and the caller.
  if (status == LA_OK) {
    for (int32_t i = 0; i < t; i++) {
      LAThreadContext* c = &ctx[i];
      c->numLeaves = sym->numLeaves;
      c->threadsUsed = t;
      c->numSNodes = ns;
      c->done = &done;
      c->busy = &busy;
      c->blockDeps = sym->blockDeps;
      c->leaves = sym->leaves;
      c->work = reinterpret_cast<double*>(slice(i));
      c->U = c->work;
      c->W = c->U + sym->updateBufferSize;
      c->updateDoubles = sym->updateBufferSize;
      c->sym = sym;
      c->relIndex = relOf(i);
      c->relEntries = (int32_t)relEntries;
      c->queue = q;
      c->idleLock = idleLock;
      c->leafLock = leafLock;
      c->slotLock = slotLock;
      c->blockLocks = sym->blockLocks;
      c->nextLeaf = &sym->nextLeaf;
      c->slots = &slots;
      c->packBuffer = reinterpret_cast<double*>(static_cast<char*>(num->packBuffers) +
                                                (int64_t)LA_PACK_BUFFER_BYTES * i);
      c->panelBuffer = num->panelBuffers + (int64_t)num->panelWidth * LA_SEQ_PANEL_WIDTH * i;
    }
    for (int32_t i = 0; i < t - 1; i++) startThread(&team, processMain, &ctx[i], "halvex factor");
    ProcessTask(&ctx[t - 1]);
    status = joinTeam(&team);
  }

  // 7. Added, not assigned: this path counts on across factorisations.
  for (int32_t i = 0; i < t; i++) sym->numPerturbed += ctx[i].numPerturbed;

  // 8. Close.
  dropLock(idleLock);
  dropLock(leafLock);
  dropLock(slotLock);
  dropLock(q->lock);
  for (int32_t i = 0; i < locksMadeCount; i++) dropLock(blockLocks[i]);
  qvAtomicDestroy(&done);
  qvAtomicDestroy(&busy);
  if (status == LA_OK && q->failed) status = q->failed == LA_ERR_MEMORY ? LA_ERR_MEMORY : LA_ERR_INTERNAL;
  for (int32_t i = 0; i < slots.numChunks; i++) poolFree(pool, slots.chunk[i]);
  if (slots.ownFlags) poolFree(pool, slots.ownFlags);
  poolFree(pool, q->tasks);
  poolFree(pool, fixed);
  if (status) return status;
  laBuildDiagCopies(sym);

  // 9.
  if (env->collectInertia == 1) laCollectInertia(env, sym, nb);
  return LA_OK;
}

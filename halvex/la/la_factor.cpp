// The numeric LDL' on the plan of the analysis: right-looking and
// supernodal.  Each supernode is assembled, factored densely with pivots
// inside its diagonal block, and its update is formed once as a dense
// product and pushed into all ancestors at once.
//
// A plan that chose the threaded path goes to the task scheduler, which
// also runs it on one thread when that plan was chosen for its blocking.
#include <math.h>
#include <string.h>

#include "kernels/kernels.h"
#include "la/la_parallel.h"

namespace {

// Everything one factor step works with.
struct FactorRun {
  LASymbolic* sym;
  double* factor;
  double* U;        // update area
  double* W;        // panel area: L * D of the current block
  int32_t* rel;     // n entries
  int32_t* touched; // one per supernode
  double* bufA;
  double* bufB;
  double tol;
  int32_t perturbed;
};

// Copies the values into lowerCopy, in analysis order.  Bad input is a
// status, never an access out of bounds.
int32_t copyLower(int32_t mode, int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                  const double* value, LASymbolic* sym, LANumeric* num) {
  if (n != sym->n || !colBegin || (n > 0 && colBegin[0] != 0)) return LA_ERR_INTERNAL;
  for (int32_t j = 0; j < n; j++)
    if (colBegin[j + 1] < colBegin[j]) return LA_ERR_INTERNAL;
  int32_t nnz = n > 0 ? colBegin[n] : 0;
  if (nnz > 0 && (!rowIndex || !value)) return LA_ERR_INTERNAL;
  for (int32_t p = 0; p < nnz; p++)
    if (rowIndex[p] < 0 || rowIndex[p] >= n) return LA_ERR_INTERNAL;
  LAMatrix* lower = &num->lowerCopy;
  if (mode == 0) return PermuteSymMatrixLower(n, colBegin, rowIndex, value, lower, sym->perm,
                                              sym->invPerm);
  int64_t count = 0;
  for (int32_t j = 0; j < n; j++) {
    lower->colBegin[j] = (int32_t)count;
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      if (rowIndex[p] < j) continue;
      if (count >= lower->numCoef) return LA_ERR_INTERNAL;
      lower->rowIndex[count] = rowIndex[p];
      lower->value[count] = value[p];
      count++;
    }
  }
  if (n > 0) lower->colBegin[n] = (int32_t)count;
  return count == lower->numCoef ? LA_OK : LA_ERR_INTERNAL;
}

inline int64_t snodeSize(const LASymbolic* sym, int32_t s) {
  return sym->factorBegin[s + 1] - sym->factorBegin[s];
}

void clearSNode(FactorRun& run, int32_t s) {
  memset(run.factor + run.sym->factorBegin[s], 0, sizeof(double) * (size_t)snodeSize(run.sym, s));
  run.touched[s] = 1;
}

// Columns [i0, i0 + jb) of U := L2 * W2^T for the rows below a block of w
// columns; lower triangle, leading dimension k.
void formUpdateStrip(FactorRun& run, const double* L, const double* Wp, int32_t rl, int32_t w,
                     int32_t i0, int32_t jb) {
  int32_t k = rl - w;
  int32_t i = w + i0;
  double* Ud = run.U + i0 + (int64_t)i0 * k;
  my_dsyrk2_LNT_0p1(&jb, &w, L + i, &rl, Wp + i, &rl, Ud, &k, run.bufA, run.bufB);
  int32_t below = rl - i - jb;
  if (below > 0) laGemmNT(below, jb, w, 1.0, L + i + jb, rl, Wp + i, rl, 0.0, Ud + jb, k);
}

// Where the columns of U go: the target supernode of the current run of
// update rows, and the positions of all rows from the run on in it.
struct PushState {
  int32_t p;     // first update row of the current target
  int32_t end;   // one past its last column's row
  double* Ft;
  int32_t rt;
  bool consecutive;
};

// Positions in the ascending row list tl[pos..end) of the ascending keys,
// all of which it holds, from tl[pos] < keys[0] on.  The rows are distinct
// integers, so a key lies at most its distance in value from tl[pos]: a
// group of keys whose last one sits exactly there meets a run of the list
// without gaps, and the others are searched over that bound.  The keys go in
// groups of eight, each searched with the same halvings, so that their
// searches overlap instead of each waiting on the one before.
void seekRows(const int32_t* tl, int32_t pos, int32_t end, const int32_t* keys, int32_t count,
              int32_t* out) {
  const int32_t kGroup = 8;
  for (int32_t q = 0; q < count; q += kGroup) {
    int32_t g = count - q < kGroup ? count - q : kGroup;
    const int32_t* key = keys + q;
    int32_t base = tl[pos];
    int32_t hi = pos + (key[g - 1] - base);
    if (hi >= end) hi = end - 1;
    if (tl[hi] == key[g - 1] && hi - pos == key[g - 1] - base) {
      for (int32_t j = 0; j < g; j++) out[q + j] = pos + (key[j] - base);
    } else {
      int32_t b[kGroup];
      for (int32_t j = 0; j < kGroup; j++) b[j] = pos + 1;
      // The answer of each key lies in [b, b + len).
      for (int32_t len = hi - pos; len > 1;) {
        int32_t half = len >> 1;
        for (int32_t j = 0; j < g; j++) b[j] = tl[b[j] + half - 1] < key[j] ? b[j] + half : b[j];
        len -= half;
      }
      for (int32_t j = 0; j < g; j++) out[q + j] = b[j];
    }
    pos = out[q + g - 1];
  }
}

// Subtracts columns [u0, u1) of the update from the supernodes that hold
// the update rows upd[0..k).  A target's row positions are found by a merge
// of the two ascending row lists when its first column comes up.  The
// update is U (k by k, lower), or with Outer the product x y' of a
// one-column supernode, taken entry by entry as it goes out: writing the
// whole square out first and reading it back costs more than the products.
template <bool Outer>
void pushColumns(FactorRun& run, PushState& ps, const int32_t* upd, int32_t k, int32_t u0,
                 int32_t u1, const double* x = nullptr, const double* y = nullptr) {
  LASymbolic* sym = run.sym;
  int32_t* rel = run.rel;
  for (int32_t u = u0; u < u1; u++) {
    if (u == ps.end) {
      int32_t p = u;
      int32_t t = sym->colToSNode[upd[p]];
      if (!run.touched[t]) clearSNode(run, t);
      int32_t tEnd = sym->snodeStart[t + 1];
      int32_t m = 1;
      while (p + m < k && upd[p + m] < tEnd) m++;
      const int32_t* tl = sym->rowList + sym->rowBegin[t];
      int32_t rt = laSNodeRows(sym, t);
      rel[p] = upd[p] - sym->snodeStart[t];
      seekRows(tl, rel[p], rt, upd + p + 1, k - p - 1, rel + p + 1);
      ps.p = p;
      ps.end = p + m;
      ps.Ft = run.factor + sym->factorBegin[t];
      ps.rt = rt;
      ps.consecutive = rel[k - 1] - rel[p] == k - 1 - p;
    }
    const double* Uc = Outer ? x : run.U + (int64_t)u * k;
    const double yu = Outer ? y[u] : 1.0;
    double* Fc = ps.Ft + (int64_t)rel[u] * ps.rt;
    // The next target column is far away in memory, and its entries are
    // asked for while this one is done.
    const double* next = u + 1 < ps.end ? ps.Ft + (int64_t)rel[u + 1] * ps.rt : nullptr;
    if (ps.consecutive) {
      if (next) {
        const double* head = next + rel[u + 1];
        for (int32_t o = 0; o < 32; o += 8) __builtin_prefetch(head + o, 1);
      }
      double* __restrict f = Fc + rel[ps.p] - ps.p;
      const double* __restrict uc = Uc;
      if (Outer)
        for (int32_t v = u; v < k; v++) f[v] -= yu * uc[v];
      else
        for (int32_t v = u; v < k; v++) f[v] -= uc[v];
    } else if (next) {
      for (int32_t v = u; v < k; v++) {
        __builtin_prefetch(next + rel[v], 1);
        Fc[rel[v]] -= Outer ? yu * Uc[v] : Uc[v];
      }
    } else {
      for (int32_t v = u; v < k; v++) Fc[rel[v]] -= Outer ? yu * Uc[v] : Uc[v];
    }
  }
}

// Factors one block of w columns and rl rows held column-major in P, and
// pushes its update.
void factorBlock(FactorRun& run, double* P, int32_t rl, int32_t w, const int32_t* rows,
                 int32_t* pivots) {
  LA_DenseLDLFactorize(run.tol, rl, w, P, rl, pivots, run.W, &run.perturbed, run.bufA, run.bufB);
  int32_t k = rl - w;
  if (k <= 0) return;
  PushState ps;
  memset(&ps, 0, sizeof(ps));
  if (w == 1) {
    pushColumns<true>(run, ps, rows + w, k, 0, k, P + 1, run.W + 1);
    return;
  }
  // Each strip of U goes out while it is still in cache; a large update
  // made whole first would go to memory and back.
  for (int32_t i0 = 0; i0 < k; i0 += KERNEL_BLOCK) {
    int32_t jb = k - i0 < KERNEL_BLOCK ? k - i0 : KERNEL_BLOCK;
    formUpdateStrip(run, P, run.W, rl, w, i0, jb);
    pushColumns<false>(run, ps, rows + w, k, i0, i0 + jb);
  }
}

void factorSNode(FactorRun& run, const LAMatrix* lower, int32_t s) {
  LASymbolic* sym = run.sym;
  int32_t first = sym->snodeStart[s];
  int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
  const int32_t* rows = sym->rowList + sym->rowBegin[s];
  int32_t* rel = run.rel;
  for (int32_t i = 0; i < r; i++) rel[rows[i]] = i;
  if (!run.touched[s]) clearSNode(run, s);
  double* F = run.factor + sym->factorBegin[s];
  // Added, not stored: the array may hold updates, and duplicates add up.
  for (int32_t j = 0; j < c; j++) {
    const int32_t col = first + j;
    for (int32_t p = lower->colBegin[col]; p < lower->colBegin[col + 1]; p++) {
      int32_t i = rel[lower->rowIndex[p]];
      F[i + (int64_t)j * r] += lower->value[p];
    }
  }
  factorBlock(run, F, r, c, rows, sym->pivots + first);
}

}  // namespace

HALVEX_EXPORT int32_t LA_FactorMatrixLDL(int32_t mode, int32_t n, const int32_t* colBegin,
                                         const int32_t* rowIndex, const double* value,
                                         LAEnv* env, LASymbolic* symbolic, LANumeric* numeric) {
  if (!env || !env->pool || !symbolic || !numeric || symbolic->kind != 1) return LA_ERR_INTERNAL;
  LASymbolic* sym = symbolic;
  // A plan whose analysis failed half-way is refused, not followed.
  if (!sym->factor || !sym->rowList || !sym->work || !numeric->lowerCopy.colBegin ||
      !numeric->packBuffers || !numeric->panelBuffers)
    return LA_ERR_INTERNAL;
  int32_t status = copyLower(mode, n, colBegin, rowIndex, value, sym, numeric);
  if (status) return status;
  sym->pivotTol = LA_PIVOT_TOL;
  if (sym->threaded) return NumericLDLParallel(env, sym, numeric);

  FactorRun run;
  memset(&run, 0, sizeof(run));
  run.sym = sym;
  run.factor = sym->factor;
  run.tol = sym->pivotTol;
  run.bufA = static_cast<double*>(numeric->packBuffers);
  run.bufB = numeric->panelBuffers;
  run.rel = static_cast<int32_t*>(numeric->scratch);
  run.touched = run.rel + n;
  run.U = static_cast<double*>(sym->work);
  run.W = run.U + sym->updateBufferSize;

  memset(run.touched, 0, sizeof(int32_t) * (size_t)sym->numSNodes);
  for (int32_t s = 0; s < sym->numSNodes; s++) factorSNode(run, &numeric->lowerCopy, s);
  // The threaded path adds its threads' counts; this one assigns.
  sym->numPerturbed = run.perturbed;
  laBuildDiagCopies(sym);

  if (env->collectInertia == 1) laCollectInertia(env, sym, 0);
  return LA_OK;
}

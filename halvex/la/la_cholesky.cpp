// The analysis side of a sparse Cholesky path for positive definite
// matrices such as A A': the plan, its clean-up, and the helpers that build
// and measure such matrices.  No numeric Cholesky factor is kept: the plan
// shares the symbolic code of the LDL analysis, with pivots null.
#include <math.h>
#include <string.h>

#include "la/la_internal.h"
#include "ordering/ordering.h"

namespace {

// Byte budget of the one-block results of the matrix helpers: their users
// index them with 32-bit offsets.
const double kHelperBlockLimit = 2147483647.0;

}  // namespace

int32_t InitMemoryAndStructsCholesky(LAEnv* env, int32_t n, int32_t nnz, LASymbolic** symbolic,
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
  sym->kind = 0;
  sym->threadsUsed = 1;

  double size1 = (2.0 * n + 2.0) * 8.0 + 0x70 + 0x30 * (double)n;
  double a = ((double)(nnz / 2) + n) * 12.0, b = ((double)n + 1.2 * nnz) * 4.0;
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
  sym->colToSNode = ints + 3 * (int64_t)n;
  sym->snodeStart = ints + 4 * (int64_t)n;
  sym->pivots = nullptr;
  num->scratch = base + align16Up((5 * (int64_t)n + 1) * 4);
  num->lowerCopy.numRows = n;
  num->lowerCopy.numCols = n;
  return LA_OK;
}

HALVEX_EXPORT int32_t LA_AnalyzeMatrixCholesky(int32_t n, const int32_t* colBegin,
                                               const int32_t* rowIndex, LAEnv* env,
                                               LASymbolic** symbolic, LANumeric** numeric) {
  if (!symbolic || !numeric) return LA_ERR_INTERNAL;
  *symbolic = nullptr;
  *numeric = nullptr;
  if (!env || !env->pool) return LA_ERR_INTERNAL;
  if (!laPatternIsWellFormed(n, colBegin, rowIndex)) return LA_ERR_INTERNAL;
  int32_t nnz = n > 0 ? colBegin[n] : 0;
  QVPool* pool = env->pool;

  int32_t status = InitMemoryAndStructsCholesky(env, n, nnz, symbolic, numeric);
  if (status) return status;
  LASymbolic* sym = *symbolic;
  LANumeric* num = *numeric;
  char* base = static_cast<char*>(num->block);
  int32_t* block2Ints = static_cast<int32_t*>(num->block2);

  if (!laHalvesMatch(n, colBegin, rowIndex)) return LA_ERR_INTERNAL;

  // Ordering-phase scratch: the identity as perm0 and its inverse (the
  // graph builder wants both), blockLabel, then the ordering workspace.
  int32_t* scratch = static_cast<int32_t*>(num->scratch);
  int32_t* identity = scratch;
  int32_t* blockLabel = scratch + n;
  int32_t* workspace = scratch + 2 * (int64_t)n;
  if ((char*)(workspace + 7 * (int64_t)n + 1) > base + num->block1Size) return LA_ERR_INTERNAL;
  for (int32_t i = 0; i < n; i++) identity[i] = i;

  // The graph without the diagonal and without repeated entries: the
  // orderings refuse both, and a caller may well write an entry twice.
  int32_t* cBegin = block2Ints;
  int32_t* cIndex = block2Ints + n + 1;
  int64_t capacity64 = (int64_t)(num->block2Size / 4) - n - 1;
  int32_t capacity = capacity64 > INT32_MAX ? INT32_MAX : (int32_t)capacity64;
  if (capacity < nnz) return LA_ERR_INTERNAL;
  if (n > 0) {
    status = PermuteCompressMatrix(n, colBegin, rowIndex, nullptr, identity, identity, n, cBegin,
                                   cIndex, workspace);
    if (status) return status;
  }

  int32_t method = env->orderingMethod;
  int32_t numDense = 0;
  if (n > 0) {
    status = OrderGraph(env, n, cBegin, cIndex, capacity, env->orderClass, nullptr, 0, sym->perm,
                        sym->invPerm, &numDense, &method, 1, env->useConstrainedOrdering,
                        blockLabel, 0, workspace, 0.0, -1.0);
    if (status) return status;
  }
  env->orderingMethod = method;

  if (env->useConstrainedOrdering == 1 && method == ORDER_NESTED && n > 0) {
    // The ordering consumed its graph.
    status = PermuteCompressMatrix(n, colBegin, rowIndex, nullptr, identity, identity, n, cBegin,
                                   cIndex, workspace);
    if (status) return status;
    if (numDense < 0 || numDense > n) return LA_ERR_INTERNAL;
    status = laConstrainedReorder(env, n, numDense, cBegin, cIndex, capacity, blockLabel, sym,
                                  workspace);
    if (status) return status;
  }

  int64_t finalAt = align16Down((5 * (int64_t)n + 5) * 4 + 15);
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
  if ((uint64_t)(2 * ((int64_t)n + 1 + half)) * 4 > num->block2Size) return LA_ERR_INTERNAL;
  status = PermuteSymMatrixPattern(n, colBegin, rowIndex, 0, &upper, &lower, sym->perm,
                                   sym->invPerm);
  if (status) return status;
  if (n > 0) {
    BuildETree(&upper, parent, work);
    PostOrder(n, parent, sym, work);
  }
  upper.numCoef = half;
  status = PermuteSymMatrixPattern(n, colBegin, rowIndex, 1, &upper, &lower, sym->perm,
                                   sym->invPerm);
  if (status) return status;

  FindColCounts(&lower, parent, colCounts, &sym->estFactorEntries, &sym->estOperations, work);
  if (sym->estFactorEntries >= LA_SIZE_LIMIT) return LA_ERR_TOO_BIG;
  sym->cholParam = env->cholParam;
  ChooseSequentialOrThreaded(sym, env->numThreads, 0);
  status = SupernodalAnalysis(env, n, &upper, env->orderClass, 1 - sym->threaded, parent,
                              colCounts, sym, num, work);
  if (status) return status;

  double factorBytes = (double)sym->numFactorEntries * 8.0;
  if (factorBytes >= LA_SIZE_LIMIT) return LA_ERR_TOO_BIG;
  sym->factor = static_cast<double*>(laAlloc(pool, sym->numFactorEntries * 8));
  if (!sym->factor) return LA_ERR_MEMORY;

  if (!sym->threaded) {
    sym->work = laAlloc(pool, (int64_t)sym->updateBufferSize * 8);
    return sym->work ? LA_OK : LA_ERR_MEMORY;
  }

  status = FindBlockSizes(pool, sym, work);
  if (status) return status;
  status = FindBlockDependencyCounts(sym, num);
  if (status) return status;
  sym->panelBufferSize = 0;
  int32_t threads = sym->threadsUsed;
  int64_t relEntries = n > 2 * sym->blockSize ? n : 2 * (int64_t)sym->blockSize;
  int64_t stride = align16Up(relEntries * 4 + 0x7e0 + (int64_t)sym->updateBufferSize * 8);
  sym->work = laAlloc(pool, stride * threads);
  if (!sym->work) return LA_ERR_MEMORY;
  sym->leaves = static_cast<int32_t*>(laAlloc(pool, (int64_t)sym->numSNodes * 4));
  if (!sym->leaves) return LA_ERR_MEMORY;
  GetLeaves(sym, num);
  sym->taskCapacity = 1000;
  sym->cholInfo = laAlloc(pool, 2004 * (int64_t)threads);
  return sym->cholInfo ? LA_OK : LA_ERR_MEMORY;
}

HALVEX_EXPORT void LA_CleanUpCholesky(LAEnv* env, LASymbolic** symbolic, LANumeric** numeric) {
  if (!env || !env->pool) return;
  laReleasePlan(env->pool, symbolic ? *symbolic : nullptr, numeric ? *numeric : nullptr);
}

HALVEX_EXPORT void LA_TransposeMatrix(int32_t numCols, int32_t numRows, const int32_t* colBegin,
                                      const int32_t* rowIndex, const double* value,
                                      int32_t* intWork, int32_t* outBegin, int32_t* outIndex,
                                      double* outValue) {
  int32_t* next = intWork;
  for (int32_t i = 0; i < numRows; i++) next[i] = 0;
  for (int32_t p = 0; p < colBegin[numCols]; p++) next[rowIndex[p]]++;
  int32_t sum = 0;
  for (int32_t i = 0; i < numRows; i++) {
    outBegin[i] = sum;
    sum += next[i];
    next[i] = outBegin[i];
  }
  outBegin[numRows] = sum;
  for (int32_t j = 0; j < numCols; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      int32_t q = next[rowIndex[p]]++;
      outIndex[q] = j;
      if (value) outValue[q] = value[p];
    }
}

HALVEX_EXPORT int32_t LA_CreateAAt(int32_t m, int32_t n, const int32_t* colBegin,
                                   const int32_t* rowIndex, const double* value, int32_t* outNnz,
                                   int32_t** outBegin, int32_t** outIndex, double** outValue,
                                   double* dblWork, int32_t* intWork, QVPool* pool) {
  if (m < 0 || n < 0 || !colBegin || !outNnz || !outBegin || !outIndex || !outValue ||
      (n > 0 && (!dblWork || !intWork)) || !pool)
    return LA_ERR_INTERNAL;
  int32_t nnz = colBegin[m];
  if (nnz > 0 && (!rowIndex || !value)) return LA_ERR_INTERNAL;
  if (nnz * 8.0 + n * 4.0 + 4 + nnz * 4.0 > kHelperBlockLimit) return LA_ERR_MEMORY;
  // A' in one block: values, then rows, then begins.
  char* tBlock = static_cast<char*>(laAlloc(pool, (int64_t)nnz * 12 + ((int64_t)n + 1) * 4));
  if (!tBlock) return LA_ERR_MEMORY;
  double* tValue = reinterpret_cast<double*>(tBlock);
  int32_t* tIndex = reinterpret_cast<int32_t*>(tValue + nnz);
  int32_t* tBegin = tIndex + nnz;
  LA_TransposeMatrix(m, n, colBegin, rowIndex, value, intWork, tBegin, tIndex, tValue);

  // Column i of A A' holds row k wherever rows i and k share a column of A.
  int32_t* marker = intWork;
  for (int32_t k = 0; k < n; k++) marker[k] = -1;
  int64_t count = 0;
  for (int32_t i = 0; i < n; i++)
    for (int32_t q = tBegin[i]; q < tBegin[i + 1]; q++) {
      int32_t j = tIndex[q];
      for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
        int32_t k = rowIndex[p];
        if (marker[k] != i) {
          marker[k] = i;
          count++;
        }
      }
      if (count > 0x7ffffffe) {
        laFree(pool, tBlock);
        return LA_ERR_MEMORY;
      }
    }
  if (n * 4.0 + 4 + count * 12.0 > kHelperBlockLimit) {
    laFree(pool, tBlock);
    return LA_ERR_MEMORY;
  }
  char* block = static_cast<char*>(laAlloc(pool, count * 12 + ((int64_t)n + 1) * 4));
  if (!block) {
    laFree(pool, tBlock);
    return LA_ERR_MEMORY;
  }
  double* cValue = reinterpret_cast<double*>(block);
  int32_t* cIndex = reinterpret_cast<int32_t*>(cValue + count);
  int32_t* cBegin = cIndex + count;

  for (int32_t k = 0; k < n; k++) {
    marker[k] = -1;
    dblWork[k] = 0.0;
  }
  int32_t out = 0;
  for (int32_t i = 0; i < n; i++) {
    cBegin[i] = out;
    for (int32_t q = tBegin[i]; q < tBegin[i + 1]; q++) {
      int32_t j = tIndex[q];
      double aij = tValue[q];
      for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
        int32_t k = rowIndex[p];
        if (marker[k] != i) {
          marker[k] = i;
          cIndex[out++] = k;
        }
        dblWork[k] += value[p] * aij;
      }
    }
    for (int32_t p = cBegin[i]; p < out; p++) {
      cValue[p] = dblWork[cIndex[p]];
      dblWork[cIndex[p]] = 0.0;
    }
  }
  cBegin[n] = out;
  laFree(pool, tBlock);
  *outNnz = out;
  *outBegin = cBegin;
  *outIndex = cIndex;
  *outValue = cValue;
  return LA_OK;
}

HALVEX_EXPORT int32_t LA_ConvertUpperToFull(int32_t n, const int32_t* colBegin,
                                            const int32_t* rowIndex, const double* value,
                                            int32_t** outBegin, int32_t** outIndex,
                                            double** outValue, int32_t* intWork, QVPool* pool) {
  if (n < 0 || !colBegin || !outBegin || !outIndex || !outValue || (n > 0 && !intWork) || !pool)
    return LA_ERR_INTERNAL;
  int32_t nnz = colBegin[n];
  if (nnz > 0 && (!rowIndex || !value)) return LA_ERR_INTERNAL;
  int32_t* fill = intWork;
  for (int32_t j = 0; j < n; j++) fill[j] = 0;
  int64_t count = 0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      int32_t i = rowIndex[p];
      fill[j]++;
      count++;
      if (i != j) {
        fill[i]++;
        count++;
      }
    }
  if (n * 4.0 + 4 + count * 12.0 > kHelperBlockLimit) return LA_ERR_MEMORY;
  char* block = static_cast<char*>(laAlloc(pool, count * 12 + ((int64_t)n + 1) * 4));
  if (!block) return LA_ERR_MEMORY;
  double* fValue = reinterpret_cast<double*>(block);
  int32_t* fIndex = reinterpret_cast<int32_t*>(fValue + count);
  int32_t* fBegin = fIndex + count;
  int32_t sum = 0;
  for (int32_t j = 0; j < n; j++) {
    fBegin[j] = sum;
    sum += fill[j];
    fill[j] = fBegin[j];
  }
  fBegin[n] = sum;
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      int32_t i = rowIndex[p];
      int32_t q = fill[j]++;
      fIndex[q] = i;
      fValue[q] = value[p];
      if (i != j) {
        q = fill[i]++;
        fIndex[q] = j;
        fValue[q] = value[p];
      }
    }
  *outBegin = fBegin;
  *outIndex = fIndex;
  *outValue = fValue;
  return LA_OK;
}

double Get1NormOfLowerTriangMatrix(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                                   const double* value, double* dblWork) {
  for (int32_t j = 0; j < n; j++) dblWork[j] = 0.0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) {
      double a = fabs(value[p]);
      dblWork[j] += a;
      if (rowIndex[p] != j) dblWork[rowIndex[p]] += a;
    }
  double norm = 0.0;
  for (int32_t j = 0; j < n; j++)
    if (dblWork[j] > norm) norm = dblWork[j];
  return norm;
}

double Get1NormOfMatrix(int32_t n, const int32_t* colBegin, const double* value) {
  double norm = 0.0;
  for (int32_t j = 0; j < n; j++) {
    double sum = 0.0;
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) sum += fabs(value[p]);
    if (sum > norm) norm = sum;
  }
  return norm;
}

void GetLFactorDiagonalChol(const LASymbolic* sym, double* diagonal) {
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t first = sym->snodeStart[s], c = laSNodeCols(sym, s);
    int64_t step = (int64_t)laSNodeRows(sym, s) + 1;
    const double* f = sym->factor + sym->factorBegin[s];
    for (int32_t k = 0; k < c; k++) diagonal[first + k] = f[k * step];
  }
}

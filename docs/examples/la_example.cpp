// The worked call sequence of docs/la.md: a regularised saddle-point system
//
//     [ H   A' ] [x]   [f]
//     [ A  -dI ] [y] = [g]
//
// factored with the LA_ calls and solved for a known answer, twice on one
// analysis with two values of d.  H is the five-point Laplacian of a k by k
// grid and A has one row per grid row, so the matrix is quasi-definite: the
// factor must report k*k positive and k negative pivots.
//
// A last part factors a small dense block with the dense LDL' calls.
//
// Everything but main() is written as a C caller would write it.  Only
// main() uses the reference host, which is C++, to make the memory pool.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "frame/entry.h"     // qvextent
#include "host/host.h"       // the reference host: pools
#include "la/la.h"           // environment, parameters, sparse LDL'
#include "la/la_numeric.h"   // LA_CalculateInfNormResidual

enum { GRID = 8, NUM_X = GRID * GRID, NUM_Y = GRID, N = NUM_X + NUM_Y };

// One entry of the lower triangle, diagonal included.
typedef struct {
  int32_t row, col;
  double value;
} Entry;

static void put(Entry* e, int32_t* count, int32_t row, int32_t col, double value) {
  e[*count].row = row;
  e[*count].col = col;
  e[*count].value = value;
  (*count)++;
}

// The lower triangle of the matrix, always in the same order, so that a new
// d gives new values on the same pattern.  Returns the entry count.
static int32_t saddleLower(Entry* e, double delta) {
  int32_t count = 0;
  for (int32_t r = 0; r < GRID; r++)
    for (int32_t c = 0; c < GRID; c++) {
      int32_t v = r * GRID + c;
      put(e, &count, v, v, 4.0);
      if (c + 1 < GRID) put(e, &count, v + 1, v, -1.0);
      if (r + 1 < GRID) put(e, &count, v + GRID, v, -1.0);
      // Constraint r sums its grid row with weights 1.0 .. 1.7.
      put(e, &count, NUM_X + r, v, 1.0 + 0.1 * c);
    }
  for (int32_t r = 0; r < NUM_Y; r++) put(e, &count, NUM_X + r, NUM_X + r, -delta);
  return count;
}

// The library wants both triangles: each off-diagonal entry goes into its
// column and, mirrored, into the column of its row.
static void bothTriangles(int32_t n, const Entry* e, int32_t count, int32_t* colBegin,
                          int32_t* rowIndex, double* value) {
  int32_t* next = (int32_t*)calloc((size_t)n + 1, sizeof(int32_t));
  for (int32_t k = 0; k < count; k++) {
    next[e[k].col + 1]++;
    if (e[k].row != e[k].col) next[e[k].row + 1]++;
  }
  for (int32_t j = 0; j < n; j++) next[j + 1] += next[j];
  memcpy(colBegin, next, sizeof(int32_t) * ((size_t)n + 1));
  for (int32_t k = 0; k < count; k++) {
    int32_t p = next[e[k].col]++;
    rowIndex[p] = e[k].row;
    value[p] = e[k].value;
    if (e[k].row != e[k].col) {
      p = next[e[k].row]++;
      rowIndex[p] = e[k].col;
      value[p] = e[k].value;
    }
  }
  free(next);
}

// y := K x over the stored matrix (both triangles).
static void multiply(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                     const double* value, const double* x, double* y) {
  for (int32_t i = 0; i < n; i++) y[i] = 0.0;
  for (int32_t j = 0; j < n; j++)
    for (int32_t p = colBegin[j]; p < colBegin[j + 1]; p++) y[rowIndex[p]] += value[p] * x[j];
}

// Returns 0 when every step did what it should, 1 otherwise.
static int runExample(QVPool* pool) {
  const double deltas[2] = {1e-2, 1e-8};
  int failed = 1;
  int32_t status = LA_OK;
  LAEnv* env = NULL;
  LASymbolic* sym = NULL;
  LANumeric* num = NULL;

  Entry* lower = (Entry*)malloc(sizeof(Entry) * 5 * N);
  int32_t numLower = saddleLower(lower, deltas[0]);
  int32_t nnz = 2 * numLower - N;  // every diagonal entry is stored here
  int32_t* colBegin = (int32_t*)malloc(sizeof(int32_t) * (N + 1));
  int32_t* rowIndex = (int32_t*)malloc(sizeof(int32_t) * (size_t)nnz);
  double* value = (double*)malloc(sizeof(double) * (size_t)nnz);
  double* xTrue = (double*)malloc(sizeof(double) * N);
  double* rhs = (double*)malloc(sizeof(double) * N);
  double* x = (double*)malloc(sizeof(double) * N);
  double* residual = (double*)malloc(sizeof(double) * N);
  bothTriangles(N, lower, numLower, colBegin, rowIndex, value);
  for (int32_t i = 0; i < N; i++) xTrue[i] = sin(1.0 + i);

  // 1. The environment: every block of the library comes from this pool.
  env = LA_CreateLAEnv(pool, NULL, &status);
  if (!env) {
    fprintf(stderr, "LA_CreateLAEnv: status %d\n", status);
    goto done;
  }
  // 2. Parameters that the analysis reads go in before it; the others may
  // change between calls.
  if (LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, -1) != LA_OK ||
      LA_SetIntParam(env, LA_PARAM_NUM_THREADS, 1) != LA_OK ||
      LA_SetIntParam(env, LA_PARAM_COLLECT_INERTIA, 1) != LA_OK ||
      LA_SetDblParam(env, 1e-15, LA_PARAM_REFINE_TOL) != LA_OK) {
    fprintf(stderr, "a parameter was refused\n");
    goto done;
  }

  // 3. One analysis for the pattern.  The records exist as soon as the call
  // has made them, so a failed analysis is cleaned up like a good one.
  status = LA_AnalyzeMatrixLDL(N, colBegin, rowIndex, value, env, &sym, &num);
  if (status != LA_OK) {
    fprintf(stderr, "LA_AnalyzeMatrixLDL: status %d\n", status);
    goto done;
  }

  for (int d = 0; d < 2; d++) {
    // New values on the same pattern: only the regularisation changes.
    saddleLower(lower, deltas[d]);
    bothTriangles(N, lower, numLower, colBegin, rowIndex, value);

    // 4. Factor in the caller's own order (mode 0).
    status = LA_FactorMatrixLDL(0, N, colBegin, rowIndex, value, env, sym, num);
    if (status != LA_OK) {
      fprintf(stderr, "LA_FactorMatrixLDL: status %d\n", status);
      goto done;
    }
    int32_t positive = -1, negative = -1;
    double ratio = 0.0;
    LA_GetIntParam(env, LA_PARAM_NUM_POSITIVE_PIVOTS, &positive);
    LA_GetIntParam(env, LA_PARAM_NUM_NEGATIVE_PIVOTS, &negative);
    LA_GetDblParam(env, LA_PARAM_PIVOT_RATIO, &ratio);

    // 5. Solve: x holds the right-hand side on entry and the solution on
    // return.  With refinement on, success is 6 or 7, not 0.
    multiply(N, colBegin, rowIndex, value, xTrue, rhs);
    memcpy(x, rhs, sizeof(double) * N);
    status = LA_SolveMatrixLDL(0, colBegin, rowIndex, value, x, env, sym, num);
    if (status != LA_OK && status != LA_REFINE_CONVERGED && status != LA_REFINE_STOPPED) {
      fprintf(stderr, "LA_SolveMatrixLDL: status %d\n", status);
      goto done;
    }
    double backward = 0.0;
    LA_GetDblParam(env, LA_PARAM_BACKWARD_ERROR, &backward);
    double omega = LA_CalculateInfNormResidual(N, colBegin, rowIndex, value, x, rhs, residual);
    double error = 0.0;
    for (int32_t i = 0; i < N; i++)
      if (fabs(x[i] - xTrue[i]) > error) error = fabs(x[i] - xTrue[i]);

    printf("d = %.0e: solve status %d, inertia (+%d, -%d), pivot ratio %.2e, "
           "backward error %.2e (refinement %.2e), largest error %.2e\n",
           deltas[d], status, positive, negative, ratio, omega, backward, error);
    if (positive != NUM_X || negative != NUM_Y || !(omega <= 1e-14) || !(error <= 1e-9)) {
      fprintf(stderr, "the solution or the inertia is wrong\n");
      goto done;
    }
  }
  failed = 0;

done:
  // 6. Clean up and free.  LA_CleanUpLDL leaves the caller's pointers as
  // they were; LA_FreeLAEnv clears its own.
  if (env) {
    LA_CleanUpLDL(env, &sym, &num);
    sym = NULL;
    num = NULL;
    LA_FreeLAEnv(&env);
  }
  free(lower);
  free(colBegin);
  free(rowIndex);
  free(value);
  free(xTrue);
  free(rhs);
  free(x);
  free(residual);
  return failed;
}

// The dense LDL' on its own: one indefinite block of order 5 that starts
// with [0 1; 1 0], so that the first pivot must be a 2x2 one, solved for one
// right-hand side and for two.  Returns 0 when both solves are right.
static int runDenseExample(void) {
  enum { M = 5 };
  double A[M * M], F[M * M], W[M * M], x[M], B[M * 2], b[M];
  double* bufA = (double*)malloc(sizeof(double) * 96 * 96);
  double* bufB = (double*)malloc(sizeof(double) * 96 * 96);
  int32_t pivots[M];
  int32_t perturbed = 0;  // the factor adds to it
  for (int32_t j = 0; j < M; j++)
    for (int32_t i = 0; i < M; i++)
      A[i + j * M] = i == j ? (i < 2 ? 0.0 : 2.0 + i)
                     : i + j == 1 ? 1.0 : 0.5 / (1.0 + i + j);
  memcpy(F, A, sizeof(A));
  LA_DenseLDLFactorize(1.0536712127723509e-08, M, M, F, M, pivots, W, &perturbed, bufA, bufB);
  free(bufA);
  free(bufB);

  for (int32_t i = 0; i < M; i++) x[i] = b[i] = 1.0 + i;
  LA_DenseLDLSolveOne(M, F, M, pivots, x);
  for (int32_t c = 0; c < 2; c++)
    for (int32_t i = 0; i < M; i++) B[i + c * M] = c == 0 ? b[i] : -b[i];
  LA_DenseLDLSolveMany(M, 2, F, M, pivots, B, M);

  double worst = 0.0;
  for (int32_t i = 0; i < M; i++) {
    double one = -b[i], many0 = -b[i], many1 = b[i];
    for (int32_t k = 0; k < M; k++) {
      one += A[i + k * M] * x[k];
      many0 += A[i + k * M] * B[k];
      many1 += A[i + k * M] * B[k + M];
    }
    worst = fmax(worst, fmax(fabs(one), fmax(fabs(many0), fabs(many1))));
  }
  printf("dense: pivots %d %d %d %d %d, %d replaced, largest residual %.2e\n", pivots[0],
         pivots[1], pivots[2], pivots[3], pivots[4], perturbed, worst);
  return pivots[0] < 0 && perturbed == 0 && worst <= 1e-13 ? 0 : 1;
}

int main() {
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  QVPool* pool = host.createPool("la-example");
  if (!pool) return 1;
  int failed = runExample(pool) | runDenseExample();
  // Every block that the library took must be back in the pool.
  int64_t live = host.poolStats(pool).liveBlocks;
  if (live != 0) {
    fprintf(stderr, "%lld blocks still live in the pool\n", (long long)live);
    failed = 1;
  }
  pool->poolDestroy(pool);
  return failed;
}

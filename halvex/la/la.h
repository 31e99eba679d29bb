// The sparse factorisation library: environment, parameters, matrix header,
// status codes and the LA_ calls.  Callers see LASymbolic and LANumeric only
// as opaque handles; their layouts live in la/la_internal.h.
#ifndef HALVEX_LA_LA_H
#define HALVEX_LA_LA_H

#include <stddef.h>
#include <stdint.h>

// C callers get the declarations without the module's C++ glue.
#ifdef __cplusplus
#include "frame/qv.h"
#else
#include <assert.h>
#include "frame/qvkernel.h"
#define HALVEX_EXPORT extern __attribute__((visibility("default")))
#endif

// ---- status codes -----------------------------------------------------------
enum {
  LA_OK = 0,
  LA_ERR_MEMORY = 1,          // the pool refused an allocation
  LA_ERR_INTERNAL = 2,        // counts or structures that must agree did not
  LA_ERR_TOO_BIG = 4,         // a size estimate reaches 2^64
  LA_ERR_MATCHING = 5,        // no static permutation can be built
  LA_REFINE_CONVERGED = 6,    // FGMRES reached refineTol
  LA_REFINE_STOPPED = 7,      // FGMRES stopped above refineTol, best point kept
  LA_ERR_SOLVE_OVERFLOW = 8,  // a triangular solve overflowed
  LA_ERR_BAD_PARAM = 9        // parameter id or value out of range
};

// ---- parameter ids ------------------------------------------------------------
enum {
  LA_PARAM_NUM_THREADS = 0,
  LA_PARAM_ORDER_CLASS = 1,
  LA_PARAM_USE_CONSTRAINED_ORDERING = 2,
  LA_PARAM_USE_STATIC_PERM_GEN = 3,
  LA_PARAM_USE_STATIC_PERM_AUG = 4,
  LA_PARAM_NUM_LEADING_ROWS = 5,
  LA_PARAM_CHOL_PARAM = 6,
  LA_PARAM_ORDERING_METHOD = 7,
  LA_PARAM_REQUIRE_PERFECT = 8,
  LA_PARAM_COLLECT_INERTIA = 9,
  LA_PARAM_NUM_NEGATIVE_PIVOTS = 10,
  LA_PARAM_NUM_POSITIVE_PIVOTS = 11,
  LA_PARAM_PIVOT_RATIO = 12,
  LA_PARAM_RESERVED_FLAG = 13,
  LA_PARAM_USE_FGMRES = 14,
  LA_PARAM_MAX_REFINE = 15,
  LA_PARAM_FGMRES_RESTART = 16,
  LA_PARAM_FGMRES_MAX_RESTART = 17,
  LA_PARAM_ORTHO_SCHEME = 18,
  LA_PARAM_REFINE_TOL = 19,
  LA_PARAM_BACKWARD_ERROR = 20,
  LA_PARAM_MIN_ID = 0,
  LA_PARAM_MAX_ID = 20
};

// Defaults of a fresh environment.
#define LA_DEFAULT_NUM_THREADS 1
#define LA_DEFAULT_ORDER_CLASS 1
#define LA_DEFAULT_CHOL_PARAM 1
#define LA_DEFAULT_ORDERING_METHOD (-1)
#define LA_DEFAULT_USE_FGMRES 1
#define LA_DEFAULT_MAX_REFINE 64
#define LA_DEFAULT_FGMRES_RESTART 4
#define LA_DEFAULT_FGMRES_MAX_RESTART 16
#define LA_DEFAULT_ORTHO_SCHEME 0
#define LA_DEFAULT_REFINE_TOL 1e-16

// Limits accepted on a set call.
#define LA_MAX_ORDER_CLASS 5
#define LA_MIN_ORDERING_METHOD (-1)
#define LA_MAX_ORDERING_METHOD 4
#define LA_MAX_ORTHO_SCHEME 2

// ---- records ------------------------------------------------------------------

// One per factorisation user.  The layout is exchanged with callers.
struct LAEnv {
  QVPool* pool;                    // every allocation of the library
  void* owner;                     // carried, never interpreted
  int32_t orderClass;              // id 1
  int32_t orderingMethod;          // id 7
  int32_t numThreads;              // id 0
  int32_t useConstrainedOrdering;  // id 2
  int32_t cholParam;               // id 6
  int32_t useStaticPermGen;        // id 3
  int32_t useStaticPermAug;        // id 4
  int32_t numLeadingRows;          // id 5
  int32_t requirePerfect;          // id 8
  int32_t collectInertia;          // id 9
  int32_t numPositivePivots;       // id 11, result
  int32_t numNegativePivots;       // id 10, result
  int32_t useFgmres;               // id 14
  double pivotRatio;               // id 12, result
  int32_t reservedFlag;            // id 13, read by nothing
  int32_t maxRefine;               // id 15
  int32_t fgmresRestart;           // id 16
  int32_t fgmresMaxRestart;        // id 17
  int32_t orthoScheme;             // id 18
  double refineTol;                // id 19
  double backwardError;            // id 20, result
};
typedef struct LAEnv LAEnv;

static_assert(offsetof(LAEnv, pool) == 0, "LAEnv layout");
static_assert(offsetof(LAEnv, owner) == 8, "LAEnv layout");
static_assert(offsetof(LAEnv, orderClass) == 16, "LAEnv layout");
static_assert(offsetof(LAEnv, orderingMethod) == 20, "LAEnv layout");
static_assert(offsetof(LAEnv, numThreads) == 24, "LAEnv layout");
static_assert(offsetof(LAEnv, useConstrainedOrdering) == 28, "LAEnv layout");
static_assert(offsetof(LAEnv, cholParam) == 32, "LAEnv layout");
static_assert(offsetof(LAEnv, useStaticPermGen) == 36, "LAEnv layout");
static_assert(offsetof(LAEnv, useStaticPermAug) == 40, "LAEnv layout");
static_assert(offsetof(LAEnv, numLeadingRows) == 44, "LAEnv layout");
static_assert(offsetof(LAEnv, requirePerfect) == 48, "LAEnv layout");
static_assert(offsetof(LAEnv, collectInertia) == 52, "LAEnv layout");
static_assert(offsetof(LAEnv, numPositivePivots) == 56, "LAEnv layout");
static_assert(offsetof(LAEnv, numNegativePivots) == 60, "LAEnv layout");
static_assert(offsetof(LAEnv, useFgmres) == 64, "LAEnv layout");
static_assert(offsetof(LAEnv, pivotRatio) == 72, "LAEnv layout");
static_assert(offsetof(LAEnv, reservedFlag) == 80, "LAEnv layout");
static_assert(offsetof(LAEnv, maxRefine) == 84, "LAEnv layout");
static_assert(offsetof(LAEnv, fgmresRestart) == 88, "LAEnv layout");
static_assert(offsetof(LAEnv, fgmresMaxRestart) == 92, "LAEnv layout");
static_assert(offsetof(LAEnv, orthoScheme) == 96, "LAEnv layout");
static_assert(offsetof(LAEnv, refineTol) == 104, "LAEnv layout");
static_assert(offsetof(LAEnv, backwardError) == 112, "LAEnv layout");
static_assert(sizeof(LAEnv) == 120, "LAEnv layout");

// The library's own column-wise matrix header, 0-based, no gaps.
struct LAMatrix {
  int32_t numRows;
  int32_t numCols;
  int32_t numCoef;
  int32_t* colBegin;  // numCols + 1
  int32_t* rowIndex;
  double* value;      // null for a pattern
};
typedef struct LAMatrix LAMatrix;

static_assert(offsetof(LAMatrix, numCoef) == 8, "LAMatrix layout");
static_assert(offsetof(LAMatrix, colBegin) == 16, "LAMatrix layout");
static_assert(offsetof(LAMatrix, rowIndex) == 24, "LAMatrix layout");
static_assert(offsetof(LAMatrix, value) == 32, "LAMatrix layout");
static_assert(sizeof(LAMatrix) == 40, "LAMatrix layout");

// Results of analysis and factorisation; opaque to callers.
typedef struct LASymbolic LASymbolic;
typedef struct LANumeric LANumeric;

// ---- calls --------------------------------------------------------------------
// Matrices come as bare arrays: colBegin (n+1), rowIndex, value, 0-based,
// symmetric with both triangles stored; diagonal entries optional.

// A new environment with every parameter at its default; null on failure.
//   pool    [in]  every block of the library comes from it; kept in env->pool
//   owner   [in]  kept in env->owner, never read
//   status  [out] LA_OK, LA_ERR_MEMORY, or LA_ERR_BAD_PARAM for a null pool;
//                 may be null
HALVEX_EXPORT LAEnv* LA_CreateLAEnv(QVPool* pool, void* owner, int32_t* status);
// Gives the environment back to its own pool.  Last: the clean-up of the
// plan needs the pool that env holds.
//   env     [in,out] address of the environment; set to null, null passed over
HALVEX_EXPORT void LA_FreeLAEnv(LAEnv** env);
// LA_OK, or LA_ERR_BAD_PARAM for a bad id or value (the field then keeps
// its value).  The result ids 10, 11, 12, 20 and the floating id 19 are
// accepted and change nothing.
//   env     [in,out] the parameter table
//   id      [in]  LA_PARAM_MIN_ID to LA_PARAM_MAX_ID
//   value   [in]  within the limits of the id
HALVEX_EXPORT int32_t LA_SetIntParam(LAEnv* env, int32_t id, int32_t value);
// LA_OK, or LA_ERR_BAD_PARAM for a bad id or a null env or value.
//   env     [in]  the parameter table
//   id      [in]  LA_PARAM_MIN_ID to LA_PARAM_MAX_ID; ids 12, 19, 20 read 0
//   value   [out] one int32_t
HALVEX_EXPORT int32_t LA_GetIntParam(LAEnv* env, int32_t id, int32_t* value);
// The value comes before the id.  Only id 19 (refineTol) is stored; every
// other id in range is accepted and changes nothing.
//   env     [in,out] the parameter table
//   value   [in]  0.0 or more for id 19
//   id      [in]  LA_PARAM_MIN_ID to LA_PARAM_MAX_ID
HALVEX_EXPORT int32_t LA_SetDblParam(LAEnv* env, double value, int32_t id);
// LA_OK, or LA_ERR_BAD_PARAM for a bad id or a null env or value.
//   env     [in]  the parameter table
//   id      [in]  12, 19 or 20; any other id in range reads 0.0
//   value   [out] one double
HALVEX_EXPORT int32_t LA_GetDblParam(LAEnv* env, int32_t id, double* value);

// Ordering and symbolic factorisation of one pattern.  Nothing of the
// caller's is kept.  The records exist as soon as they are made, so a failed
// analysis needs LA_CleanUpLDL as much as a good one.
//   n         [in]  order, 0 or more
//   colBegin  [in]  n+1 column starts, from 0, non-decreasing
//   rowIndex  [in]  colBegin[n] rows, each 0 to n-1
//   value     [in]  colBegin[n] values; read only for a static permutation
//                   (ids 3, 4), may be null otherwise
//   env       [in]  pool; ids 0 to 5, 7 and 8
//   symbolic  [out] the plan; null first, then the record once made
//   numeric   [out] the numeric record; likewise
HALVEX_EXPORT int32_t LA_AnalyzeMatrixLDL(int32_t n, const int32_t* colBegin,
                                          const int32_t* rowIndex, const double* value,
                                          LAEnv* env, LASymbolic** symbolic,
                                          LANumeric** numeric);
// P A P' = L D L' for new values on the analysed pattern.  Nothing of the
// caller's is kept: the lower triangle is copied.
//   mode      [in]  0: the matrix in the caller's order; 1: already in the
//                   order of the analysis
//   n         [in]  the order analysed
//   colBegin  [in]  n+1 column starts of the analysed pattern
//   rowIndex  [in]  colBegin[n] rows
//   value     [in]  colBegin[n] values; repeated positions add up
//   env       [in,out] pool; id 9; results 10, 11, 12 when id 9 is 1
//   symbolic  [in,out] the plan; factor and pivots overwritten
//   numeric   [in,out] its copy of the lower triangle overwritten
HALVEX_EXPORT int32_t LA_FactorMatrixLDL(int32_t mode, int32_t n, const int32_t* colBegin,
                                         const int32_t* rowIndex, const double* value,
                                         LAEnv* env, LASymbolic* symbolic, LANumeric* numeric);
// x := A^-1 x with the last factor, refined as env asks.  Success is LA_OK,
// LA_REFINE_CONVERGED or LA_REFINE_STOPPED.
//   mode      [in]  as for the factor: the order of x and of the matrix
//   colBegin  [in]  n+1 column starts of the factored matrix
//   rowIndex  [in]  colBegin[n] rows
//   value     [in]  colBegin[n] values; the three are read by refinement
//                   only, and may be null when maxRefine is 0 and no pivot
//                   was replaced
//   x         [in,out] n: right-hand side in, solution out
//   env       [in,out] pool; ids 14 to 19; result 20 after FGMRES
//   symbolic  [in]  the factor, unchanged; its work area is scratch
//   numeric   [workspace] 3n doubles of its scratch
HALVEX_EXPORT int32_t LA_SolveMatrixLDL(int32_t mode, const int32_t* colBegin,
                                        const int32_t* rowIndex, const double* value, double* x,
                                        LAEnv* env, LASymbolic* symbolic, LANumeric* numeric);
// Gives the plan and everything on it back to the pool.  The caller's
// pointers are left as they were: clear them.
//   env       [in]  the environment of the analysis (its pool)
//   symbolic  [in]  address of the plan; null or a null plan passed over
//   numeric   [in]  address of the numeric record; likewise
HALVEX_EXPORT void LA_CleanUpLDL(LAEnv* env, LASymbolic** symbolic, LANumeric** numeric);

// ---- the Cholesky path: analysis and matrix helpers ------------------------------
// For symmetric positive definite matrices such as A A'.  Only the analysis
// exists: the plan has the same records as the LDL path, with no pivots.

// Ordering and symbolic factorisation of one pattern, both triangles stored.
// Writes the ordering method used back to env->orderingMethod.  The records
// exist as soon as they are made: LA_CleanUpCholesky after any result.
//   n, colBegin, rowIndex  [in]  as for LA_AnalyzeMatrixLDL
//   env       [in,out] pool; ids 0, 1, 2, 6, 7; id 7 receives the method
//   symbolic  [out] the plan; numeric [out] its companion record
HALVEX_EXPORT int32_t LA_AnalyzeMatrixCholesky(int32_t n, const int32_t* colBegin,
                                               const int32_t* rowIndex, LAEnv* env,
                                               LASymbolic** symbolic, LANumeric** numeric);
// Gives a Cholesky plan back to the pool; the caller's pointers stay set.
HALVEX_EXPORT void LA_CleanUpCholesky(LAEnv* env, LASymbolic** symbolic, LANumeric** numeric);
// A A' of the n by m matrix A (m columns).  The result is one pool block
// that starts at *outValue (free that pointer), with *outIndex and
// *outBegin (n+1) inside it; rows of a column come in order of first visit,
// not sorted.  LA_OK, LA_ERR_MEMORY (also when the result would pass 2^31
// bytes; nothing is then left allocated) or LA_ERR_INTERNAL for null or
// negative arguments.
//   dblWork [workspace] n doubles; intWork [workspace] n ints
HALVEX_EXPORT int32_t LA_CreateAAt(int32_t m, int32_t n, const int32_t* colBegin,
                                   const int32_t* rowIndex, const double* value, int32_t* outNnz,
                                   int32_t** outBegin, int32_t** outIndex, double** outValue,
                                   double* dblWork, int32_t* intWork, QVPool* pool);
// The transpose of a numRows by numCols matrix into the caller's arrays
// (outBegin numRows+1, outIndex and outValue colBegin[numCols]); with value
// null the pattern only.  Rows of each output column come out ascending.
//   intWork [workspace] numRows ints
HALVEX_EXPORT void LA_TransposeMatrix(int32_t numCols, int32_t numRows, const int32_t* colBegin,
                                      const int32_t* rowIndex, const double* value,
                                      int32_t* intWork, int32_t* outBegin, int32_t* outIndex,
                                      double* outValue);
// Both triangles from a symmetric matrix stored once per pair of entries.
// The result is one pool block starting at *outValue, as for LA_CreateAAt.
// LA_OK, LA_ERR_MEMORY or LA_ERR_INTERNAL.
//   intWork [workspace] n ints
HALVEX_EXPORT int32_t LA_ConvertUpperToFull(int32_t n, const int32_t* colBegin,
                                            const int32_t* rowIndex, const double* value,
                                            int32_t** outBegin, int32_t** outIndex,
                                            double** outValue, int32_t* intWork, QVPool* pool);

#endif

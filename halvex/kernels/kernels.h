// The module's own dense kernels, beside the BLAS.  Column-major, 0-based,
// sign and scaling fixed by the name (1m1: y := y - product, 0p1: y :=
// product, 1p1: y := y + product).  All of them are exported with C linkage.
//
// Level 1 takes its arguments by value.  The BLAS-like level-2 and level-3
// entries take dimensions, strides and scalars by reference; the level-3
// `_kernel_` routines, my_outer_prod and the small level-2 helpers
// (my_dger2_one, my_dsyr, my_dsyr_dscal) take them by value.
//
// Level-3 routines work in one block size, KERNEL_BLOCK = 96.  A packed panel
// is a run of rows of exactly 96 doubles; row r holds up to 96 consecutive
// values along the summation index.  Blocked routines take two caller
// buffers: bufA of at least 96 * 96 doubles and bufB of at least 96 doubles
// per column of the result (per column of B for the left-side solves and
// multiplies, per row of the result for my_dsyrk*).  The kernels keep no
// state, so threads may share them as long as each has its own buffers.
#ifndef HALVEX_KERNELS_KERNELS_H
#define HALVEX_KERNELS_KERNELS_H

#include "frame/qv.h"

#define KERNEL_BLOCK 96

// ---- level 1 ------------------------------------------------------------------
HALVEX_EXPORT double my_ddot(int n, const double* x, int incx, const double* y, int incy);
HALVEX_EXPORT void my_dcopy(int n, const double* x, int incx, double* y, int incy);
HALVEX_EXPORT void my_daxpy(double alpha, int n, const double* x, int incx, double* y, int incy);
HALVEX_EXPORT void my_daxpy_one(double alpha, int n, const double* x, double* y);
HALVEX_EXPORT int my_idamax(int n, const double* x, int incx);
HALVEX_EXPORT void my_dswap(int n, double* x, int incx, double* y, int incy);
HALVEX_EXPORT void my_dswap_one(int n, double* x, double* y);
HALVEX_EXPORT void my_dscal(double alpha, int n, double* x, int incx);
HALVEX_EXPORT double my_dnrm2(int n, const double* x, int incx);
HALVEX_EXPORT double my_dasum(int n, const double* x, int incx);

// ---- level 2 ------------------------------------------------------------------
#define MY_DGEMV_ARGS                                                                   \
  const char *trans, const int *m, const int *n, const double *alpha, const double *A, \
      const int *lda, const double *x, const int *incx, const double *beta, double *y, \
      const int *incy
HALVEX_EXPORT void my_dgemv(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_n_1m1_one(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_n_1m1_yone(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_n_0p1_yone(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_n_1p1_one(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_t_1m1_one(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_t_1m1_xone(MY_DGEMV_ARGS);
HALVEX_EXPORT void my_dgemv_t_0p1_one(MY_DGEMV_ARGS);

HALVEX_EXPORT void my_dger(const int* m, const int* n, const double* alpha, const double* x,
                           const int* incx, const double* y, const int* incy, double* A,
                           const int* lda);
HALVEX_EXPORT void my_dger_xone(const int* m, const int* n, const double* alpha, const double* x,
                                const int* incx, const double* y, const int* incy, double* A,
                                const int* lda);
HALVEX_EXPORT void my_dger2_one(int m, int n, const double* x1, const double* x2,
                                const double* y1, const double* y2, double* A, int lda);
HALVEX_EXPORT void my_dsyr(int n, const double* x, double* A, int lda);
HALVEX_EXPORT void my_dsyr_dscal(double alpha, int n, double* x, double* A, int lda);
HALVEX_EXPORT void my_dsymv(const char* uplo, const int* n, const double* alpha, const double* A,
                            const int* lda, const double* x, const int* incx, const double* beta,
                            double* y, const int* incy);
HALVEX_EXPORT void my_dspmv(const char* uplo, const int* n, const double* alpha, const double* AP,
                            const double* x, const int* incx, const double* beta, double* y,
                            const int* incy);

#define MY_DTRSV_ARGS                                                                  \
  const char *uplo, const char *trans, const char *diag, const int *n, const double *A, \
      const int *lda, double *x, const int *incx
HALVEX_EXPORT void my_dtrsv(MY_DTRSV_ARGS);
HALVEX_EXPORT void my_dtrsv_ln(MY_DTRSV_ARGS);
HALVEX_EXPORT void my_dtrsv_unn(MY_DTRSV_ARGS);
HALVEX_EXPORT void my_dtrsv_utn(MY_DTRSV_ARGS);

// ---- level 3 ------------------------------------------------------------------
#define MY_DGEMM_ARGS                                                                \
  const char *transa, const char *transb, const int *m, const int *n, const int *k, \
      const double *alpha, const double *A, const int *lda, const double *B,        \
      const int *ldb, const double *beta, double *C, const int *ldc, double *bufA,  \
      double *bufB
HALVEX_EXPORT void my_dgemm(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_NN_0p1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_NN_1m1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_NT_0p1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_NT_1m1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_TN_0p1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_TN_1p1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_TN_1m1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_TT_0p1(MY_DGEMM_ARGS);
HALVEX_EXPORT void my_dgemm_kernel_plus(double* C, int ldc, const double* panelA,
                                        const double* panelB, int m, int n, int k);
HALVEX_EXPORT void my_dgemm_kernel_minus(double* C, int ldc, const double* panelA,
                                         const double* panelB, int m, int n, int k);

#define MY_DSYRK_ARGS                                                                     \
  const char *uplo, const char *trans, const int *n, const int *k, const double *alpha, \
      const double *A, const int *lda, const double *beta, double *C, const int *ldc,   \
      double *bufA, double *bufB
HALVEX_EXPORT void my_dsyrk_LN_0p1(MY_DSYRK_ARGS);
HALVEX_EXPORT void my_dsyrk_LN_1m1(MY_DSYRK_ARGS);
HALVEX_EXPORT void my_dsyrk_UT_0p1(MY_DSYRK_ARGS);
HALVEX_EXPORT void my_dsyrk_UT_1m1(MY_DSYRK_ARGS);

#define MY_DSYRK2_ARGS                                                                \
  const int *n, const int *k, const double *A, const int *lda, const double *B,      \
      const int *ldb, double *C, const int *ldc, double *bufA, double *bufB
HALVEX_EXPORT void my_dsyrk2_LNT_0p1(MY_DSYRK2_ARGS);
HALVEX_EXPORT void my_dsyrk2_LNT_1m1(MY_DSYRK2_ARGS);
HALVEX_EXPORT void my_dsyrk2_UNT_0p1(MY_DSYRK2_ARGS);
HALVEX_EXPORT void my_dsyrk2_UNT_1m1(MY_DSYRK2_ARGS);
HALVEX_EXPORT void my_dsyrk2_kernel_lower_plus(double* C, int ldc, const double* panelA,
                                               const double* panelB, int n, int k);
HALVEX_EXPORT void my_dsyrk2_kernel_lower_minus(double* C, int ldc, const double* panelA,
                                                const double* panelB, int n, int k);
HALVEX_EXPORT void my_dsyrk2_kernel_upper_plus(double* C, int ldc, const double* panelA,
                                               const double* panelB, int n, int k);
HALVEX_EXPORT void my_dsyrk2_kernel_upper_minus(double* C, int ldc, const double* panelA,
                                                const double* panelB, int n, int k);

#define MY_DTRXM_ARGS                                                                    \
  const char *side, const char *uplo, const char *transa, const char *diag, const int *m, \
      const int *n, const double *alpha, const double *A, const int *lda, double *B,     \
      const int *ldb, double *bufA, double *bufB
HALVEX_EXPORT void my_dtrsm(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_LLNN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_LLTN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_LUNN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_LUTN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_RLTN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrsm_kernel_lower_left(double* B, int ldb, const double* panelA,
                                              double* panelB, int m, int n);
HALVEX_EXPORT void my_dtrsm_kernel_upper_left(double* B, int ldb, const double* panelA,
                                              double* panelB, int m, int n);
HALVEX_EXPORT void my_dtrmm_RLNU(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrmm_RLTU(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrmm_RUNN(MY_DTRXM_ARGS);
HALVEX_EXPORT void my_dtrmm_LUNN_m1(MY_DTRXM_ARGS);

HALVEX_EXPORT void my_outer_prod(int m, int n, const double* x, const double* y, double* C);

#endif

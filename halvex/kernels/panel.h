// Internal core of the level-3 kernels: one register-blocked product of two
// packed panels, and the packing helpers.  Not exported.
#ifndef HALVEX_KERNELS_PANEL_H
#define HALVEX_KERNELS_PANEL_H

#include <stddef.h>

#include "kernels/cpu.h"

namespace hxk {

constexpr int kBlock = 96;

// Which entries of the target a panel product may touch: all of them, or
// only those on and below (above) the diagonal of the target block.
enum PanelShape { PANEL_FULL = 0, PANEL_LOWER = 1, PANEL_UPPER = 2 };

// C(i, j) +/-= sum_q pA[i*96 + q] * pB[j*96 + q] for i < m, j < n, q < k,
// restricted to the shape.  pA and pB may point into the middle of a panel
// row; the row stride stays 96.
void panelUpdate(double* C, int ldc, const double* pA, const double* pB, int m, int n, int k,
                 bool minus, PanelShape shape);

// The code paths behind panelUpdate, reachable for tests.  The AVX2 and
// AVX-512 ones must only be called when avx2Available() or
// avx512Available() says so.
void panelUpdatePortable(double* C, int ldc, const double* pA, const double* pB, int m, int n,
                         int k, bool minus, PanelShape shape);
void panelUpdateAvx2(double* C, int ldc, const double* pA, const double* pB, int m, int n,
                     int k, bool minus, PanelShape shape);
void panelUpdateAvx512(double* C, int ldc, const double* pA, const double* pB, int m, int n,
                       int k, bool minus, PanelShape shape);

// Right-side solve of one group of g <= kRightGroupMax columns over a block
// of rows: X (rows by g) with X T^T = B, T lower, t[a*96 + q] = T(a, q).  B
// points to the group's first column, X to the group's first position in
// panel row 0; solved values go to both.  Whole groups of four rows only;
// returns the first row left over.  AVX2 only.
constexpr int kRightGroupMax = 12;
int rightSolveAvx2(double* B, int ldb, double* X, const double* t, int rows, int g);

// Solves the 4 by 4 triangle t (t[r*96 + q] = T(r, q), lower or upper) for
// columns j0, j0+4, ... of the four rows at B, while four whole columns
// remain before j1; solved values also go to pB + j*96.  Returns the first
// column left over.  AVX2 only.
int triSolve4Avx2(double* B, int ldb, double* pB, const double* t, int j0, int j1, bool upper);

// dst row r (stride 96) := src[r + q*ld], q < kb, for r < rows: rows of a
// column-major block, gathered across columns.
void packGather(double* dst, const double* src, int rows, int kb, int ld);
// dst row r := src[r*ld + q], q < kb: columns copied whole.
void packCopy(double* dst, const double* src, int rows, int kb, int ld);

inline size_t at(int i, int j, int ld) { return (size_t)i + (size_t)j * (size_t)ld; }

}  // namespace hxk

#endif

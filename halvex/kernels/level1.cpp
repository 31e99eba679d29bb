// Level-1 kernels.  Unit-stride loops are left plain so that the compiler
// can vectorise them; reductions keep several partial sums in vector
// registers, which plain loops cannot do without reassociation.
#include <math.h>
#include <string.h>

#include "kernels/kernels.h"
#include "kernels/vec.h"

using hxk::v2d;

HALVEX_EXPORT double my_ddot(int n, const double* x, int incx, const double* y, int incy) {
  if (n < 1) return 0.0;
  if (incx == 1 && incy == 1) return hxk::dotUnit(x, y, n);
  double s = 0.0;
  for (int i = 0, ix = 0, iy = 0; i < n; ++i, ix += incx, iy += incy) s += x[ix] * y[iy];
  return s;
}

HALVEX_EXPORT void my_dcopy(int n, const double* x, int incx, double* y, int incy) {
  if (n < 1) return;
  if (incx == 1 && incy == 1) {
    if (n > 12 && (x + n <= y || y + n <= x)) {
      memcpy(y, x, sizeof(double) * (size_t)n);
    } else {
      for (int i = 0; i < n; ++i) y[i] = x[i];
    }
    return;
  }
  for (int i = 0, ix = 0, iy = 0; i < n; ++i, ix += incx, iy += incy) y[iy] = x[ix];
}

HALVEX_EXPORT void my_daxpy_one(double alpha, int n, const double* x, double* y) {
  for (int i = 0; i < n; ++i) y[i] += alpha * x[i];
}

HALVEX_EXPORT void my_daxpy(double alpha, int n, const double* x, int incx, double* y, int incy) {
  if (n < 1) return;
  if (incx == 1 && incy == 1) {
    my_daxpy_one(alpha, n, x, y);
    return;
  }
  for (int i = 0, ix = 0, iy = 0; i < n; ++i, ix += incx, iy += incy) y[iy] += alpha * x[ix];
}

// n below 1 has no element to point at; 0 keeps a careless caller inside
// its array rather than sending it to index -1.
HALVEX_EXPORT int my_idamax(int n, const double* x, int incx) {
  if (n <= 1) return 0;
  int best = 0;
  double big = fabs(x[0]);
  for (int i = 1, ix = incx; i < n; ++i, ix += incx) {
    const double a = fabs(x[ix]);
    if (a > big) {
      big = a;
      best = i;
    }
  }
  return best;
}

HALVEX_EXPORT void my_dswap_one(int n, double* x, double* y) {
  for (int i = 0; i < n; ++i) {
    const double t = x[i];
    x[i] = y[i];
    y[i] = t;
  }
}

HALVEX_EXPORT void my_dswap(int n, double* x, int incx, double* y, int incy) {
  if (n < 1) return;
  if (incx == 1 && incy == 1) {
    my_dswap_one(n, x, y);
    return;
  }
  for (int i = 0, ix = 0, iy = 0; i < n; ++i, ix += incx, iy += incy) {
    const double t = x[ix];
    x[ix] = y[iy];
    y[iy] = t;
  }
}

HALVEX_EXPORT void my_dscal(double alpha, int n, double* x, int incx) {
  if (n < 1) return;
  if (incx == 1) {
    for (int i = 0; i < n; ++i) x[i] *= alpha;
    return;
  }
  for (int i = 0, ix = 0; i < n; ++i, ix += incx) x[ix] *= alpha;
}

// Scaled sum of squares: no square of a huge or tiny element is ever formed,
// so the norm neither overflows nor underflows on its way.
HALVEX_EXPORT double my_dnrm2(int n, const double* x, int incx) {
  if (n < 1) return 0.0;
  if (n == 1) return fabs(x[0]);
  double scale = 0.0, sum = 0.0;
  for (int i = 0, ix = 0; i < n; ++i, ix += incx) {
    if (x[ix] == 0.0) continue;
    const double a = fabs(x[ix]);
    if (a <= scale) {
      const double r = a / scale;
      sum += r * r;
    } else {
      const double r = scale / a;
      sum = sum * r * r + 1.0;
      scale = a;
    }
  }
  return scale * sqrt(sum);
}

HALVEX_EXPORT double my_dasum(int n, const double* x, int incx) {
  if (n < 1) return 0.0;
  if (incx == 1) {
    v2d s0 = {0, 0}, s1 = {0, 0};
    int i = 0;
    for (; i + 4 <= n; i += 4) {
      s0 += hxk::abs2(hxk::load2(x + i));
      s1 += hxk::abs2(hxk::load2(x + i + 2));
    }
    s0 += s1;
    double s = s0[0] + s0[1];
    for (; i < n; ++i) s += fabs(x[i]);
    return s;
  }
  double s = 0.0;
  for (int i = 0, ix = 0; i < n; ++i, ix += incx) s += fabs(x[ix]);
  return s;
}

// Two-lane vectors of the portable paths, and the dot product that the
// level-1 and level-2 kernels share.
#ifndef HALVEX_KERNELS_VEC_H
#define HALVEX_KERNELS_VEC_H

#include <string.h>

namespace hxk {

typedef double v2d __attribute__((vector_size(16)));
typedef long long v2l __attribute__((vector_size(16)));

inline v2d load2(const double* p) {
  v2d v;
  memcpy(&v, p, sizeof v);
  return v;
}

inline v2d abs2(v2d v) {
  v2l bits;
  memcpy(&bits, &v, sizeof bits);
  bits &= (v2l){0x7fffffffffffffffLL, 0x7fffffffffffffffLL};
  memcpy(&v, &bits, sizeof v);
  return v;
}

// Eight products per step in four independent vector sums.
inline double dotUnit(const double* x, const double* y, int n) {
  v2d s0 = {0, 0}, s1 = s0, s2 = s0, s3 = s0;
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    s0 += load2(x + i) * load2(y + i);
    s1 += load2(x + i + 2) * load2(y + i + 2);
    s2 += load2(x + i + 4) * load2(y + i + 4);
    s3 += load2(x + i + 6) * load2(y + i + 6);
  }
  s0 += s1;
  s2 += s3;
  s0 += s2;
  double s = s0[0] + s0[1];
  for (; i < n; ++i) s += x[i] * y[i];
  return s;
}

}  // namespace hxk

#endif

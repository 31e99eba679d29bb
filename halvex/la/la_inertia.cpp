#include <math.h>
#include <stdint.h>

#include "la/la_internal.h"
#include "la/la_parallel.h"

// Inertia and the range of pivot magnitudes of a finished factor, in either
// storage: nb is the block size of the tiled one, 0 for the packed one.
void laCollectInertia(LAEnv* env, const LASymbolic* sym, int32_t nb) {
  int32_t pos = 0, neg = 0;
  double mn = 1e+20, mx = 0.0;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int32_t first = sym->snodeStart[s];
    int32_t c = laSNodeCols(sym, s), r = laSNodeRows(sym, s);
    const double* F = sym->factor + sym->factorBegin[s];
    int32_t bnb = nb > 0 && c > nb ? nb : 0;
    for (int32_t j = 0; j < c;) {
      double a = F[laBlockOffset(bnb, r, c, j, j)];
      if (sym->pivots[first + j] >= 0) {
        if (a <= 0.0) {
          neg++;
          a = -a;
        } else {
          pos++;
        }
        if (a < mn) mn = a;
        if (a > mx) mx = a;
        j += 1;
      } else {
        double b = F[laBlockOffset(bnb, r, c, j + 1, j + 1)];
        double d = F[laBlockOffset(bnb, r, c, j + 1, j)];
        double disc = sqrt(d * 4.0 * d + (a - b) * (a - b));
        if (a + b - disc <= 0.0) neg++;
        else pos++;
        if (a + b + disc <= 0.0) neg++;
        else pos++;
        double fa = fabs(a), fb = fabs(b);
        double big = fa > fb ? fa : fb, small = fa < fb ? fa : fb;
        if (big > mx) mx = big;
        if (small > 0.0 && small < mn) mn = small;
        j += 2;
      }
    }
  }
  env->numPositivePivots = pos;
  env->numNegativePivots = neg;
  env->pivotRatio = mx >= 1.110223024625157e-16 ? mn / mx : 0.0;
}

#include "support/dense_ref.h"

#include <cmath>
#include <utility>

namespace hxtest {

Dense denseFromCsc(int32_t numRow, int32_t numCol, const int32_t* begin, const int32_t* index,
                   const double* value, bool mirror) {
  Dense d(numRow, Vec(numCol, 0.0));
  for (int32_t j = 0; j < numCol; j++)
    for (int32_t k = begin[j]; k < begin[j + 1]; k++) {
      d[index[k]][j] += value[k];
      if (mirror && index[k] != j) d[j][index[k]] += value[k];
    }
  return d;
}

Dense denseFromCsc(int32_t numRow, int32_t numCol, const int32_t* begin, const int32_t* length,
                   const int32_t* index, const double* value, bool mirror) {
  Dense d(numRow, Vec(numCol, 0.0));
  for (int32_t j = 0; j < numCol; j++)
    for (int32_t k = begin[j]; k < begin[j] + length[j]; k++) {
      d[index[k]][j] += value[k];
      if (mirror && index[k] != j) d[j][index[k]] += value[k];
    }
  return d;
}

Vec multiply(const Dense& a, const Vec& x) {
  Vec y(a.size(), 0.0);
  for (size_t i = 0; i < a.size(); i++)
    for (size_t j = 0; j < x.size(); j++) y[i] += a[i][j] * x[j];
  return y;
}

double residual(const Dense& a, const Vec& x, const Vec& b) {
  const Vec ax = multiply(a, x);
  double worst = 0.0;
  for (size_t i = 0; i < b.size(); i++) worst = std::fmax(worst, std::fabs(ax[i] - b[i]));
  return worst;
}

bool luSolve(Dense a, Vec b, Vec* x, double singularBelow, bool nudge) {
  const size_t n = b.size();
  for (size_t c = 0; c < n; c++) {
    size_t best = c;
    for (size_t r = c + 1; r < n; r++)
      if (std::fabs(a[r][c]) > std::fabs(a[best][c])) best = r;
    std::swap(a[c], a[best]);
    std::swap(b[c], b[best]);
    if (std::fabs(a[c][c]) < singularBelow) {
      if (!nudge) return false;
      a[c][c] = singularBelow;
    }
    for (size_t r = c + 1; r < n; r++) {
      const double f = a[r][c] / a[c][c];
      if (f == 0.0) continue;
      for (size_t q = c; q < n; q++) a[r][q] -= f * a[c][q];
      b[r] -= f * b[c];
    }
  }
  x->assign(n, 0.0);
  for (size_t i = n; i-- > 0;) {
    double s = b[i];
    for (size_t q = i + 1; q < n; q++) s -= a[i][q] * (*x)[q];
    (*x)[i] = s / a[i][i];
  }
  return true;
}

bool ldlFactor(const Dense& a, Dense* l, Vec* d) {
  const size_t n = a.size();
  l->assign(n, Vec(n, 0.0));
  d->assign(n, 0.0);
  for (size_t j = 0; j < n; j++) {
    double djj = a[j][j];
    for (size_t k = 0; k < j; k++) djj -= (*l)[j][k] * (*l)[j][k] * (*d)[k];
    if (djj == 0.0) return false;
    (*d)[j] = djj;
    (*l)[j][j] = 1.0;
    for (size_t i = j + 1; i < n; i++) {
      double s = a[i][j];
      for (size_t k = 0; k < j; k++) s -= (*l)[i][k] * (*l)[j][k] * (*d)[k];
      (*l)[i][j] = s / djj;
    }
  }
  return true;
}

void inertia(const Vec& d, int32_t* positive, int32_t* negative) {
  *positive = *negative = 0;
  for (double v : d) {
    *positive += v > 0.0;
    *negative += v < 0.0;
  }
}

}  // namespace hxtest

// Flexible GMRES with the whole factorisation as preconditioner: it wins
// back the accuracy that static pivoting gives away.  The restart length
// starts short and doubles only when a cycle brings too little.
#include <immintrin.h>
#include <math.h>
#include <string.h>

#include "kernels/cpu.h"
#include "kernels/kernels.h"
#include "la/la_numeric_internal.h"

namespace {

// Two-norm by the scale-and-sum-of-squares recurrence, safe from overflow.
double safeNorm2(int32_t n, const double* x) {
  double scale = 0.0, ssq = 1.0;
  for (int32_t i = 0; i < n; i++) {
    if (x[i] == 0.0) continue;
    double v = fabs(x[i]);
    if (v <= scale) {
      ssq += (v / scale) * (v / scale);
    } else {
      ssq = ssq * (scale / v) * (scale / v) + 1.0;
      scale = v;
    }
  }
  return scale * sqrt(ssq);
}

inline double backwardError(double normR, double normX, double normA, double normB) {
  return normB == 0.0 ? 0.0 : normR / (normX * normA + normB);
}

// The Krylov vectors are long and the work per element is small: these
// loops are compiled for the wider vector units too and picked at load.
#define LA_KRYLOV_CLONES __attribute__((target_clones(HXK_CLONE_AVX2, "default")))
typedef double v4d __attribute__((vector_size(32)));
typedef double v4u __attribute__((vector_size(32), aligned(8)));

// By reference, so that no vector crosses a call boundary of the baseline
// build.
#define load4(p) (*reinterpret_cast<const v4u*>(p))
#define store4(p, v) (*reinterpret_cast<v4u*>(p) = (v))

// w += alpha v, and in the same pass the dot product of the new w with
// next (skipped when next is null).  Modified Gram-Schmidt takes each
// coefficient from the vector that the previous step left, so fusing the
// update with the next product keeps the scheme and halves the passes.
LA_KRYLOV_CLONES double axpyDot(double alpha, const double* v, double* w, const double* next,
                                int32_t n) {
  v4d a = {alpha, alpha, alpha, alpha};
  int32_t i = 0;
  if (!next) {
    for (; i + 4 <= n; i += 4) store4(w + i, load4(w + i) + a * load4(v + i));
    for (; i < n; i++) w[i] += alpha * v[i];
    return 0.0;
  }
  v4d s0 = {0, 0, 0, 0}, s1 = s0;
  for (; i + 8 <= n; i += 8) {
    v4d w0 = load4(w + i) + a * load4(v + i);
    v4d w1 = load4(w + i + 4) + a * load4(v + i + 4);
    store4(w + i, w0);
    store4(w + i + 4, w1);
    s0 += w0 * load4(next + i);
    s1 += w1 * load4(next + i + 4);
  }
  s0 += s1;
  double s = (s0[0] + s0[1]) + (s0[2] + s0[3]);
  for (; i < n; i++) {
    w[i] += alpha * v[i];
    s += w[i] * next[i];
  }
  return s;
}

LA_KRYLOV_CLONES double dot(const double* x, const double* y, int32_t n) {
  v4d s0 = {0, 0, 0, 0}, s1 = s0;
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    s0 += load4(x + i) * load4(y + i);
    s1 += load4(x + i + 4) * load4(y + i + 4);
  }
  s0 += s1;
  double s = (s0[0] + s0[1]) + (s0[2] + s0[3]);
  for (; i < n; i++) s += x[i] * y[i];
  return s;
}

// Two-norm of a Krylov vector: a plain sum of squares, and the scaled
// kernel only where that sum could have overflowed or lost its small
// terms to underflow.
LA_KRYLOV_CLONES double norm2(int32_t n, const double* x) {
  v4d s0 = {0, 0, 0, 0}, s1 = s0;
  int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    v4d a = load4(x + i), b = load4(x + i + 4);
    s0 += a * a;
    s1 += b * b;
  }
  s0 += s1;
  double s = (s0[0] + s0[1]) + (s0[2] + s0[3]);
  for (; i < n; i++) s += x[i] * x[i];
  if (s > 1e-280 && s < 1e280) return sqrt(s);
  return my_dnrm2(n, x, 1);
}

// r := b - A x, by rows: both triangles are stored, so column i is row i.
// The backward error decides at the level of the last bit, so each entry
// of r takes its products off b one at a time in the stored order, as the
// column-by-column form does, in this function's own plain arithmetic.
// Returns the largest sum of magnitudes over a column, and the largest
// magnitudes of r, x and b in the same pass (a maximum has no order).
struct InfNorms {
  double r, x, b;
};

// One row of r = b - A x and its part of the norms.
inline void residualRow(int32_t i, const int32_t* colBegin, const int32_t* rowIndex,
                        const double* value, const double* b, const double* x, double* r,
                        double* normA, InfNorms* m) {
  double ri = b[i], sum = 0.0;
  for (int32_t k = colBegin[i]; k < colBegin[i + 1]; k++) {
    ri -= value[k] * x[rowIndex[k]];
    sum += fabs(value[k]);
  }
  r[i] = ri;
  *normA = sum > *normA ? sum : *normA;
  double a = fabs(ri), u = fabs(x[i]), v = fabs(b[i]);
  m->r = a > m->r ? a : m->r;
  m->x = u > m->x ? u : m->x;
  m->b = v > m->b ? v : m->b;
}

double residualPlain(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                     const double* value, const double* b, const double* x, double* r,
                     InfNorms* norms) {
  double normA = 0.0;
  *norms = InfNorms{0.0, 0.0, 0.0};
  for (int32_t i = 0; i < n; i++) residualRow(i, colBegin, rowIndex, value, b, x, r, &normA, norms);
  return normA;
}

// Four rows at once, one to a lane, each lane taking its row's products in
// the stored order with a multiplication and a subtraction of its own: the
// same operations as one row at a time, so the same bits.  A lane whose row
// has ended subtracts 0 * 0, which changes nothing.  No fused multiply-add
// is compiled in, so that none can be formed.
__attribute__((target("avx2"))) double residualAvx2(int32_t n, const int32_t* colBegin,
                                                    const int32_t* rowIndex,
                                                    const double* value, const double* b,
                                                    const double* x, double* r,
                                                    InfNorms* norms) {
  const __m256d zero = _mm256_setzero_pd();
  const __m256d magnitude = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7fffffffffffffffLL));
  const __m128i one = _mm_set1_epi32(1);
  __m256d normA = zero, mr = zero, mx = zero, mb = zero;
  int32_t i = 0;
  for (; i + 4 <= n; i += 4) {
    __m128i k = _mm_loadu_si128(reinterpret_cast<const __m128i*>(colBegin + i));
    __m128i end = _mm_loadu_si128(reinterpret_cast<const __m128i*>(colBegin + i + 1));
    int32_t steps = 0;
    for (int32_t j = 0; j < 4; j++) {
      int32_t len = colBegin[i + j + 1] - colBegin[i + j];
      steps = len > steps ? len : steps;
    }
    __m256d bi = _mm256_loadu_pd(b + i);
    __m256d ri = bi, sum = zero;
    for (int32_t t = 0; t < steps; t++) {
      __m128i active = _mm_cmpgt_epi32(end, k);
      __m256d lanes = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(active));
      __m128i idx = _mm_mask_i32gather_epi32(_mm_setzero_si128(), rowIndex, k, active, 4);
      __m256d v = _mm256_mask_i32gather_pd(zero, value, k, lanes, 8);
      __m256d xv = _mm256_mask_i32gather_pd(zero, x, idx, lanes, 8);
      ri = _mm256_sub_pd(ri, _mm256_mul_pd(v, xv));
      sum = _mm256_add_pd(sum, _mm256_and_pd(v, magnitude));
      k = _mm_add_epi32(k, one);
    }
    _mm256_storeu_pd(r + i, ri);
    // max(new, old) keeps old where new is not a number, as a comparison
    // one at a time would.
    normA = _mm256_max_pd(sum, normA);
    mr = _mm256_max_pd(_mm256_and_pd(ri, magnitude), mr);
    mx = _mm256_max_pd(_mm256_and_pd(_mm256_loadu_pd(x + i), magnitude), mx);
    mb = _mm256_max_pd(_mm256_and_pd(bi, magnitude), mb);
  }
  double a[4], m[3][4];
  _mm256_storeu_pd(a, normA);
  _mm256_storeu_pd(m[0], mr);
  _mm256_storeu_pd(m[1], mx);
  _mm256_storeu_pd(m[2], mb);
  double nA = 0.0;
  InfNorms out{0.0, 0.0, 0.0};
  for (int32_t j = 0; j < 4; j++) {
    nA = a[j] > nA ? a[j] : nA;
    out.r = m[0][j] > out.r ? m[0][j] : out.r;
    out.x = m[1][j] > out.x ? m[1][j] : out.x;
    out.b = m[2][j] > out.b ? m[2][j] : out.b;
  }
  for (; i < n; i++) residualRow(i, colBegin, rowIndex, value, b, x, r, &nA, &out);
  *norms = out;
  return nA;
}

double residual(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                const double* value, const double* b, const double* x, double* r,
                InfNorms* norms) {
  static const bool avx2 = hxk::avx2Available();
  return (avx2 ? residualAvx2 : residualPlain)(n, colBegin, rowIndex, value, b, x, r, norms);
}

}  // namespace

double laResidual(bool gathers, int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                  const double* value, const double* b, const double* x, double* r,
                  double norms[3]) {
  InfNorms m;
  double normA = (gathers ? residualAvx2 : residualPlain)(n, colBegin, rowIndex, value, b, x, r,
                                                         &m);
  norms[0] = m.r;
  norms[1] = m.x;
  norms[2] = m.b;
  return normA;
}

namespace {

// y := alpha x.
LA_KRYLOV_CLONES void scaleInto(double alpha, const double* x, double* y, int32_t n) {
  for (int32_t i = 0; i < n; i++) y[i] = x[i] * alpha;
}

// w := A z over the stored matrix.  Both triangles are stored, so column i
// is row i: each entry of w is one sum over its column, with no scatter
// and no clearing pass, and the reads of z go four to an instruction where
// the processor gathers.
__attribute__((target("avx2,fma"))) void multiplyAvx2(int32_t n, const int32_t* colBegin,
                                                      const int32_t* rowIndex,
                                                      const double* value, const double* z,
                                                      double* w) {
  const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  for (int32_t i = 0; i < n; i++) {
    int32_t k = colBegin[i], end = colBegin[i + 1];
    __m256d s = _mm256_setzero_pd();
    for (; k + 4 <= end; k += 4) {
      __m128i idx = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rowIndex + k));
      __m256d zv = _mm256_mask_i32gather_pd(_mm256_setzero_pd(), z, idx, all, 8);
      s = _mm256_fmadd_pd(_mm256_loadu_pd(value + k), zv, s);
    }
    if (k < end) {
      // The last one to three entries under a mask: nothing past them is read.
      __m128i lanes = _mm_cmpgt_epi32(_mm_set1_epi32(end - k), _mm_setr_epi32(0, 1, 2, 3));
      __m128i idx = _mm_maskload_epi32(rowIndex + k, lanes);
      __m256d mask = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(lanes));
      __m256d zv = _mm256_mask_i32gather_pd(_mm256_setzero_pd(), z, idx, mask, 8);
      s = _mm256_fmadd_pd(_mm256_maskload_pd(value + k, _mm256_castpd_si256(mask)), zv, s);
    }
    __m128d h = _mm_add_pd(_mm256_castpd256_pd128(s), _mm256_extractf128_pd(s, 1));
    w[i] = _mm_cvtsd_f64(_mm_add_sd(h, _mm_unpackhi_pd(h, h)));
  }
}

void multiplyPlain(int32_t n, const int32_t* colBegin, const int32_t* rowIndex,
                   const double* value, const double* z, double* w) {
  for (int32_t i = 0; i < n; i++) {
    int32_t k = colBegin[i], end = colBegin[i + 1];
    double s0 = 0.0, s1 = 0.0;
    for (; k + 2 <= end; k += 2) {
      s0 += value[k] * z[rowIndex[k]];
      s1 += value[k + 1] * z[rowIndex[k + 1]];
    }
    if (k < end) s0 += value[k] * z[rowIndex[k]];
    w[i] = s0 + s1;
  }
}

void multiply(int32_t n, const int32_t* colBegin, const int32_t* rowIndex, const double* value,
              const double* z, double* w) {
  static const bool avx2 = hxk::avx2Available();
  (avx2 ? multiplyAvx2 : multiplyPlain)(n, colBegin, rowIndex, value, z, w);
}

// One modified Gram-Schmidt sweep of w against V[0..j]; the coefficients
// are stored in h, or added to it.
void mgsSweep(int32_t n, int32_t j, const double* V, double* w, double* h, bool add) {
  double c = dot(w, V, n);
  for (int32_t i = 0; i <= j; i++) {
    h[i] = add ? h[i] + c : c;
    const double* next = i < j ? V + (int64_t)(i + 1) * n : nullptr;
    c = axpyDot(-c, V + (int64_t)i * n, w, next, n);
  }
}

}  // namespace

int32_t FGMRES(double tol, double stagnation, int32_t n, const int32_t* colBegin,
               const int32_t* rowIndex, const double* value, const double* b, int32_t mode,
               int32_t maxIter, int32_t m, int32_t mMax, int32_t keepExtra, int32_t ortho,
               LAEnv* env, LASymbolic* sym, LATriangularSolveFn solve, double* result, double* x,
               double* scratch) {
  (void)keepExtra;  // every caller forms the residual afresh
  double* w = scratch;  // also the triangular solve's vector
  double* xNew = scratch + n;
  double* r = scratch + 2 * (int64_t)n;
  double* g = r;  // the rotated right-hand side, once r has gone into V[0]

  // 1. Residual and the norms of the backward error.  The two-norms serve
  // only the cycles, and most calls end here.
  InfNorms inf;
  double normA = residual(n, colBegin, rowIndex, value, b, x, r, &inf);
  double normBInf = inf.b;
  double omega = backwardError(inf.r, inf.x, normA, normBInf);
  if (omega < tol) {
    *result = omega;
    return LA_REFINE_CONVERGED;
  }
  double normB2 = safeNorm2(n, b);
  double normX2 = safeNorm2(n, x);

  // 2. Work: V, Z, H and the rotations for the longest restart.
  int64_t need = ((int64_t)mMax + 3 + 2 * (int64_t)n) * mMax;
  double* work = static_cast<double*>(sym->work);
  double* owned = nullptr;
  if ((int64_t)sym->updateBufferSize + sym->panelBufferSize < need || !work) {
    owned = static_cast<double*>(poolAlloc(env->pool, (need > 2 ? need : 2) * 8, 0));
    if (!owned) return LA_ERR_MEMORY;
    work = owned;
  }
  auto finish = [&](double value, int32_t status) {
    *result = value;
    if (owned) poolFree(env->pool, owned);
    return status;
  };

  int32_t total = 0, stop = 0;
  const int kOne = 1;
  while (omega > tol && total < maxIter && !stop) {
    double* V = work;
    double* Z = V + (int64_t)n * m;
    double* H = Z + (int64_t)n * m;
    int32_t ldh = m + 1;
    double* cs = H + (int64_t)ldh * m;
    double* sn = cs + m;

    double omegaOld = omega;
    double beta = norm2(n, r);
    double scale = beta > 0.0 ? 1.0 / beta : 0.0;
    scaleInto(scale, r, V, n);
    g[0] = beta;
    double limit = tol * (normA * normX2 + normB2);

    int32_t j = 0;
    if (beta > limit && m > 0) {
      // The work limit holds inside a cycle too.
      while (!stop && fabs(g[j]) > limit && j < m && total + j < maxIter) {
        double* Vj = V + (int64_t)j * n;
        double* Zj = Z + (int64_t)j * n;
        memcpy(Zj, Vj, sizeof(double) * (size_t)n);
        int32_t status = mode == 0 ? solve(0, Zj, sym, w) : solve(1, w, sym, Zj);
        if (status) return finish(omega, LA_ERR_SOLVE_OVERFLOW);
        multiply(n, colBegin, rowIndex, value, Zj, w);
        double* Hj = H + (int64_t)j * ldh;
        switch (ortho) {
          case 0:
          case 1:
            for (int32_t sweep = 0; sweep < (ortho == 0 ? 1 : 2); sweep++)
              mgsSweep(n, j, V, w, Hj, sweep == 1);
            break;
          case 2: {
            for (int32_t sweep = 0; sweep < 2; sweep++) {
              // The second sweep's coefficients are added, so they wait
              // in xNew, which is free until the cycle ends.
              double* coef = sweep == 0 ? Hj : xNew;
              laGemv('T', n, j + 1, 1.0, V, n, w, 0.0, coef);
              laGemv('N', n, j + 1, -1.0, V, n, coef, 1.0, w);
              if (sweep == 1)
                for (int32_t i = 0; i <= j; i++) Hj[i] += coef[i];
            }
            break;
          }
          default:
            return finish(omega, LA_ERR_INTERNAL);
        }
        double hn = norm2(n, w);
        Hj[j + 1] = hn;
        if (hn > 8.636168555094447e-78) {
          if (j < m - 1) {
            scaleInto(1.0 / hn, w, V + (int64_t)(j + 1) * n, n);
          }
          for (int32_t i = 0; i < j; i++) {
            double a = Hj[i], bb = Hj[i + 1];
            Hj[i + 1] = cs[i] * bb - sn[i] * a;
            Hj[i] = sn[i] * bb + cs[i] * a;
          }
          double a = Hj[j], bb = Hj[j + 1];
          if (bb == 0.0) {
            cs[j] = 1.0;
            sn[j] = 0.0;
          } else if (a == 0.0) {
            cs[j] = 0.0;
            sn[j] = bb > 0.0 ? 1.0 : -1.0;
            Hj[j] = fabs(bb);
          } else {
            double t = a * a, u = bb * bb + t, v = sqrt(u * t);
            if (v == 0.0) {
              cs[j] = 1.0;
              sn[j] = 0.0;
            } else {
              cs[j] = t / v;
              sn[j] = bb * a / v;
              Hj[j] = a * u / v;
              Hj[j + 1] = 0.0;
            }
          }
          g[j + 1] = -sn[j] * g[j];
          g[j] = cs[j] * g[j];
          j += 1;
        } else if (j == 0) {
          return finish(omega, LA_REFINE_STOPPED);
        } else {
          stop = 1;
        }
        // y from the triangle so far, into w.
        memcpy(w, g, sizeof(double) * (size_t)j);
        dtrsv_("U", "N", "N", &j, H, &ldh, w, &kOne, 1, 1, 1);
      }
    }
    total += j;
    if (j == 0) return finish(omega, LA_REFINE_CONVERGED);

    // xNew = x + Z y, and its backward error.
    memcpy(xNew, x, sizeof(double) * (size_t)n);
    laGemv('N', n, j, 1.0, Z, n, w, 1.0, xNew);
    residual(n, colBegin, rowIndex, value, b, xNew, r, &inf);
    double omegaNew = backwardError(inf.r, inf.x, normA, normBInf);

    bool accept;
    if (omegaNew < stagnation * omegaOld || stop) {
      accept = omegaNew < omegaOld || stop == 1;
    } else {
      m *= 2;
      if (m > mMax) return finish(omegaNew, LA_REFINE_STOPPED);
      accept = omegaNew < omegaOld;
    }
    // A refused iterate still hands its residual to the next cycle.
    if (accept) {
      memcpy(x, xNew, sizeof(double) * (size_t)n);
      normX2 = safeNorm2(n, x);
    }
    omega = omegaNew;
  }
  return finish(omega, omega < tol ? LA_REFINE_CONVERGED : LA_REFINE_STOPPED);
}

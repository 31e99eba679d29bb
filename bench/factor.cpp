// Factorisation benchmark: analysis, factor and solve times and the
// backward error of halvex's supernodal LDL' against SuiteSparse CHOLMOD on
// the same matrices.  CHOLMOD factors the positive definite matrices with
// its supernodal LL' and the quasi-definite ones with its LDL' (simplicial:
// its supernodal code has no LDL').  Writes factor.csv and factor.md.
//
// The thread table (factor_threads.csv and .md) runs halvex's factor with
// numThreads 1 and 2 on the augmented matrices of the largest shared
// problems and on grids, and CHOLMOD's supernodal LL' where the matrix is
// definite, with one and two BLAS threads.
//
// The static-permutation table (factor_static.csv and .md) factors the
// augmented matrices of shared problems with and without each static
// permutation: pairs, replaced pivots, fill, factor time, refinement steps.
#include <dlfcn.h>
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "cli/mps.h"
#include "frame/entry.h"
#include "host/host.h"
#include "la/la.h"
#include "la/la_internal.h"
#include "la/la_numeric.h"

namespace {

struct Matrix {
  std::string name;
  bool definite;
  int32_t n = 0;
  std::vector<int32_t> colBegin, rowIndex;
  std::vector<double> value;
};

using Triplets = std::vector<std::tuple<int32_t, int32_t, double>>;

// Both triangles, rows sorted in each column.
Matrix build(const std::string& name, bool definite, int32_t n, const Triplets& lower) {
  std::vector<std::vector<std::pair<int32_t, double>>> cols(n);
  for (auto& [i, j, v] : lower) {
    cols[j].push_back({i, v});
    if (i != j) cols[i].push_back({j, v});
  }
  Matrix m;
  m.name = name;
  m.definite = definite;
  m.n = n;
  m.colBegin.push_back(0);
  for (auto& c : cols) {
    std::sort(c.begin(), c.end());
    for (auto& e : c) {
      m.rowIndex.push_back(e.first);
      m.value.push_back(e.second);
    }
    m.colBegin.push_back((int32_t)m.rowIndex.size());
  }
  return m;
}

Triplets laplacian(int32_t k, int32_t dims) {
  Triplets t;
  int32_t n = dims == 2 ? k * k : k * k * k;
  for (int32_t v = 0; v < n; v++) {
    int32_t x = v % k, y = (v / k) % k, z = v / (k * k);
    t.push_back({v, v, dims == 2 ? 4.0 : 6.0});
    if (x + 1 < k) t.push_back({v + 1, v, -1.0});
    if (y + 1 < k) t.push_back({v + k, v, -1.0});
    if (dims == 3 && z + 1 < k) t.push_back({v + k * k, v, -1.0});
  }
  return t;
}

// [H A'; A -D] with H given or diagonal, A with perRow entries per row.
Matrix kkt(const std::string& name, int32_t n1, int32_t n2, int32_t perRow, const Triplets* h,
           uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.5, 2.0), s(-1.0, 1.0);
  Triplets t;
  if (h) {
    t = *h;
  } else {
    for (int32_t j = 0; j < n1; j++) t.push_back({j, j, u(rng)});
  }
  for (int32_t i = 0; i < n2; i++) {
    std::vector<int32_t> cols;
    while ((int32_t)cols.size() < perRow) {
      // Columns near the row's place: random but local, as in a staged
      // model, so that the fill stays that of a sparse problem.
      int32_t centre = (int32_t)((int64_t)i * n1 / n2);
      int32_t j = std::min(n1 - 1, std::max(0, centre + (int32_t)(rng() % 200) - 100));
      if (std::find(cols.begin(), cols.end(), j) == cols.end()) cols.push_back(j);
    }
    for (int32_t j : cols) t.push_back({n1 + i, j, s(rng)});
    t.push_back({n1 + i, n1 + i, -1e-8});
  }
  return build(name, false, n1 + n2, t);
}

double seconds(std::chrono::steady_clock::time_point a) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - a).count();
}

struct Result {
  double analyze = 0, factor = 1e300, solve = 1e300, residual = 0, fill = 0;
  int status = 0;
};

std::vector<double> rhsFor(const Matrix& m) {
  std::vector<double> x(m.n), b(m.n, 0.0);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (double& v : x) v = u(rng);
  for (int32_t j = 0; j < m.n; j++)
    for (int32_t k = m.colBegin[j]; k < m.colBegin[j + 1]; k++) b[m.rowIndex[k]] += m.value[k] * x[j];
  return b;
}

Result runHalvex(const Matrix& m, int reps) {
  Result r;
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  QVPool* pool = host.createPool("bench");
  int32_t status = 0;
  LAEnv* env = LA_CreateLAEnv(pool, nullptr, &status);
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  auto t0 = std::chrono::steady_clock::now();
  r.status = LA_AnalyzeMatrixLDL(m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(), env,
                                 &sym, &num);
  r.analyze = seconds(t0);
  if (r.status == 0) {
    r.fill = sym->estFactorEntries + m.n;
    for (int k = 0; k < reps && r.status == 0; k++) {
      t0 = std::chrono::steady_clock::now();
      r.status = LA_FactorMatrixLDL(0, m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(),
                                    env, sym, num);
      r.factor = std::min(r.factor, seconds(t0));
    }
    std::vector<double> b = rhsFor(m), x, res(m.n);
    for (int k = 0; k < reps && r.status == 0; k++) {
      x = b;
      t0 = std::chrono::steady_clock::now();
      int s = LA_SolveMatrixLDL(0, m.colBegin.data(), m.rowIndex.data(), m.value.data(), x.data(),
                                env, sym, num);
      r.solve = std::min(r.solve, seconds(t0));
      if (s != 0 && s != 6 && s != 7) r.status = s;
    }
    r.residual = LA_CalculateInfNormResidual(m.n, m.colBegin.data(), m.rowIndex.data(),
                                             m.value.data(), x.data(), b.data(), res.data());
  }
  LA_CleanUpLDL(env, &sym, &num);
  LA_FreeLAEnv(&env);
  pool->poolDestroy(pool);
  return r;
}

Result runCholmod(const Matrix& m, int reps) {
  Result r;
  cholmod_common c;
  cholmod_start(&c);
  if (!m.definite) {
    c.supernodal = CHOLMOD_SIMPLICIAL;
    c.final_ll = 0;
  }
  cholmod_sparse* A = cholmod_allocate_sparse(m.n, m.n, m.rowIndex.size(), 1, 1, -1, CHOLMOD_REAL, &c);
  std::copy(m.colBegin.begin(), m.colBegin.end(), (int*)A->p);
  std::copy(m.rowIndex.begin(), m.rowIndex.end(), (int*)A->i);
  std::copy(m.value.begin(), m.value.end(), (double*)A->x);
  auto t0 = std::chrono::steady_clock::now();
  cholmod_factor* L = cholmod_analyze(A, &c);
  r.analyze = seconds(t0);
  r.fill = c.lnz;
  for (int k = 0; k < reps; k++) {
    t0 = std::chrono::steady_clock::now();
    cholmod_factorize(A, L, &c);
    r.factor = std::min(r.factor, seconds(t0));
  }
  if (c.status != CHOLMOD_OK) r.status = c.status;
  std::vector<double> b = rhsFor(m), res(m.n);
  cholmod_dense* B = cholmod_allocate_dense(m.n, 1, m.n, CHOLMOD_REAL, &c);
  std::copy(b.begin(), b.end(), (double*)B->x);
  cholmod_dense* X = nullptr;
  for (int k = 0; k < reps; k++) {
    if (X) cholmod_free_dense(&X, &c);
    t0 = std::chrono::steady_clock::now();
    X = cholmod_solve(CHOLMOD_A, L, B, &c);
    r.solve = std::min(r.solve, seconds(t0));
  }
  r.residual = LA_CalculateInfNormResidual(m.n, m.colBegin.data(), m.rowIndex.data(),
                                           m.value.data(), (double*)X->x, b.data(), res.data());
  cholmod_free_dense(&X, &c);
  cholmod_free_dense(&B, &c);
  cholmod_free_factor(&L, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  return r;
}

// ---- the thread table ---------------------------------------------------------------

// The augmented matrix of a shared problem as an interior-point iteration
// sees it: [-(Q + X^-1 Z) A'; A delta], with X^-1 Z spread over 8 decades.
bool augmented(const std::string& set, const std::string& file, Matrix* out,
               int32_t* numColumns = nullptr) {
  hxcli::MpsProblem p;
  hxcli::MpsError err;
  std::string path = std::string(HALVEX_DATA_DIR) + "/" + set + "/" + file;
  if (!hxcli::readMpsFile(path, hxcli::MpsFormat::Auto, &p, &err)) {
    fprintf(stderr, "%s\n", err.message().c_str());
    return false;
  }
  int32_t nc = p.numCol(), nr = p.numRow();
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> scale(-4.0, 4.0);
  Triplets t;
  for (int32_t j = 0; j < nc; j++) {
    double q = p.quadDiag.empty() ? 0.0 : p.quadDiag[j];
    t.push_back({j, j, -(q + std::pow(10.0, scale(rng)))});
    if (!p.quadColBegin.empty())
      for (int32_t k = p.quadColBegin[j]; k < p.quadColBegin[j + 1]; k++)
        t.push_back({p.quadRowIndex[k], j, -p.quadValue[k]});
    for (int32_t k = p.colBegin[j]; k < p.colBegin[j + 1]; k++)
      t.push_back({nc + p.rowIndex[k], j, p.value[k]});
  }
  for (int32_t i = 0; i < nr; i++) t.push_back({nc + i, nc + i, 1e-8});
  std::string name = file.substr(0, file.find('.'));
  *out = build(name, false, nc + nr, t);
  if (numColumns) *numColumns = nc;
  return true;
}

// Multiply-adds of the dense steps of a plan: column k of a supernode of r
// rows costs (r - k)^2.
double planFlops(const LASymbolic* sym) {
  double f = 0.0;
  for (int32_t s = 0; s < sym->numSNodes; s++) {
    int64_t c = sym->snodeStart[s + 1] - sym->snodeStart[s];
    int64_t r = sym->rowBegin[s + 1] - sym->rowBegin[s];
    for (int64_t k = 0; k < c; k++) f += (double)(r - k) * (double)(r - k);
  }
  return f;
}

double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

struct ThreadRun {
  double factor = 1e300, cpu = 1e300, flops = 0, residual = 0;
  int status = 0, threaded = 0, nb = 0, used = 1;
};

// forcedNb above 0: the threaded plan of that block edge on one thread,
// whatever the analysis would choose; it tells the cost of the blocking
// apart from the gain of the second thread.
ThreadRun runHalvexThreads(const Matrix& m, int threads, int reps, int forcedNb = 0) {
  ThreadRun r;
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  QVPool* pool = host.createPool("bench");
  int32_t status = 0;
  LAEnv* env = LA_CreateLAEnv(pool, nullptr, &status);
  LA_SetIntParam(env, LA_PARAM_NUM_THREADS, threads);
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  r.status = laAnalyzeWithPlan(m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(), env,
                               &sym, &num, forcedNb > 0 ? threads : 0, forcedNb);
  if (r.status == 0) {
    r.flops = planFlops(sym);
    r.threaded = sym->threaded;
    r.nb = sym->blockSize;
    r.used = sym->threadsUsed;
    for (int k = 0; k < reps && r.status == 0; k++) {
      auto t0 = std::chrono::steady_clock::now();
      double c0 = cpuSeconds();
      r.status = LA_FactorMatrixLDL(0, m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(),
                                    env, sym, num);
      r.cpu = std::min(r.cpu, cpuSeconds() - c0);
      r.factor = std::min(r.factor, seconds(t0));
    }
    std::vector<double> b = rhsFor(m), x = b, res(m.n);
    LA_SetIntParam(env, LA_PARAM_MAX_REFINE, 0);
    if (r.status == 0)
      LA_SolveMatrixLDL(0, m.colBegin.data(), m.rowIndex.data(), m.value.data(), x.data(), env,
                        sym, num);
    r.residual = LA_CalculateInfNormResidual(m.n, m.colBegin.data(), m.rowIndex.data(),
                                             m.value.data(), x.data(), b.data(), res.data());
  }
  LA_CleanUpLDL(env, &sym, &num);
  LA_FreeLAEnv(&env);
  pool->poolDestroy(pool);
  return r;
}

void setBlasThreads(int threads) {
  auto set = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "openblas_set_num_threads"));
  if (set) set(threads);
}

// CHOLMOD's supernodal LL' with its BLAS on the given threads.
ThreadRun runCholmodThreads(const Matrix& m, int threads, int reps) {
  ThreadRun r;
  setBlasThreads(threads);
  cholmod_common c;
  cholmod_start(&c);
  c.supernodal = CHOLMOD_SUPERNODAL;
  cholmod_sparse* A = cholmod_allocate_sparse(m.n, m.n, m.rowIndex.size(), 1, 1, -1, CHOLMOD_REAL, &c);
  std::copy(m.colBegin.begin(), m.colBegin.end(), (int*)A->p);
  std::copy(m.rowIndex.begin(), m.rowIndex.end(), (int*)A->i);
  std::copy(m.value.begin(), m.value.end(), (double*)A->x);
  cholmod_factor* L = cholmod_analyze(A, &c);
  for (int k = 0; k < reps; k++) {
    auto t0 = std::chrono::steady_clock::now();
    cholmod_factorize(A, L, &c);
    r.factor = std::min(r.factor, seconds(t0));
  }
  r.flops = c.fl;
  if (c.status != CHOLMOD_OK) r.status = c.status;
  cholmod_free_factor(&L, &c);
  cholmod_free_sparse(&A, &c);
  cholmod_finish(&c);
  setBlasThreads(1);
  return r;
}

extern "C" void dgemm_(const char*, const char*, const int*, const int*, const int*, const double*,
                       const double*, const int*, const double*, const int*, const double*,
                       double*, const int*, size_t, size_t);

// GFLOP/s of one large dgemm of the BLAS on the given threads.
double dgemmRate(int threads) {
  setBlasThreads(threads);
  const int n = 2000;
  std::vector<double> a((size_t)n * n, 0.5), b((size_t)n * n, 0.25), c((size_t)n * n, 0.0);
  const double one = 1.0;
  double best = 1e300;
  for (int k = 0; k < 2; k++) {
    auto t0 = std::chrono::steady_clock::now();
    dgemm_("N", "N", &n, &n, &n, &one, a.data(), &n, b.data(), &n, &one, c.data(), &n, 1, 1);
    best = std::min(best, seconds(t0));
  }
  setBlasThreads(1);
  return 2.0 * n * (double)n * n / best / 1e9;
}

std::vector<Matrix> threadMatrices(const std::string& only);

int profileOne(const std::string& name, int threads, int nb, int reps) {
  std::vector<Matrix> ms = threadMatrices(name);
  if (ms.empty()) return 1;
  ThreadRun r = runHalvexThreads(ms[0], threads, reps, nb);
  printf("%s threads %d %s nb %d: factor %.4f s (cpu %.4f s), %.2f GFLOP/s, residual %.1e, "
         "status %d\n", ms[0].name.c_str(), threads, r.threaded ? "threaded" : "sequential", r.nb,
         r.factor, r.cpu, r.flops / r.factor / 1e9, r.residual, r.status);
  return r.status;
}

std::vector<Matrix> threadMatrices(const std::string& only) {
  std::vector<Matrix> ms;
  const std::pair<const char*, const char*> problems[] = {
      {"maros", "CONT-300.qps.gz"}, {"maros", "BOYD2.qps.gz"}, {"maros", "CVXQP1_L.qps.gz"},
      {"maros", "AUG3DQP.qps.gz"}, {"netlib", "dfl001.mps.gz"}};
  auto wanted = [&](const std::string& name) {
    return only.empty() || name.find(only) != std::string::npos;
  };
  for (auto& p : problems) {
    if (!wanted(p.second)) continue;
    Matrix m;
    if (augmented(p.first, p.second, &m)) ms.push_back(std::move(m));
  }
  if (wanted("grid3d-40")) ms.push_back(build("grid3d-40", true, 40 * 40 * 40, laplacian(40, 3)));
  if (wanted("grid3d-50")) ms.push_back(build("grid3d-50", true, 50 * 50 * 50, laplacian(50, 3)));
  if (wanted("grid2d-600")) ms.push_back(build("grid2d-600", true, 600 * 600, laplacian(600, 2)));
  return ms;
}

int threadTable(const std::string& out, int reps, const std::string& only) {
  std::vector<Matrix> ms = threadMatrices(only);

  FILE* csv = fopen((out + "/factor_threads.csv").c_str(), "w");
  FILE* md = fopen((out + "/factor_threads.md").c_str(), "w");
  if (!csv || !md) return 1;
  fprintf(csv, "matrix,n,solver,threads,path,block,gflop,factor_s,gflops,speedup,residual,status\n");
  fprintf(md, "# Threaded factorisation: 1 and 2 threads\n\n"
              "halvex LDL' with numThreads 1 and 2 (the plan that the analysis chooses for "
              "that count), best of %d factors; CHOLMOD's supernodal LL' on the definite "
              "matrices with its BLAS on 1 and 2 threads. Where the 2-thread plan is threaded, a "
              "second halvex row runs that plan on 1 thread: its speedup is the scheduler's "
              "own, apart from the choice of plan. GFLOP counts each plan's own dense "
              "multiply-adds (CHOLMOD: its own count). speedup = time at 1 thread / time at 2. "
              "grid3d-50 is there for the rate of a factorisation that is mostly dense "
              "work, to compare with the dgemm line below. The machine is shared with other "
              "jobs: times are noisy.\n\n"
              "| matrix | n | solver | path 1 / 2 | GFLOP 1 / 2 | factor 1 / 2 (s) | "
              "GFLOP/s 1 / 2 | speedup | residual 2 |\n|---|---|---|---|---|---|---|---|---|\n",
          reps);
  for (const Matrix& m : ms) {
    ThreadRun h1 = runHalvexThreads(m, 1, reps), h2 = runHalvexThreads(m, 2, reps);
    ThreadRun p1;
    if (h2.threaded) p1 = runHalvexThreads(m, 1, reps, h2.nb);
    auto path = [](const ThreadRun& r) {
      return r.threaded ? "threaded nb " + std::to_string(r.nb) : std::string("sequential");
    };
    auto row = [&](const char* solver, const ThreadRun& a, const ThreadRun& b, const std::string& pa,
                   const std::string& pb) {
      double sp = a.factor / b.factor;
      for (int t = 1; t <= 2; t++) {
        const ThreadRun& r = t == 1 ? a : b;
        fprintf(csv, "%s,%d,%s,%d,%s,%d,%.3f,%.4f,%.2f,%.3f,%.2e,%d\n", m.name.c_str(), m.n, solver, t,
                (t == 1 ? pa : pb).c_str(), r.nb, r.flops / 1e9, r.factor, r.flops / r.factor / 1e9,
                sp, r.residual, r.status);
      }
      fprintf(md, "| %s | %d | %s | %s / %s | %.2f / %.2f | %.3f / %.3f | %.2f / %.2f | %.2f | %.1e |\n",
              m.name.c_str(), m.n, solver, pa.c_str(), pb.c_str(), a.flops / 1e9, b.flops / 1e9,
              a.factor, b.factor, a.flops / a.factor / 1e9, b.flops / b.factor / 1e9, sp, b.residual);
      printf("%-12s n %7d %-8s %s / %s  GFLOP %.2f/%.2f  factor %.3f/%.3f s  GFLOP/s %.2f/%.2f  "
             "speedup %.2f  status %d/%d\n",
             m.name.c_str(), m.n, solver, pa.c_str(), pb.c_str(), a.flops / 1e9, b.flops / 1e9,
             a.factor, b.factor, a.flops / a.factor / 1e9, b.flops / b.factor / 1e9, sp, a.status,
             b.status);
      fflush(stdout);
    };
    row("halvex", h1, h2, path(h1), path(h2));
    if (h2.threaded) row("halvex, threaded plan", p1, h2, path(p1) + " on 1", path(h2));
    if (m.definite) {
      ThreadRun c1 = runCholmodThreads(m, 1, reps), c2 = runCholmodThreads(m, 2, reps);
      row("CHOLMOD", c1, c2, "supernodal LL'", "supernodal LL'");
    }
  }
  // Last, so that the BLAS's own threads do not spin beside the rows above.
  double g1 = dgemmRate(1), g2 = dgemmRate(2);
  fprintf(md, "\ndgemm of the BLAS, n = 2000, in the same run: %.1f GFLOP/s on 1 thread, %.1f on "
              "2.\n", g1, g2);
  printf("dgemm: %.1f GFLOP/s on 1 thread, %.1f on 2\n", g1, g2);
  fclose(csv);
  fclose(md);
  return 0;
}

// ---- the static-permutation table ------------------------------------------------------

struct StaticRun {
  int status = 0, pairs = 0, perturbed = 0, steps = -1;
  double fill = 0, factor = 1e300, residual = 0;
};

// One matrix under one static permutation: option 0 none, 1 the general
// matching, 2 the augmented-system matching (numLeadingRows n1), 3 the
// latter with the constrained re-ordering on nested dissection.  Steps:
// the fewest plain refinement steps (no FGMRES) that bring the backward
// error to 1e-14, -1 when 20 do not.
StaticRun runStatic(const Matrix& m, int32_t n1, int option, int reps) {
  StaticRun r;
  hxhost::Host host;
  host.silence(true);
  qvextent(host.kernel());
  QVPool* pool = host.createPool("bench");
  int32_t status = 0;
  LAEnv* env = LA_CreateLAEnv(pool, nullptr, &status);
  LA_SetIntParam(env, LA_PARAM_USE_STATIC_PERM_GEN, option == 1);
  LA_SetIntParam(env, LA_PARAM_USE_STATIC_PERM_AUG, option >= 2);
  LA_SetIntParam(env, LA_PARAM_NUM_LEADING_ROWS, n1);
  if (option == 3) {
    LA_SetIntParam(env, LA_PARAM_USE_CONSTRAINED_ORDERING, 1);
    LA_SetIntParam(env, LA_PARAM_ORDERING_METHOD, 2);
  }
  LASymbolic* sym = nullptr;
  LANumeric* num = nullptr;
  r.status = LA_AnalyzeMatrixLDL(m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(), env,
                                 &sym, &num);
  if (r.status == 0) {
    r.fill = (double)sym->numFactorEntries;
    for (int32_t k = 0; k < m.n; k++) r.pairs += sym->pivots[k] == -1;
    r.pairs /= 2;
    for (int k = 0; k < reps && r.status == 0; k++) {
      auto t0 = std::chrono::steady_clock::now();
      r.status = LA_FactorMatrixLDL(0, m.n, m.colBegin.data(), m.rowIndex.data(), m.value.data(),
                                    env, sym, num);
      r.factor = std::min(r.factor, seconds(t0));
    }
    r.perturbed = sym->numPerturbed;
    std::vector<double> b = rhsFor(m), x, res(m.n);
    LA_SetIntParam(env, LA_PARAM_USE_FGMRES, 0);
    // A factor with replaced pivots refines twice even when asked for none.
    for (int32_t k = r.perturbed > 0 ? 1 : 0; k <= 20 && r.status == 0; k++) {
      LA_SetIntParam(env, LA_PARAM_MAX_REFINE, k);
      x = b;
      LA_SolveMatrixLDL(0, m.colBegin.data(), m.rowIndex.data(), m.value.data(), x.data(), env,
                        sym, num);
      r.residual = LA_CalculateInfNormResidual(m.n, m.colBegin.data(), m.rowIndex.data(),
                                               m.value.data(), x.data(), b.data(), res.data());
      if (r.residual <= 1e-14) {
        r.steps = k;
        break;
      }
    }
  }
  LA_CleanUpLDL(env, &sym, &num);
  LA_FreeLAEnv(&env);
  pool->poolDestroy(pool);
  return r;
}

int staticTable(const std::string& out, int reps) {
  const std::pair<const char*, const char*> problems[] = {
      {"netlib", "25fv47.mps.gz"}, {"netlib", "degen3.mps.gz"}, {"netlib", "pilot.mps.gz"},
      {"netlib", "ship08l.mps.gz"}, {"netlib", "dfl001.mps.gz"}, {"maros", "CVXQP1_M.qps.gz"},
      {"maros", "AUG3DQP.qps.gz"},  {"maros", "CONT-101.qps.gz"}, {"maros", "QSHIP08L.qps.gz"},
      {"maros", "BOYD2.qps.gz"}};
  FILE* csv = fopen((out + "/factor_static.csv").c_str(), "w");
  FILE* md = fopen((out + "/factor_static.md").c_str(), "w");
  if (!csv || !md) return 1;
  const char* names[] = {"none", "general", "augmented", "augmented + constrained"};
  fprintf(csv, "matrix,n,n1,static_perm,status,pairs,perturbed,factor_entries,factor_s,"
               "refine_steps,residual\n");
  fprintf(md, "# Static permutations on the augmented matrices of shared problems\n\n"
              "[-(Q + X^-1 Z) A'; A 1e-8 I] with X^-1 Z spread over 8 decades (as in the thread "
              "table), one thread, best of %d factors. general: useStaticPermGen; augmented: "
              "useStaticPermAug with numLeadingRows = columns; constrained: that with "
              "useConstrainedOrdering on nested dissection. perturbed: pivots replaced by the "
              "factor. steps: fewest plain refinement steps (FGMRES off) to a backward error of "
              "1e-14, - when 20 do not reach it. Status 5 (augmented): an empty constraint row or a "
              "column in no constraint, which the matching of the two blocks refuses.\n\n"
              "| matrix | n | static permutation | status | pairs | perturbed | factor entries | "
              "factor (s) | steps | residual |\n|---|---|---|---|---|---|---|---|---|---|\n",
          reps);
  for (auto& p : problems) {
    Matrix m;
    int32_t n1 = 0;  // the columns lead
    if (!augmented(p.first, p.second, &m, &n1)) continue;
    for (int option = 0; option < 4; option++) {
      StaticRun r = runStatic(m, n1, option, reps);
      std::string steps = r.steps < 0 ? "-" : std::to_string(r.steps);
      fprintf(csv, "%s,%d,%d,%s,%d,%d,%d,%.0f,%.4f,%d,%.2e\n", m.name.c_str(), m.n, n1,
              names[option], r.status, r.pairs, r.perturbed, r.fill,
              r.status ? 0.0 : r.factor, r.steps, r.residual);
      if (r.status)
        fprintf(md, "| %s | %d | %s | %d | | | | | | |\n", m.name.c_str(), m.n, names[option],
                r.status);
      else
        fprintf(md, "| %s | %d | %s | 0 | %d | %d | %.3g | %.4f | %s | %.1e |\n", m.name.c_str(),
                m.n, names[option], r.pairs, r.perturbed, r.fill, r.factor, steps.c_str(),
                r.residual);
      printf("%-10s n %7d %-24s status %d pairs %6d perturbed %5d fill %.3g factor %.4f steps %s "
             "res %.1e\n",
             m.name.c_str(), m.n, names[option], r.status, r.pairs, r.perturbed, r.fill,
             r.status ? 0.0 : r.factor, steps.c_str(), r.residual);
      fflush(stdout);
    }
  }
  fclose(csv);
  fclose(md);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string out = argc > 1 ? argv[1] : ".";
  std::string mode = argc > 2 ? argv[2] : "all";
  int reps = 3;
  setBlasThreads(1);
  // threads [NAME]: the thread table only, on the matrices whose name
  // contains NAME.
  if (mode == "threads") return threadTable(out, 2, argc > 3 ? argv[3] : "");
  // one NAME THREADS [NB [REPS]]: factors one matrix of the thread table
  // REPS times and prints the best time, for profilers; NB above 0 forces
  // the threaded plan of that block edge.
  if (mode == "one" && argc > 4) return profileOne(argv[3], atoi(argv[4]),
                                                   argc > 5 ? atoi(argv[5]) : 0,
                                                   argc > 6 ? atoi(argv[6]) : 3);
  if (mode == "static") return staticTable(out, 2);
  std::vector<Matrix> ms;
  ms.push_back(build("grid2d-300", true, 300 * 300, laplacian(300, 2)));
  ms.push_back(build("grid3d-30", true, 30 * 30 * 30, laplacian(30, 3)));
  ms.push_back(kkt("kkt-rand-40k+20k", 40000, 20000, 4, nullptr, 1));
  Triplets h = laplacian(200, 2);
  ms.push_back(kkt("kkt-grid2d-200+15k", 200 * 200, 15000, 3, &h, 2));
  Triplets h3 = laplacian(22, 3);
  ms.push_back(kkt("kkt-grid3d-22+5k", 22 * 22 * 22, 5000, 3, &h3, 3));

  FILE* csv = fopen((out + "/factor.csv").c_str(), "w");
  FILE* md = fopen((out + "/factor.md").c_str(), "w");
  if (!csv || !md) return 1;
  fprintf(csv, "matrix,n,nnz,cholmod_method,halvex_fill,cholmod_fill,halvex_analyze_s,"
               "cholmod_analyze_s,halvex_factor_s,cholmod_factor_s,factor_ratio,halvex_solve_s,"
               "cholmod_solve_s,halvex_residual,cholmod_residual\n");
  fprintf(md, "# Factorisation: halvex LDL' against CHOLMOD\n\n"
              "One thread each (OPENBLAS_NUM_THREADS=1), best of %d factor and solve runs. "
              "halvex solves include its default FGMRES refinement. factor ratio = halvex / "
              "CHOLMOD (below 1: halvex faster). Fill is entries of L with the diagonal. "
              "CHOLMOD: supernodal LL' on the definite matrices, its simplicial LDL' on the "
              "quasi-definite ones.\n\n"
              "| matrix | n | fill halvex | fill CHOLMOD | analyse h / C (s) | factor h / C (s) | "
              "factor ratio | solve h / C (s) | residual h / C |\n"
              "|---|---|---|---|---|---|---|---|---|\n", reps);
  for (const Matrix& m : ms) {
    Result h = runHalvex(m, reps);
    Result c = runCholmod(m, reps);
    const char* method = m.definite ? "supernodal LL'" : "simplicial LDL'";
    double ratio = h.factor / c.factor;
    fprintf(csv, "%s,%d,%zu,%s,%.0f,%.0f,%.4f,%.4f,%.4f,%.4f,%.3f,%.4f,%.4f,%.2e,%.2e\n",
            m.name.c_str(), m.n, m.rowIndex.size(), method, h.fill, c.fill, h.analyze, c.analyze,
            h.factor, c.factor, ratio, h.solve, c.solve, h.residual, c.residual);
    fprintf(md, "| %s | %d | %.3g | %.3g | %.3f / %.3f | %.3f / %.3f | %.2f | %.4f / %.4f | "
                "%.1e / %.1e |\n",
            m.name.c_str(), m.n, h.fill, c.fill, h.analyze, c.analyze, h.factor, c.factor, ratio,
            h.solve, c.solve, h.residual, c.residual);
    printf("%-22s n %7d  fill %.3g/%.3g  factor %.3f/%.3f ratio %.2f  solve %.4f/%.4f  res %.1e/%.1e  status %d/%d\n",
           m.name.c_str(), m.n, h.fill, c.fill, h.factor, c.factor, ratio, h.solve, c.solve,
           h.residual, c.residual, h.status, c.status);
    fflush(stdout);
  }
  fclose(csv);
  fclose(md);
  if (mode != "all") return 0;
  int rc = threadTable(out, 2, "");
  return rc ? rc : staticTable(out, 2);
}

// GFLOP/s of the module's dense kernels beside OpenBLAS on one thread, at
// square sizes from one block (96) to 2000.  Writes a CSV and a Markdown
// table.  Usage: bench_kernels [output directory] [largest size]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kernels/kernels.h"

extern "C" {
void dgemm_(const char*, const char*, const int*, const int*, const int*, const double*,
            const double*, const int*, const double*, const int*, const double*, double*,
            const int*);
void dsyrk_(const char*, const char*, const int*, const int*, const double*, const double*,
            const int*, const double*, double*, const int*);
void dtrsm_(const char*, const char*, const char*, const char*, const int*, const int*,
            const double*, const double*, const int*, double*, const int*);
char* openblas_get_config(void);
void openblas_set_num_threads(int);
}

namespace {

// CPU time of this thread: the machine is shared, and time spent waiting
// for a core is not the kernel's.
double threadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

// Mean time of one call over a batch of `count` calls.
double batchTime(const std::function<void()>& fn, int count) {
  const double t0 = threadSeconds();
  for (int i = 0; i < count; ++i) fn();
  return (threadSeconds() - t0) / count;
}

// Time of one call: the best of several batches, each long enough (about
// 20 ms) for the CPU clock to be exact, until about `budget` seconds have
// gone.  `reset` runs before every call; its own time is taken off.
double bestTime(const std::function<void()>& reset, const std::function<void()>& call,
                double budget) {
  const auto both = [&] {
    reset();
    call();
  };
  const double once = batchTime(both, 1);
  const int count = std::max(1, (int)(0.02 / std::max(once, 1e-7)));
  double best = 1e30, spent = 0.0;
  for (int t = 0; t < 3 || spent < budget; ++t) {
    const double s = batchTime(both, count);
    best = std::min(best, s);
    spent += s * count;
  }
  double resetTime = 1e30;
  for (int t = 0; t < 3; ++t) resetTime = std::min(resetTime, batchTime(reset, count));
  return best - resetTime;
}

struct Row {
  std::string routine, reference;
  int size;
  double mine, theirs;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string outDir = argc > 1 ? argv[1] : ".";
  const int largest = argc > 2 ? atoi(argv[2]) : 2000;
  openblas_set_num_threads(1);
  std::vector<int> sizes;
  for (int s : {96, 192, 384, 500, 768, 1000, 1536, 2000})
    if (s <= largest) sizes.push_back(s);

  std::mt19937 rng(42);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<Row> rows;
  const double one = 1.0, zero = 0.0, minusOne = -1.0;
  const double budget = 0.4;

  for (int n : sizes) {
    const size_t nn = (size_t)n * n;
    std::vector<double> A(nn), B(nn), C(nn), L(nn), X(nn), X0(nn);
    for (auto& v : A) v = u(rng);
    for (auto& v : B) v = u(rng);
    for (auto& v : X0) v = u(rng);
    // A well-conditioned lower triangle, so that solves stay in range.
    for (int j = 0; j < n; ++j)
      for (int i = 0; i < n; ++i)
        L[i + (size_t)j * n] = i == j ? 1.0 + fabs(u(rng)) : (i > j ? u(rng) / n : 0.0);
    std::vector<double> bufA(96 * 96), bufB(96 * (size_t)n);
    auto none = [] {};
    auto resetX = [&] { memcpy(X.data(), X0.data(), nn * sizeof(double)); };
    auto add = [&](const char* routine, const char* reference, double flops,
                   const std::function<void()>& reset, const std::function<void()>& mine,
                   const std::function<void()>& theirs) {
      // Alternate the two, twice, so that a burst of load on the machine
      // does not fall on one side only.
      double tm = 1e30, tt = 1e30;
      for (int round = 0; round < 2; ++round) {
        tm = std::min(tm, bestTime(reset, mine, budget / 2));
        tt = std::min(tt, bestTime(reset, theirs, budget / 2));
      }
      rows.push_back({routine, reference, n, flops / tm * 1e-9, flops / tt * 1e-9});
      const Row& r = rows.back();
      printf("%-22s %-14s %5d  %7.2f  %7.2f  %5.2f\n", routine, reference, n, r.mine, r.theirs,
             r.mine / r.theirs);
      fflush(stdout);
    };

    add("my_dgemm_NN_0p1", "dgemm NN", 2.0 * n * n * (double)n, none,
        [&] {
          my_dgemm_NN_0p1("N", "N", &n, &n, &n, &one, A.data(), &n, B.data(), &n, &zero,
                          C.data(), &n, bufA.data(), bufB.data());
        },
        [&] {
          dgemm_("N", "N", &n, &n, &n, &one, A.data(), &n, B.data(), &n, &zero, C.data(), &n);
        });
    // Both make a lower triangle of n by n from inner size n: A B^T for the
    // module's kernel, A A^T for the BLAS; the same count of operations.
    add("my_dsyrk2_LNT_1m1", "dsyrk LN", (double)n * (n + 1) * (double)n, none,
        [&] {
          my_dsyrk2_LNT_1m1(&n, &n, A.data(), &n, B.data(), &n, C.data(), &n, bufA.data(),
                            bufB.data());
        },
        [&] { dsyrk_("L", "N", &n, &n, &minusOne, A.data(), &n, &one, C.data(), &n); });
    const double solveFlops = (double)n * n * (double)n;
    add("my_dtrsm_LLNN", "dtrsm LLNN", solveFlops, resetX,
        [&] {
          my_dtrsm_LLNN("L", "L", "N", "N", &n, &n, &one, L.data(), &n, X.data(), &n,
                        bufA.data(), bufB.data());
        },
        [&] { dtrsm_("L", "L", "N", "N", &n, &n, &one, L.data(), &n, X.data(), &n); });
    add("my_dtrsm_LLTN", "dtrsm LLTN", solveFlops, resetX,
        [&] {
          my_dtrsm_LLTN("L", "L", "T", "N", &n, &n, &one, L.data(), &n, X.data(), &n,
                        bufA.data(), bufB.data());
        },
        [&] { dtrsm_("L", "L", "T", "N", &n, &n, &one, L.data(), &n, X.data(), &n); });
    add("my_dtrsm_RLTN", "dtrsm RLTN", solveFlops, resetX,
        [&] {
          my_dtrsm_RLTN("R", "L", "T", "N", &n, &n, &one, L.data(), &n, X.data(), &n,
                        bufA.data(), bufB.data());
        },
        [&] { dtrsm_("R", "L", "T", "N", &n, &n, &one, L.data(), &n, X.data(), &n); });
  }

  const std::string csv = outDir + "/kernels.csv", md = outDir + "/kernels.md";
  FILE* f = fopen(csv.c_str(), "w");
  if (!f) {
    perror(csv.c_str());
    return 1;
  }
  fprintf(f, "routine,reference,size,halvex_gflops,openblas_gflops,ratio\n");
  for (const Row& r : rows)
    fprintf(f, "%s,%s,%d,%.3f,%.3f,%.3f\n", r.routine.c_str(), r.reference.c_str(), r.size,
            r.mine, r.theirs, r.mine / r.theirs);
  fclose(f);

  f = fopen(md.c_str(), "w");
  if (!f) {
    perror(md.c_str());
    return 1;
  }
  fprintf(f, "# Dense kernels against OpenBLAS\n\n");
  fprintf(f, "Single thread on both sides (OPENBLAS_NUM_THREADS=1). GFLOP/s from the thread's CPU "
             "time, best of batches of calls; square operands of the given size.\n\n"
             "OpenBLAS: `%s`.\n\n",
          openblas_get_config());
  fprintf(f, "The machine (2 cores) is shared by other jobs: CPU time leaves out waits for a "
             "core but not the contention for caches and memory, so single numbers are noisy; "
             "compare ratios rather than absolute rates.\n\n");
  fprintf(f, "| routine | reference | size | halvex GFLOP/s | OpenBLAS GFLOP/s | ratio |\n");
  fprintf(f, "|---|---|---:|---:|---:|---:|\n");
  for (const Row& r : rows)
    fprintf(f, "| `%s` | %s | %d | %.2f | %.2f | %.2f |\n", r.routine.c_str(),
            r.reference.c_str(), r.size, r.mine, r.theirs, r.mine / r.theirs);
  fclose(f);
  printf("wrote %s and %s\n", csv.c_str(), md.c_str());
  return 0;
}

#!/bin/sh
# Factorisation benchmark: halvex's LDL' against SuiteSparse CHOLMOD.
# Installs Debian's libsuitesparse-dev for the comparison if it is missing
# (the library itself never depends on it), builds bench_factor and writes
# bench/results/factor.csv and bench/results/factor.md.  One BLAS thread on
# both sides, so that the comparison is of the factorisations.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench-factor}

if [ ! -f /usr/include/suitesparse/cholmod.h ]; then
  if [ "$(id -u)" = 0 ]; then
    apt-get install -y libsuitesparse-dev
  else
    sudo apt-get install -y libsuitesparse-dev
  fi
fi

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DHALVEX_BENCH=ON -DHALVEX_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target bench_factor
mkdir -p "$ROOT/bench/results"
OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1 "$BUILD/bench/bench_factor" "$ROOT/bench/results"

#!/bin/sh
# Factorisation benchmark: halvex's LDL' against SuiteSparse CHOLMOD.
# Installs Debian's libsuitesparse-dev for the comparison if it is missing
# (the library itself never depends on it), builds bench_factor and writes
# to bench/results:
#   factor.csv, factor.md                  one thread each, against CHOLMOD
#   factor_threads.csv, factor_threads.md  1 and 2 threads
#   factor_static.csv, factor_static.md    with and without static permutations
# The argument picks the tables: all (default), peers, threads or static.  The BLAS
# starts on one thread; the thread table sets it per row itself.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench-factor}
MODE=${1:-all}

if [ ! -f /usr/include/suitesparse/cholmod.h ]; then
  if [ "$(id -u)" = 0 ]; then
    apt-get -o DPkg::Lock::Timeout=600 install -y libsuitesparse-dev
  else
    sudo apt-get -o DPkg::Lock::Timeout=600 install -y libsuitesparse-dev
  fi
fi

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DHALVEX_BENCH=ON -DHALVEX_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target bench_factor
mkdir -p "$ROOT/bench/results"
OMP_NUM_THREADS=1 "$BUILD/bench/bench_factor" "$ROOT/bench/results" "$MODE"

#!/bin/sh
# Ordering benchmark: nd_amd and nd_amf against SuiteSparse AMD.
# Installs Debian's libsuitesparse-dev for the comparison if it is missing
# (the library itself never depends on it), builds bench_ordering and writes
# bench/results/ordering.csv and bench/results/ordering.md.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench-ordering}
DATA=${DATA:-/work/shared/data}

if [ ! -f /usr/include/suitesparse/amd.h ]; then
  if [ "$(id -u)" = 0 ]; then
    apt-get install -y libsuitesparse-dev
  else
    sudo apt-get install -y libsuitesparse-dev
  fi
fi

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DHALVEX_BENCH=ON -DHALVEX_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target bench_ordering
mkdir -p "$ROOT/bench/results"
"$BUILD/bench/bench_ordering" "$ROOT/bench/results" "$DATA"

#!/bin/sh
# Ordering benchmark: nd_amd, nd_amf and nested dissection against
# SuiteSparse AMD and METIS 5.1.  Installs Debian's libsuitesparse-dev and
# libmetis-dev for the comparison if they are missing (the library itself
# never depends on them), builds bench_ordering and writes
# bench/results/ordering.csv and bench/results/ordering.md.
set -e
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-bench-ordering}
DATA=${DATA:-$ROOT/../shared/data}

need=""
[ -f /usr/include/suitesparse/amd.h ] || need="$need libsuitesparse-dev"
[ -f /usr/include/metis.h ] || need="$need libmetis-dev"
if [ -n "$need" ]; then
  if [ "$(id -u)" = 0 ]; then
    apt-get -o DPkg::Lock::Timeout=600 install -y $need
  else
    sudo apt-get -o DPkg::Lock::Timeout=600 install -y $need
  fi
fi

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DHALVEX_BENCH=ON -DHALVEX_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target bench_ordering
mkdir -p "$ROOT/bench/results"
"$BUILD/bench/bench_ordering" "$ROOT/bench/results" "$DATA"

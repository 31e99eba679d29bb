#!/usr/bin/env bash
# Dense kernels against OpenBLAS, one thread each.  Writes
# bench/results/kernels.csv and bench/results/kernels.md.
# Usage: bench/run_kernels.sh [largest size, default 2000]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
root="$(dirname "$here")"
build="${HALVEX_BENCH_BUILD:-$root/build-bench}"

if ! ls /usr/lib/x86_64-linux-gnu/libopenblas.so >/dev/null 2>&1 &&
   ! ldconfig -p | grep -q libopenblas; then
  echo "installing libopenblas-dev"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq libopenblas-dev
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVEX_BENCH=ON \
  -DHALVEX_TESTS=OFF >/dev/null
cmake --build "$build" -j2 --target bench_kernels

mkdir -p "$here/results"
OPENBLAS_NUM_THREADS=1 "$build/bench/bench_kernels" "$here/results" "${1:-2000}"

#!/usr/bin/env bash
# The libFuzzer harnesses (reader, QP entry, LP entry) in a clang build of
# their own (build-fuzz beside build), each for a fixed number of inputs:
# 1e7 for the reader and 1e6 for each entry unless HALVEX_FUZZ_READER_RUNS or
# HALVEX_FUZZ_ENTRY_RUNS say otherwise.  A finding fails the run and leaves
# its input as build-fuzz/fuzz/crash-* (or leak-*, timeout-*); replay it with
# build-fuzz/tests/fuzz/HARNESS FILE.  Extra arguments go to ctest, e.g.
# -R fuzz_reader.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_FUZZ_BUILD_DIR:-$root/build-fuzz}"
"$root/scripts/setup-deps.sh" fuzz
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DHALVEX_FUZZ=ON -DHALVEX_TESTS=OFF \
  -DHALVEX_FUZZ_READER_RUNS="${HALVEX_FUZZ_READER_RUNS:-10000000}" \
  -DHALVEX_FUZZ_ENTRY_RUNS="${HALVEX_FUZZ_ENTRY_RUNS:-1000000}" >/dev/null
cmake --build "$build" -j2 --target fuzz_reader fuzz_qprecord fuzz_lprecord
cd "$build"
ctest --output-on-failure -L fuzz "$@"

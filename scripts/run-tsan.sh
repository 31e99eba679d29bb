#!/usr/bin/env bash
# The threaded factorisation's tests under ThreadSanitizer, in a build of
# their own (build-tsan beside build).  Any report fails the run.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_TSAN_BUILD_DIR:-$root/build-tsan}"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVEX_TSAN=ON >/dev/null
cmake --build "$build" -j2 --target halvex_unit halvex
cd "$build"
ctest --output-on-failure -L tsan "$@"

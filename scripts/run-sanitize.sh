#!/usr/bin/env bash
# The default test suite and the quick test sets under AddressSanitizer (leaks
# included) and UndefinedBehaviorSanitizer, in a build of their own
# (build-asan beside build, HALVEX_SANITIZE).  Any report fails its test.
# Extra arguments go to ctest, e.g. -R QPDriver.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_SANITIZE_BUILD_DIR:-$root/build-asan}"
"$root/scripts/setup-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALVEX_SANITIZE=ON >/dev/null
cmake --build "$build" -j2
cd "$build"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
# The Python tests load the module into an interpreter built without the
# sanitizers, and the install test reads paths that a debug build keeps:
# neither can run here.
ctest --output-on-failure -j2 -L sanitize -LE "long|python|install" "$@"

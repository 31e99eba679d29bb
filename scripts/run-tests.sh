#!/usr/bin/env bash
# Builds everything and runs the default test suite (the long suites have
# their own labels and scripts).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh"
cd "$build"
ctest --output-on-failure -j"$(nproc)" -LE 'long' "$@"

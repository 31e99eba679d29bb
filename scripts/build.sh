#!/usr/bin/env bash
# Configures and builds into build/ (or $HALVEX_BUILD_DIR).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_BUILD_DIR:-$root/build}"
"$root/scripts/setup-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"

#!/usr/bin/env bash
# Builds everything and runs the main job on the bundled example.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh"
"$build/halvex_demo" "$root/examples/onerow.txt"

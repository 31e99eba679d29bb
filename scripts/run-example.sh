#!/usr/bin/env bash
# Builds everything and runs the main job: the halvex command on the bundled
# examples (an LP and a QP), then the one-row QP of the instance's qpReconQP.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${HALVEX_BUILD_DIR:-$root/build}"
"$root/scripts/build.sh"
for example in "$root/examples/small.mps" "$root/examples/small.qps"; do
  "$build/halvex" solve "$example"
  echo
done
"$build/halvex_demo" "$root/examples/onerow.txt"

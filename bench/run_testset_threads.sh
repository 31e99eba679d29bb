#!/bin/sh
# Whole solves of the larger shared problems at 1 and 2 factorisation
# threads, and at 2 with OpenBLAS asked for 1 and for 2 threads; writes
# bench/results/testset_threads.{csv,md}.
#
#   bench/run_testset_threads.sh [BUILD_DIR] [REPS] [SET/NAME ...]
#
# BUILD_DIR holds the built `halvex` command (default build); the sets are
# read from ../shared/data beside the repository (HALVEX_DATA overrides).
set -e
here="$(cd "$(dirname "$0")" && pwd)"
repo="$(dirname "$here")"
build="${1:-$repo/build}"
reps="${2:-1}"
if [ $# -ge 2 ]; then shift 2; else shift $#; fi
data="${HALVEX_DATA:-$repo/../shared/data}"
if [ ! -x "$build/halvex" ]; then
  echo "no halvex command in $build: build the target halvex_cli first" >&2
  exit 2
fi
mkdir -p "$here/results"
/usr/bin/python3 "$here/testset_threads.py" --halvex "$build/halvex" --data "$data" \
  --reps "$reps" --out "$here/results/testset_threads" "$@"

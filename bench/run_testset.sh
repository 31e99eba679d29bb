#!/bin/sh
# Runs both shared test sets through halvex, Clp's barrier and HiGHS, and
# writes bench/results/testset_<set>.{csv,md}; the LP set also against
# HiGHS's interior point with crossover (highsipm), halvex crossing over.
#
#   bench/run_testset.sh [BUILD_DIR] [TIME_LIMIT_SECONDS] [SET ...]
#
# BUILD_DIR holds the built `halvex` command (default build); the sets are
# read from ../shared/data beside the repository (HALVEX_DATA overrides).
set -e
here="$(cd "$(dirname "$0")" && pwd)"
repo="$(dirname "$here")"
build="${1:-$repo/build}"
limit="${2:-300}"
if [ $# -ge 2 ]; then shift 2; else shift $#; fi
sets="${*:-netlib maros}"
data="${HALVEX_DATA:-$repo/../shared/data}"

# The peers come from Debian: the clp command, and scipy (with HiGHS inside)
# for Debian's own python3.
py=/usr/bin/python3
if ! command -v clp >/dev/null 2>&1 || ! "$py" -c 'import scipy.optimize' 2>/dev/null; then
  apt-get update
  DEBIAN_FRONTEND=noninteractive apt-get install -y coinor-clp python3-scipy
fi
if [ ! -x "$build/halvex" ]; then
  echo "no halvex command in $build: build the target halvex_cli first" >&2
  exit 2
fi
mkdir -p "$here/results"
for set in $sets; do
  solvers=halvex,clp,highs
  [ "$set" = netlib ] && solvers=halvex,clp,highs,highsipm
  "$py" "$here/testset.py" --halvex "$build/halvex" --data "$data" --set "$set" \
    --time-limit "$limit" --solvers "$solvers" --out "$here/results/testset_$set"
done

#!/usr/bin/env bash
# Installs the Debian packages the build needs, if any is missing; with the
# argument "fuzz" also those of the fuzzing build (scripts/run-fuzz.sh).
set -euo pipefail
packages=(cmake g++ make libopenblas-dev libgtest-dev zlib1g-dev libsuitesparse-dev python3
  pkg-config)
# The Python package, its tests, the batch example on Dask and the plots.
packages+=(python3-dev pybind11-dev python3-numpy python3-scipy python3-pytest
           python3-distributed python3-matplotlib)
[ "${1:-}" = fuzz ] && packages+=(clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null

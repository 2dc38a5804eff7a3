#!/usr/bin/env bash
# Installs the Debian 12 packages sl3d needs to build, test and benchmark,
# skipping the update and install when everything is already there.
set -euo pipefail

packages=(
  make cmake g++ pkg-config python3 python3-opencv
  libopencv-dev libeigen3-dev
  libgtest-dev libbenchmark-dev
  python3-dev pybind11-dev python3-pybind11 python3-numpy python3-pytest
  libdeflate-dev
  gcovr                      # make coverage
  clang libclang-rt-14-dev   # make check: sanitizers and libFuzzer
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}" >&2
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"

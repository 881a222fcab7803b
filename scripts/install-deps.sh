#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Quick when everything is already there.
set -euo pipefail

packages=(cmake ninja-build g++ ccache pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
          liblz4-dev libssl-dev clang-14 clang-format clang-tidy libfuzzer-14-dev libclang-rt-14-dev
          python3-dev pybind11-dev python3-numpy python3-matplotlib python3-pytest)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

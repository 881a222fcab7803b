#!/usr/bin/env bash
# Builds everything and runs the whole test suite: the optimised build with
# warnings as errors, the concurrency tests under ThreadSanitizer and the
# storage tests under AddressSanitizer. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

echo "== optimised build, all tests =="
cmake --preset ci >/dev/null
cmake --build --preset ci
ctest --preset ci

echo "== ThreadSanitizer: engine and virtual channels =="
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan

echo "== AddressSanitizer: storage and replay =="
cmake --preset asan >/dev/null
cmake --build --preset asan
ctest --preset asan

#!/usr/bin/env bash
# Builds everything and runs the whole test suite: the optimised build with
# warnings as errors, then every suite again under ThreadSanitizer and under
# AddressSanitizer with UndefinedBehaviorSanitizer, and a short fuzzing run of
# the recording readers. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

echo "== optimised build, all tests =="
cmake --preset ci >/dev/null
cmake --build --preset ci
ctest --preset ci

echo "== ThreadSanitizer: all suites =="
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan

echo "== AddressSanitizer and UndefinedBehaviorSanitizer: all suites =="
cmake --preset asan >/dev/null
cmake --build --preset asan
ctest --preset asan

echo "== fuzzing the recording readers =="
bash scripts/fuzz.sh 30

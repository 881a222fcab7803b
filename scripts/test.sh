#!/usr/bin/env bash
# Builds everything and runs the whole test suite: the format check, the
# optimised GCC build with warnings as errors and all tests, clang-tidy over
# the library, every suite again under ThreadSanitizer (GCC) and under
# AddressSanitizer with UndefinedBehaviorSanitizer (clang, warnings as errors),
# and a short fuzzing run of the recording readers. Installs what is missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

echo "== format =="
bash scripts/check-format.sh

echo "== optimised build (GCC), all tests =="
cmake --preset ci >/dev/null
cmake --build --preset ci
ctest --preset ci

echo "== clang-tidy =="
bash scripts/tidy.sh build/ci

echo "== ThreadSanitizer: all suites =="
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan

echo "== AddressSanitizer and UndefinedBehaviorSanitizer (clang): all suites =="
cmake --preset asan >/dev/null
cmake --build --preset asan
ctest --preset asan

echo "== fuzzing the recording readers =="
bash scripts/fuzz.sh 30

#!/usr/bin/env bash
# Fails if any C++ file that git knows differs from what clang-format makes
# of it (.clang-format); `clang-format -i FILE` mends one.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -co --exclude-standard -- '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

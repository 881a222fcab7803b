#!/usr/bin/env bash
# Builds the library and runs the demo: record an emulated test signal with a
# replay tagger, then replay the recording and show what it holds.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev --target demo
build/dev/demo "$@"

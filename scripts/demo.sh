#!/usr/bin/env bash
# Builds the library (and its Python package) and runs the demo: a simulated
# instrument measured, recorded and replayed.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset dev >/dev/null
targets=(demo)
# The Python package too, so that `PYTHONPATH=build/dev/python /usr/bin/python3` finds it.
if cmake --build --preset dev --target help | grep -q '^_chronotick:'; then
  targets+=(_chronotick)
fi
cmake --build --preset dev --target "${targets[@]}"
build/dev/demo "$@"

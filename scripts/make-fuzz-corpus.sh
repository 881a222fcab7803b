#!/usr/bin/env bash
# Remakes the fuzz harnesses' seed corpus in fuzz/corpus/ with the library's
# own writer (fuzz/MakeCorpus.cpp, built in the fuzz preset).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
export CCACHE_BASEDIR="$PWD"
cmake --preset fuzz >/dev/null
nice -n 10 cmake --build --preset fuzz -j2 --target ct_fuzz_corpus

rm -rf fuzz/corpus
build/fuzz/fuzz/ct_fuzz_corpus fuzz/corpus
du -sh fuzz/corpus

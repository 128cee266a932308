#!/usr/bin/env bash
# Builds and runs the whole test suite: the suite under ASan+UBSan (clang, which also
# builds the fuzzers with coverage) and then under TSan (g++), then the fuzzers over
# their seed corpora for a short while. Warnings are errors.
# Usage: scripts/test.sh [preset ...]   (default: asan-ubsan tsan; a fuzzer run follows
# the asan-ubsan build). For one folder or test while working, see scripts/check.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

presets=("$@")
((${#presets[@]})) || presets=(asan-ubsan tsan)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "== $preset"
  start=$SECONDS
  cmake --preset "$preset" -DTAVIX_WERROR=ON >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: built in $((SECONDS - start)) s"
  start=$SECONDS
  ctest --preset "$preset" -j "$jobs" --timeout 300
  echo "== $preset: tested in $((SECONDS - start)) s"
  if [[ -d build/$preset/fuzz ]]; then
    start=$SECONDS
    bash scripts/run-fuzzers.sh "build/$preset"
    echo "== $preset: fuzzed in $((SECONDS - start)) s"
  fi
done

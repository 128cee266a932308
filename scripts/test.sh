#!/usr/bin/env bash
# Builds and runs the whole test suite: the default build, then the same suite under
# ASan+UBSan and under TSan, then the fuzzers over their seed corpora for a short while.
# Usage: scripts/test.sh [preset ...]   (default: debug asan-ubsan tsan fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

presets=("$@")
((${#presets[@]})) || presets=(debug asan-ubsan tsan fuzz)
jobs=$(nproc)

for preset in "${presets[@]}"; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  if [[ $preset == fuzz ]]; then
    bash scripts/run-fuzzers.sh "build/$preset"
  else
    ctest --preset "$preset" -j "$jobs" --timeout 300
  fi
done

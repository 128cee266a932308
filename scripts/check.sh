#!/usr/bin/env bash
# The inner loop: rebuilds one build incrementally and runs the tests of one folder of
# tests/ or those a name filter selects. scripts/test.sh stays the gate before a commit.
# Usage: scripts/check.sh [-p preset] [folder | gtest filter | e2e] ...
#   scripts/check.sh gateway                 the tests in tests/gateway/
#   scripts/check.sh 'ToolArguments*' mcp    a name filter and a folder
#   scripts/check.sh -p asan-ubsan runtime   the same under ASan+UBSan (default: debug)
set -euo pipefail
cd "$(dirname "$0")/.."
preset=debug
if [[ ${1:-} == -p ]]; then preset=$2; shift 2; fi
build=build/$preset
[[ -f $build/build.ninja ]] || cmake --preset "$preset" >/dev/null
cmake --build "$build" -j "$(nproc)"

# A folder's tests are the suites its sources define; a parameterised suite runs under
# its instantiation's prefix.
filters=() e2e=0
for arg in "${@:-*}"; do
  if [[ $arg == e2e ]]; then
    e2e=1
  elif [[ -d tests/$arg && $arg != . ]]; then
    while read -r suite; do
      filters+=("$suite.*" "*/$suite.*")
    done < <(grep -rhoE '^TEST(_F|_P)?\(\w+' "tests/$arg" | sed -E 's/.*\(//' | sort -u)
  else
    filters+=("$arg")
  fi
done
status=0
if ((${#filters[@]})); then
  (IFS=:; "$build/tests/tavix_tests" --gtest_brief=1 --gtest_filter="${filters[*]}") || status=$?
fi
if ((e2e)); then
  ctest --test-dir "$build" -R 'e2e' --output-on-failure || status=$?
fi
exit $status

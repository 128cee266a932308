#!/usr/bin/env bash
# Runs every fuzzer of a build for a short while, starting from its seed corpus, as many
# at a time as there are cores.
# Usage: scripts/run-fuzzers.sh BUILD_DIR [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=${2:-${TAVIX_FUZZ_SECONDS:-30}}
declare -A corpus=([ContractsFuzzer]=contracts [FramingReaderFuzzer]=framing_reader [JSONRPCIntakeFuzzer]=jsonrpc_intake
                   [JSONSeamFuzzer]=json_seam [LogValueFuzzer]=log_value [RuntimeRequestFuzzer]=runtime_request
                   [AppshotLineFuzzer]=appshot_line)

# Runs one fuzzer in a scratch copy of its corpus; prints its last line, or its log's end
# when it found something.
fuzz_one() {
  local fuzzer=$1 work
  work=$(mktemp -d)
  cp "fuzz/corpus/${corpus[$fuzzer]}"/* "$work/"
  if ! "$build/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=8192 -print_final_stats=0 \
      "$work" >"$work.log" 2>&1; then
    tail -60 "$work.log"
    echo "fuzz: $fuzzer FAILED"
    return 1
  fi
  echo "fuzz: $fuzzer for ${seconds}s: $(tail -1 "$work.log")"
  rm -rf "$work" "$work.log"
}

pids=() names=() failed=0
for fuzzer in "${!corpus[@]}"; do
  if ((${#pids[@]} >= $(nproc))); then
    wait "${pids[0]}" || { failed=$((failed + 1)); echo "fuzz: ${names[0]} failed"; }
    pids=("${pids[@]:1}") names=("${names[@]:1}")
  fi
  fuzz_one "$fuzzer" & pids+=($!) names+=("$fuzzer")
done
for i in "${!pids[@]}"; do
  wait "${pids[$i]}" || { failed=$((failed + 1)); echo "fuzz: ${names[$i]} failed"; }
done
echo "fuzz: $((${#corpus[@]} - failed)) passed, $failed failed"
((failed == 0))

#!/usr/bin/env bash
# Runs every fuzzer of a fuzz build for a short while, starting from its seed corpus.
# Usage: scripts/run-fuzzers.sh BUILD_DIR [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=${2:-${TAVIX_FUZZ_SECONDS:-30}}
declare -A corpus=([ContractsFuzzer]=contracts [FramingReaderFuzzer]=framing_reader [JSONRPCIntakeFuzzer]=jsonrpc_intake
                   [JSONSeamFuzzer]=json_seam [LogValueFuzzer]=log_value [RuntimeRequestFuzzer]=runtime_request
                   [AppshotLineFuzzer]=appshot_line)
for fuzzer in "${!corpus[@]}"; do
  work=$(mktemp -d)
  cp "fuzz/corpus/${corpus[$fuzzer]}"/* "$work/"
  echo "fuzz: $fuzzer for ${seconds}s"
  if ! "$build/fuzz/$fuzzer" -max_total_time="$seconds" -max_len=8192 -print_final_stats=0 \
      "$work" >"$work.log" 2>&1; then
    tail -60 "$work.log"
    echo "fuzz: $fuzzer FAILED"
    exit 1
  fi
  tail -1 "$work.log"
  rm -rf "$work" "$work.log"
done
echo "fuzz: ${#corpus[@]} passed, 0 failed"

#!/usr/bin/env bash
# Builds the bridge (release) and runs a real MCP session against it with the official
# client, printing the exchange and then the bridge's log file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target TavixComputerUseBridge >/dev/null
rm -rf build/release/demo-logs
exec node tests/demo/session.mjs "$PWD/build/release/src/bridge/TavixComputerUseBridge" \
  "$PWD/build/release/demo-logs"

#!/usr/bin/env bash
# Builds the bridge (release) and runs a real MCP session against it with the official
# client, printing the exchange. The bridge's own log lines go to standard error.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target TavixComputerUseBridge >/dev/null
exec node tests/demo/session.mjs "$PWD/build/release/src/bridge/TavixComputerUseBridge"

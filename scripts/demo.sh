#!/usr/bin/env bash
# Builds the bridge and the runtime simulator (release), starts a private session bus, and
# runs a real MCP session against the bridge with the official client: the bridge
# launches the simulator, lists its apps, reads, clicks and types in its Notes window,
# saves a screenshot and prints the whole exchange, then the bridge's log file.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target TavixComputerUseBridge TavixComputerUseRuntimeSimulator \
  >/dev/null
out=$PWD/build/release/demo
rm -rf "$out"
mkdir -p "$out"

# A bus of the demo's own: nothing touches the user's session, and its end ends the
# simulator the bridge started on it.
{ read -r address; read -r bus_pid; } < <(dbus-daemon --session --fork --print-address=1 --print-pid=1)
trap 'kill "$bus_pid" 2>/dev/null || true' EXIT
DBUS_SESSION_BUS_ADDRESS=$address node tests/demo/session.mjs \
  "$PWD/build/release/src/bridge/TavixComputerUseBridge" \
  "$PWD/build/release/src/runtime/TavixComputerUseRuntimeSimulator" "$out/logs" "$out"

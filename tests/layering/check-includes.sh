#!/usr/bin/env bash
# Fails when a source folder includes a header from a folder above it. Dependencies point
# one way: bridge -> mcp -> gateway, and every layer may use logging, config, support and
# the platform interfaces; logging -> config -> support. Only platform/<os>/ holds the
# implementations of the platform interfaces, and nothing else includes them.
# Usage: check-includes.sh SRC_DIR
set -euo pipefail
src=$1
declare -A allowed=(
  [bridge]="bridge mcp gateway logging config support platform"
  [mcp]="mcp gateway logging config support platform"
  [gateway]="gateway logging config support platform"
  [logging]="logging config support platform"
  [config]="config support platform"
  [support]="support"
  [platform]="platform"
)
failures=0
for folder in "${!allowed[@]}"; do
  while IFS=: read -r file _ include; do
    target=${include#*\"}
    target=${target%%/*}
    if [[ " ${allowed[$folder]} " != *" $target "* ]] || [[ $include == *'"platform/linux/'* ]]; then
      echo "layering: $file includes $include" >&2
      failures=$((failures + 1))
    fi
  done < <(grep -rn '^#include "' "$src/$folder" --include='*.h' --include='*.cpp' || true)
done
echo "layering: $failures includes against the direction of the layers"
((failures == 0))

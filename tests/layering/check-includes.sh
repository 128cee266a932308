#!/usr/bin/env bash
# Fails when a source folder includes a header from a folder above it. Dependencies point
# one way: bridge -> mcp -> gateway -> client -> contracts, and every layer may use logging, config, support and
# the platform interfaces; logging -> config -> support. Only platform/<os>/ holds the
# implementations of the platform interfaces, and nothing else includes them, except the
# runtime simulator, a Linux program that shares the runtime bus's wire helpers. A folder of
# src/ that this table does not know fails too, so that a new layer states its place.
# Usage: check-includes.sh SRC_DIR
set -euo pipefail
src=$1
declare -A allowed=(
  [bridge]="bridge mcp gateway client contracts logging config support platform"
  [mcp]="mcp gateway client contracts logging config support platform"
  [gateway]="gateway client contracts logging config support platform"
  [client]="client contracts logging config support platform"
  [contracts]="contracts support"
  [logging]="logging config support platform"
  [config]="config support platform"
  [support]="support"
  [platform]="platform"
  [runtime]="runtime contracts logging config support platform"
)
failures=0
fail() { echo "layering: $1" >&2; failures=$((failures + 1)); }
for dir in "$src"/*/; do
  folder=$(basename "$dir")
  [[ -n ${allowed[$folder]+set} ]] || { fail "src/$folder is not in the table of layers"; continue; }
  while IFS=: read -r file _ include; do
    # The folder an include names first. Only the project's own folders are layers; system
    # and library headers are not. (Matched in the shell: a process per include is slow.)
    [[ $include =~ include[[:space:]]*[\"\<]([^/\">]*) && -n ${allowed[${BASH_REMATCH[1]}]+set} ]] || continue
    if [[ " ${allowed[$folder]} " != *" ${BASH_REMATCH[1]} "* ]] ||
       { [[ $include =~ [\"\<]platform/[a-z]+/ ]] && [[ $file != "$src/platform/"* && $file != "$src/runtime/"* ]]; }; then
      fail "$file includes ${include#"${include%%#*}"}"
    fi
  done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]' "$dir" --include='*.h' --include='*.cpp' || true)
done
echo "layering: $failures includes against the direction of the layers"
((failures == 0))

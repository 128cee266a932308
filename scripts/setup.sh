#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need on a Debian machine.
# Idempotent and quiet when everything is already there.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)

packages=(
  build-essential cmake ninja-build pkg-config clang clang-14 libclang-rt-14-dev
  nlohmann-json3-dev libsimdjson-dev libexpected-dev libsystemd-dev libplist-dev uuid-dev zlib1g-dev libpng-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  dbus-daemon nodejs npm util-linux
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node and npm may come from outside Debian's packages on some machines; a working
# pair on PATH is as good as the packages.
if command -v node >/dev/null && command -v npm >/dev/null; then
  filtered=()
  for p in "${missing[@]}"; do [[ $p == nodejs || $p == npm ]] || filtered+=("$p"); done
  missing=("${filtered[@]+"${filtered[@]}"}")
fi
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}" >&2
  sudo_cmd=(); [[ $(id -u) == 0 ]] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq >/dev/null
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
fi

# The official MCP client and server SDK, pinned by the lock file.
for dir in tests; do
  [[ -f $here/$dir/package-lock.json ]] || continue
  stamp=$here/$dir/node_modules/.package-lock.json
  if [[ ! -f $stamp || $here/$dir/package-lock.json -nt $stamp ]]; then
    (cd "$here/$dir" && npm ci --silent --no-audit --no-fund >/dev/null)
  fi
done

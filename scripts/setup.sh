#!/usr/bin/env bash
# Installs every Debian package the project needs; does nothing when all are present.
set -euo pipefail
pkgs=(
  build-essential cmake ninja-build pkg-config
  libjsoncpp-dev libboost-dev libsqlite3-dev libpam0g-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  sqlite3 wrk util-linux passwd procps psmisc curl nodejs
)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

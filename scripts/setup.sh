#!/usr/bin/env bash
# Installs every Debian package the project needs; does nothing when all are present.
set -euo pipefail
pkgs=(
  build-essential cmake ninja-build pkg-config
  libjsoncpp-dev libboost-dev libsqlite3-dev libpam0g-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  sqlite3 wrk util-linux passwd procps psmisc curl nodejs chromium
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
# The page's browser tests: playwright-core and axe-core, exactly as ui/package-lock.json
# pins them; again only when the lock file changed since the last install. The browser
# is Debian's chromium (above); none is ever downloaded.
# Debian's nodejs comes without npm; some builds of nodejs bring their own.
if ! command -v npm >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends npm
fi
here=$(cd "$(dirname "$0")/.." && pwd)
if [ -f "$here/ui/package-lock.json" ] && ! cmp -s "$here/ui/package-lock.json" "$here/ui/node_modules/.orva-lock" 2>/dev/null; then
  echo "setup: npm ci in ui/"
  (cd "$here/ui" && npm ci --no-audit --no-fund --loglevel=error && cp package-lock.json node_modules/.orva-lock)
fi

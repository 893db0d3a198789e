#!/usr/bin/env bash
# stage.sh BUILD ROOT [--demo]: installs a complete system root at ROOT (programs,
# libraries, modules and descriptors, UI files, texts, default configuration). With
# --demo, the demo data of data/demo is laid over it.
set -euo pipefail
build=${1:?build folder}
root=${2:?system root}
demo=${3:-}
here=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root"
root=$(cd "$root" && pwd)
cmake --install "$build" --prefix "$root" >/dev/null
mkdir -p "$root"/{etc/orva,var/lib/orva/packages,run/orva,usr/orva/orvaman/webman/texts}
chmod 0755 "$root/run/orva"
chmod 0700 "$root/var/lib/orva"  # the task store and sessions: root's alone
if [ "$demo" = "--demo" ] && [ -x "$here/data/demo/stage-demo.sh" ]; then
  "$here/data/demo/stage-demo.sh" "$build" "$root"
fi
echo "staged system root: $root"

#!/usr/bin/env bash
# run.sh BUILD: runs every benchmark; a benchmark folder with its own run.sh runs that.
set -euo pipefail
build=$(cd "${1:?build folder}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
for dir in "$here"/*/; do
  name=$(basename "$dir")
  echo "== $name"
  if [ -x "$dir/run.sh" ]; then
    "$dir/run.sh" "$build"
  elif [ -x "$build/bin/bench_$name" ]; then
    "$build/bin/bench_$name"
  fi
done

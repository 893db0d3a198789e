#!/usr/bin/env bash
# ping.sh BUILD: requests per second and latency of a trivial web API method through
# orva-webapid (1 worker, then one per core), beside the ceiling server answering a
# fixed reply. Uses wrk with keep-alive; DURATION and CONNECTIONS may be set.
set -euo pipefail
build=$(cd "${1:?build folder}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
duration=${DURATION:-10s}
conns=${CONNECTIONS:-32}
cores=$(nproc)
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/setup.sh installs it)"; exit 1; }
for f in bin/orva-webapid bin/bench_server_ceiling lib/webapi/ORVA.API.Auth.so \
         tests/server/modules/orva_server_test_module.so; do
  [ -e "$build/$f" ] || { echo "missing $build/$f: build the targets orva-webapid bench_server_ceiling server_test"; exit 1; }
done

root=$(mktemp -d /tmp/orva-bench-XXXXXX)
pid=
cleanup() {
  [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT
mkdir -p "$root"/usr/orva/lib/webapi "$root"/usr/orva/orvaman/webman/texts/en "$root"/etc/orva
ln -s "$build/lib/webapi/ORVA.API.Auth.so" "$build/lib/webapi/ORVA.API.Auth.json" "$root/usr/orva/lib/webapi/"
ln -s "$build/tests/server/modules/orva_server_test_module.so" "$root/usr/orva/lib/webapi/ORVA.Test.so"
ln -s "$here/../../tests/server/test_module.json" "$root/usr/orva/lib/webapi/ORVA.Test.json"

measure() {  # NAME URL
  echo "--- $1"
  wrk -t2 -c"$conns" -d"$duration" --latency -s "$here/post.lua" "$2" | \
    grep -E 'Requests/sec|^ +(50|75|90|99)%|Latency |Non-2xx|Socket errors'
}
wait_port() {
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

for workers in 1 "$cores"; do
  "$build/bin/orva-webapid" --root "$root" --listen 127.0.0.1:0 --workers "$workers" >/dev/null 2>"$root/log" &
  pid=$!
  for _ in $(seq 100); do [ -s "$root/run/orva/webapi.listen" ] && break; sleep 0.1; done
  addr=$(cat "$root/run/orva/webapi.listen")
  wait_port "${addr##*:}"
  measure "orva-webapid, $workers worker(s)" "http://$addr/webapi/entry"
  kill -TERM "$pid"; wait "$pid" || true; pid=

  "$build/bin/bench_server_ceiling" 0 "$workers" >"$root/ceiling.port" &
  pid=$!
  for _ in $(seq 100); do [ -s "$root/ceiling.port" ] && break; sleep 0.1; done
  port=$(head -1 "$root/ceiling.port")
  wait_port "$port"
  measure "ceiling (fixed reply), $workers process(es)" "http://127.0.0.1:$port/webapi/entry"
  kill -TERM "$pid"; wait "$pid" || true; pid=
done

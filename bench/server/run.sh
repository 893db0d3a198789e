#!/usr/bin/env bash
# run.sh BUILD: "list" v2 and "create" of ORVA.Core.TaskScheduler over HTTP against a
# staged system root (scripts/stage.sh) served by orva-webapid with 1 worker on
# 127.0.0.1, in a session logged in with the login token (cookie and CSRF header).
#
#   1,000 tasks:  all of them (no limit), 1 connection;  a page of 50, 1 connection
#   10,003 tasks: the worker's memory around one listing (a page of 20);
#                 a page of 20, 1 connection;  "create", 4 connections (durable)
#
# The stores are filled on tmpfs through the store's own save (bench_store_fill) and
# copied into the staged root, which lies on disk (BENCH_DIR, default /var/tmp) so that
# "create" pays for its real commit. Latency is wrk's p50 over DURATION (default 5s).
# Prints result rows on fd 3 when it is open.
set -euo pipefail
build=$(cd "${1:?build folder}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
duration=${DURATION:-5s}
disk=${BENCH_DIR:-/var/tmp}
command -v wrk >/dev/null || { echo "wrk is not installed (scripts/setup.sh installs it)"; exit 1; }
command -v curl >/dev/null || { echo "curl is not installed (scripts/setup.sh installs it)"; exit 1; }
[ -x "$build/bin/bench_store_fill" ] || { echo "missing $build/bin/bench_store_fill"; exit 1; }

source "$here/../lib.sh"

fill=$(scratch_dir fill)
root=$(mktemp -d "$disk/orva-bench-server-XXXXXX")
pid=
stop_server() {
  if [ -n "$pid" ]; then
    kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
    pid=
  fi
}
cleanup() {
  stop_server
  rm -rf "$root" "$fill"
}
trap cleanup EXIT

bash "$src/scripts/stage.sh" "$build" "$root" >/dev/null
echo "staged root $root ($(stat -f -c %T "$root")), load: $(cut -d' ' -f1-3 /proc/loadavg)"
for n in 1000 10003; do
  "$build/bin/bench_store_fill" --root "$fill/$n" --tasks "$n" >/dev/null
done

# Puts the store of N tasks in place (server stopped); database and WAL as written.
use_store() {
  rm -f "$root"/var/lib/orva/scheduler.db*
  cp "$fill/$1"/var/lib/orva/scheduler.db* "$root/var/lib/orva/"
  rm -f "$root/var/lib/orva/scheduler.db-shm"
}

worker=
start_server() {
  rm -f "$root/run/orva/webapi.listen"
  "$root/usr/orva/bin/orva-webapid" --root "$root" --listen 127.0.0.1:0 --workers 1 >/dev/null 2>"$root/server.log" &
  pid=$!
  for _ in $(seq 100); do [ -s "$root/run/orva/webapi.listen" ] && break; sleep 0.1; done
  addr=$(cat "$root/run/orva/webapi.listen")
  url="http://$addr/webapi/entry"
  for _ in $(seq 100); do
    worker=$(pgrep -P "$pid" | head -1 || true)
    [ -n "$worker" ] && curl -s -o /dev/null "http://$addr/" && break
    sleep 0.1
  done
  # The session: cookie from the login reply, CSRF token from its body.
  local token reply
  token=$(cat "$root/run/orva/login.token")
  reply=$(curl -s -D "$root/login.headers" -H 'Content-Type: application/json' \
    -d "{\"api\":\"ORVA.API.Auth\",\"version\":1,\"method\":\"login\",\"params\":{\"token\":\"$token\"}}" "$url")
  ORVA_CSRF=$(grep -o '"csrf_token":"[0-9a-f]*"' <<<"$reply" | cut -d'"' -f4)
  ORVA_COOKIE=$(grep -o 'orva_session=[0-9a-f]*' "$root/login.headers" | cut -d= -f2)
  [ -n "$ORVA_CSRF" ] && [ -n "$ORVA_COOKIE" ] || { echo "login failed: $reply"; exit 1; }
  export ORVA_CSRF ORVA_COOKIE
}

call() {  # PARAMS-JSON METHOD: one call in the session, the reply on stdout
  curl -s -H 'Content-Type: application/json' -H "Cookie: orva_session=$ORVA_COOKIE" -H "X-ORVA-CSRF: $ORVA_CSRF" \
    -d "{\"api\":\"ORVA.Core.TaskScheduler\",\"version\":2,\"method\":\"${2:-list}\",\"params\":$1}" "$url"
}

# wrk over CONNECTIONS connections for DURATION; sets p50 (ms), rps, requests, failed.
run_wrk() {  # CONNECTIONS DURATION BODY
  local out
  out=$(ORVA_BODY=$3 wrk -t1 -c"$1" -d"$2" --latency -s "$here/api.lua" "$url")
  p50=$(awk '$1 == "50%" { v = $2; u = v; gsub(/[0-9.]/, "", u); sub(/[a-z]+$/, "", v);
                           print (u == "us" ? v / 1000 : (u == "s" ? v * 1000 : v)) }' <<<"$out")
  rps=$(awk '/^Requests\/sec/ { print $2 }' <<<"$out")
  requests=$(awk '$1 == "requests" { print $2 }' <<<"$out")
  failed=$(awk '$1 == "requests" { print $4 }' <<<"$out")
  [ "$failed" = 0 ] || echo "  $failed of $requests replies were not a success"
}

list_body() { echo "{\"api\":\"ORVA.Core.TaskScheduler\",\"version\":2,\"method\":\"list\",\"params\":$1}"; }

latency_row() {  # ORDER WORK BEFORE GOAL-MS PARAMS (ORDER: the row's place in the table)
  local order=$1
  shift
  run_wrk 1 "$duration" "$(list_body "$4")"
  echo "  $1: p50 $p50 ms ($requests requests)"
  awk -v o="$order" -v w="$1" -v b="$2" -v g="$3" -v p="$p50" -v f="$failed" 'BEGIN {
    printf "ROW|%s|%s|%s|%.2f ms p50|<= %s ms|%s\n", o, w, b, p, g, (f == 0 && p != "" && p <= g) ? "ok" : "MISSED" }'
}

kib() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$worker/status"; }

# ---- 1,000 tasks
use_store 1000
start_server
call '{"limit":1}' >/dev/null  # the worker's first call opens the store
{
  latency_row 3 "list v2, all 1,000 tasks over HTTP, 1 connection" "25 ms p50" 5 '{"sort_by":"name"}'
  latency_row 4 "list v2, page of 50 of 1,000 over HTTP" "7.5 ms" 1.5 '{"offset":0,"limit":50,"sort_by":"name"}'
} | emit
stop_server

# ---- 10,003 tasks
use_store 10003
start_server
# Idle: the worker has opened its store and answered a small call; then the peak is
# reset (clear_refs 5) and one listing of all 10,003 records (a page of 20) is made.
call '{"limit":0}' >/dev/null
call '{"limit":0}' >/dev/null
echo 5 >"/proc/$worker/clear_refs"
idle=$(kib VmRSS)
total=$(call '{"offset":0,"limit":20,"sort_by":"name"}' | grep -o '"total":[0-9]*' | cut -d: -f2)
peak=$(kib VmHWM)
after=$(kib VmRSS)
{
  echo "  worker memory around one listing of $total tasks: idle $idle KiB, peak $peak KiB, after $after KiB"
  awk -v i="$idle" -v p="$peak" -v a="$after" 'BEGIN {
    g = (p - i) / 1024; r = (a - i) / 1024
    printf "ROW|5|worker memory after one 10,000-task listing|182 MB resident, never returned|peak +%.1f MiB, after +%.1f MiB|<= 40 MiB peak growth, after within 5 MiB|%s\n",
      g, r, (g <= 40 && r <= 5) ? "ok" : "MISSED" }'
  latency_row 2 "list v2, page of 20 of 10,003 over HTTP" "51 ms" 10 '{"offset":0,"limit":20,"sort_by":"name"}'
} | emit

# ---- create, durable: throughput, then the commits per create counted by strace.
create='{"api":"ORVA.Core.TaskScheduler","version":2,"method":"create","params":{"type":"script","name":"bench create","owner":"root","enable":true,"schedule":{"repeat_date":"daily","hour":3,"minute":30},"extra":{"script":"/usr/local/bin/backup.sh --all"}}}'
db="$root/var/lib/orva/scheduler.db"
{
  rows0=$(call '{"limit":0}' | grep -o '"total":[0-9]*' | cut -d: -f2)
  cpu0=$(awk '{ print $14 + $15 }' "/proc/$worker/stat")
  run_wrk 4 "${CREATE_DURATION:-8s}" "$create"
  cpu1=$(awk '{ print $14 + $15 }' "/proc/$worker/stat")
  rows1=$(call '{"limit":0}' | grep -o '"total":[0-9]*' | cut -d: -f2)
  created=$rps acked=$requests refused=$failed added=$((rows1 - rows0))
  cpu_us=$(awk -v c="$((cpu1 - cpu0))" -v hz="$(getconf CLK_TCK)" -v n="$acked" 'BEGIN { printf "%.0f", n ? c / hz / n * 1e6 : 0 }')
  echo "  create: $created/s over 4 connections; $acked acknowledged, $refused failed, $added tasks stored;" \
       "worker CPU $cpu_us us per create"
  syncs=-
  if command -v strace >/dev/null; then
    strace -f -c -e trace=fsync,fdatasync -o "$root/strace" -p "$worker" 2>/dev/null &
    spid=$!
    sleep 0.5
    run_wrk 4 2s "$create"
    kill -INT "$spid"; wait "$spid" 2>/dev/null || true
    n=$(awk '$NF == "fdatasync" || $NF == "fsync" { s += $4 } END { print s + 0 }' "$root/strace")
    syncs=$(awk -v n="$n" -v r="$requests" 'BEGIN { printf "%.2f", r ? n / r : 0 }')
    echo "  under strace: $requests creates, $n fsync/fdatasync calls ($syncs per create)"
  fi
  # What the disk allows: 4 KiB synchronous overwrites (O_DSYNC) beside the store.
  dd if=/dev/zero of="$root/var/lib/orva/sync-probe" bs=4k count=100 2>/dev/null
  sync_ms=$(LC_ALL=C dd if=/dev/zero of="$root/var/lib/orva/sync-probe" bs=4k count=200 oflag=dsync conv=notrunc 2>&1 |
            awk '/copied/ { for (i = 1; i <= NF; ++i) if ($i ~ /^s,?$/) s = $(i - 1); printf "%.2f", s / 200 * 1000 }')
  rm -f "$root/var/lib/orva/sync-probe"
  echo "  disk: a synchronous 4 KiB write takes $sync_ms ms here now (one commit's sync at least)"
  # Every acknowledged create is stored (wrk may stop with a few sent but unanswered).
  awk -v r="$created" -v s="$syncs" -v d="$sync_ms" -v u="$cpu_us" -v f="$refused" -v a="$added" -v q="$acked" 'BEGIN {
    printf "ROW|6|create over HTTP, durable (1 worker, 4 connections)|~1,000-1,300 tasks/s|%.0f tasks/s, %s syncs and %s us worker CPU per create (disk sync %s ms)|>= 1,500/s, one durable commit per create|%s\n",
      r, s, u, d, (r >= 1500 && f == 0 && a >= q && (s == "-" || s >= 1)) ? "ok" : "MISSED" }'
} | emit
stop_server

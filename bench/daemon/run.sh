#!/usr/bin/env bash
# run.sh BUILD: orva-schedulerd with TASKS (default 10,000) enabled tasks due every
# minute. The runner is bench_daemon_runner (through ORVA_SCHEDRUN), which only records
# when it was started. Reports how late after its minute each run started (p50, p99,
# max), how many started, and the daemon's own CPU time per idle minute (measured while
# it waits for that minute). Prints result rows on fd 3 when it is open. DAEMON names
# another orva-schedulerd (an older build, to compare); WAIT (default 10) is how many
# seconds after the minute the runs are waited for.
set -euo pipefail
build=$(cd "${1:?build folder}" && pwd)
tasks=${TASKS:-10000}
for f in bin/orva-schedulerd bin/bench_daemon_runner bin/bench_daemon_spawn bin/bench_store_fill; do
  [ -x "$build/$f" ] || { echo "missing $build/$f: build orva-schedulerd bench_daemon_runner bench_daemon_spawn bench_store_fill"; exit 1; }
done
source "$(dirname "$0")/../lib.sh"

# tmpfs: the daemon only reads the store, and filling it should not wait on the disk.
root=$(scratch_dir daemon)
pid=
cleanup() {
  [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$root"
}
trap cleanup EXIT
"$build/bin/bench_store_fill" --root "$root" --tasks "$tasks" --every-minute >/dev/null
starts="$root/starts"
: >"$starts"

ticks=$(getconf CLK_TCK)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

# At least 20 s of idle time before the minute the runs are counted for, with no
# other minute in between: when the next minute is too close, let it pass first.
now=$(date +%s)
if [ $(( 60 - now % 60 )) -lt 25 ]; then
  sleep $(( 61 - now % 60 ))
  now=$(date +%s)
fi
target=$(( (now / 60 + 1) * 60 ))
ORVA_SCHEDRUN="$build/bin/bench_daemon_runner" ORVA_BENCH_STARTS="$starts" \
  "${DAEMON:-$build/bin/orva-schedulerd}" --root "$root" 2>"$root/daemon.log" &
pid=$!
# Runs of the minute it started in (if any) are not counted; settle, then measure idle.
sleep 3
: >"$starts"
idle_from=$(date +%s.%N)
cpu0=$(cpu_ticks "$pid")
sleep "$(awk -v t="$target" -v n="$(date +%s.%N)" 'BEGIN { d = t - n - 1; print (d > 0 ? d : 0) }')"
cpu1=$(cpu_ticks "$pid")
idle_to=$(date +%s.%N)
: >"$starts"
# The runs of the target minute (WAIT seconds at most), then a second for the last.
for _ in $(seq $(( ${WAIT:-10} * 10 ))); do
  [ "$(wc -l <"$starts")" -ge "$tasks" ] && break
  sleep 0.1
done
sleep 1
failed=$(grep -c "could not start" "$root/daemon.log" || true)
[ "$failed" -gt 0 ] && echo "the daemon could not start $failed runner(s)"
kill -TERM "$pid"; wait "$pid" 2>/dev/null || true; pid=
# The floor: the same runner started as fast as posix_spawn can, from 4 threads.
sleep 2
floor=$(ORVA_BENCH_STARTS="$root/floor" "$build/bin/bench_daemon_spawn" "$build/bin/bench_daemon_runner" "$tasks" 4 |
        cut -d' ' -f1)
echo "floor: $tasks bare starts of the runner from 4 threads took $floor s"
awk -v t="$target" '$2 >= t && $2 < t + 60 { printf "%.6f\n", $2 - t }' "$starts" | sort -n >"$root/late"
n=$(wc -l <"$root/late")
pick() { [ "$n" -gt 0 ] && sed -n "$(( (n - 1) * $1 / 100 + 1 ))p" "$root/late" || echo -1; }
awk -v want="$tasks" -v n="$n" -v floor="$floor" -v p50="$(pick 50)" -v p99="$(pick 99)" -v max="$(pick 100)" \
    -v c0="$cpu0" -v c1="$cpu1" -v hz="$ticks" -v f="$idle_from" -v e="$idle_to" 'BEGIN {
  idle = (c1 - c0) / hz / (e - f) * 60
  printf "tasks due: %d; started: %d; lateness p50 %.3f s, p99 %.3f s, max %.3f s\n", want, n, p50, p99, max
  printf "daemon CPU while idle: %.3f s over %.1f s = %.3f s per minute\n", (c1 - c0) / hz, e - f, idle
  ok = (n == want && p99 >= 0 && p99 <= 1.0) ? "ok" : "MISSED"
  printf "ROW|7|daemon: %d tasks due every minute, started within 1 s (fake runner)|serial: p50 9.8 s, p99 18.8 s|%d started, lateness p50 %.0f ms, p99 %.0f ms, max %.0f ms (bare spawn floor %.2f s)|all within 1 s|%s\n", want, n, p50 * 1000, p99 * 1000, max * 1000, floor, ok
  ok = idle <= 0.1 ? "ok" : "MISSED"
  printf "ROW|8|daemon CPU per idle minute, %d tasks|-|%.3f s|~0 (<= 0.1 s)|%s\n", want, idle, ok
}' | emit

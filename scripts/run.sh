#!/usr/bin/env bash
# run.sh BUILD ROOT: stages the demo system root at ROOT and runs the web API server on
# it in the foreground (127.0.0.1:5080, or $ORVA_LISTEN; log on stderr), with
# orva-schedulerd beside it when that program is installed. Ctrl-C stops both.
set -euo pipefail
build=${1:?build folder}
root=${2:?system root}
here=$(cd "$(dirname "$0")/.." && pwd)
listen=${ORVA_LISTEN:-127.0.0.1:5080}

bash "$here/scripts/stage.sh" "$build" "$root" --demo
root=$(cd "$root" && pwd)
texts="$root/usr/orva/orvaman/webman/texts"
if ! compgen -G "$texts/*/" >/dev/null; then
  mkdir -p "$texts/en"
fi
# Password login goes through the PAM service orva-webapi.
if [ ! -e /etc/pam.d/orva-webapi ]; then
  if [ -w /etc/pam.d ]; then
    install -m 0644 "$here/platform/server/pam/orva-webapi" /etc/pam.d/orva-webapi
  else
    echo "run.sh: /etc/pam.d/orva-webapi is missing; password login will fail (the login token works)" >&2
  fi
fi

bin="$root/usr/orva/bin"
sched=
server=
stop() {
  [ -n "$server" ] && kill -TERM "$server" 2>/dev/null || true
}
cleanup() {
  stop
  if [ -n "$sched" ]; then
    kill -TERM "$sched" 2>/dev/null || true
    wait "$sched" 2>/dev/null || true
  fi
}
trap cleanup EXIT
trap stop INT TERM

if [ -x "$bin/orva-schedulerd" ]; then
  "$bin/orva-schedulerd" --root "$root" &
  sched=$!
fi
echo "run.sh: system root $root"
echo "run.sh: try: $bin/orva-api --root $root ORVA.API.Info 1 query"
# orva-webapid prints the address with the login token once it listens.
"$bin/orva-webapid" --root "$root" --listen "$listen" &
server=$!
status=0
while kill -0 "$server" 2>/dev/null; do
  wait "$server" && status=0 || status=$?
done
server=
exit "$status"

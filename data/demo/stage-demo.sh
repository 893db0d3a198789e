#!/usr/bin/env bash
# stage-demo.sh BUILD ROOT: lays the demo data over a staged system root: two shares
# with files in their recycle bins, two packages, a 3rd-party app with its own texts,
# built-in services that leave state files, and a few tasks of every origin (a custom
# task and a report task added with orva-taskctl, an event task and built-in tasks
# created through a briefly started server). Tasks are added once per root.
set -euo pipefail
build=${1:?build folder}
root=${2:?system root}
root=$(cd "$root" && pwd)
bin="$root/usr/orva/bin"
state="$root/var/lib/orva"
mkdir -p "$state" "$root/etc/orva" "$root/run/orva"

# --- Shares: real folders with something in their recycle bins. -------------------
for share in docs media; do
  mkdir -p "$root/srv/$share/.recycle"
  chmod 1777 "$root/srv/$share/.recycle"
done
mkdir -p "$root/srv/docs/.recycle/old drafts" "$root/srv/media/.recycle/holiday 2023"
echo "quarterly figures" > "$root/srv/docs/.recycle/report Q1.pdf"
echo "scratch" > "$root/srv/docs/.recycle/notes.tmp"
echo "first draft" > "$root/srv/docs/.recycle/old drafts/letter \"v1\".doc"
head -c 300000 /dev/zero > "$root/srv/media/.recycle/holiday 2023/beach.jpg"
head -c 1200000 /dev/zero > "$root/srv/media/.recycle/holiday 2023/clip.mp4"
echo "#EXTM3U" > "$root/srv/media/.recycle/playlist.m3u"
# Some of it deleted long ago, for the age policy.
touch -d '45 days ago' "$root/srv/docs/.recycle/report Q1.pdf" "$root/srv/docs/.recycle/old drafts/letter \"v1\".doc"
touch -d '90 days ago' "$root/srv/media/.recycle/holiday 2023/clip.mp4"
cat > "$root/etc/orva/shares.json" <<EOF
[
  {"name": "docs", "path": "$root/srv/docs", "recycle_bin": true},
  {"name": "media", "path": "$root/srv/media", "recycle_bin": true}
]
EOF

# --- Built-in services: on the demo they only record their state. ----------------
svcdir="$state/demo-services"
mkdir -p "$svcdir"
python3 - "$root/etc/orva/services.json" "$svcdir" <<'EOF'
import json, sys
path, d = sys.argv[1], sys.argv[2]
ids = ["WinShare", "MacShare", "PrinterBeacon", "UnixShare", "LoginGuard",
       "FileXfer", "FileXferTls", "FileXferSsh", "ClockServer"]
out = {}
for i in ids:
    out[i] = {
        "start": "echo running > '%s/%s' && echo '%s is running (demo)'" % (d, i, i),
        "stop": "echo stopped > '%s/%s' && echo '%s is stopped (demo)'" % (d, i, i),
    }
json.dump(out, open(path, "w"), indent=2)
EOF

# --- Packages: both can be started and stopped; only one is offered to service tasks.
pkg() {  # NAME DISPLAY SERVICE
  local dir="$state/packages/$1"
  mkdir -p "$dir"
  cat > "$dir/package.json" <<EOF
{
  "name": "$1",
  "display_name": "$2",
  "version": "1.0.0",
  "service": $3,
  "control": {
    "start": "date '+started %F %T' | tee -a history.log > state && cat state",
    "stop": "date '+stopped %F %T' | tee -a history.log > state && cat state"
  }
}
EOF
}
pkg mediaserver "Media Server" true
pkg photoindexer "Photo Indexer" false

# --- A 3rd-party app with its own texts. -----------------------------------------
app="$root/usr/orva/orvaman/webman/3rdparty/PhotoSorter"
mkdir -p "$app/texts/en" "$app/texts/de"
echo '{"namespace": "ORVA.3rdParty.PhotoSorter"}' > "$app/config.json"
cat > "$app/texts/en/strings.json" <<'EOF'
{"photosorter": {"app_title": "Photo Sorter", "sort_now": "Sort new photos into albums"}}
EOF
cat > "$app/texts/de/strings.json" <<'EOF'
{"photosorter": {"app_title": "Fotosortierer", "sort_now": "Neue Fotos in Alben sortieren"}}
EOF

marker="$state/demo-tasks-added"
if [ -e "$marker" ]; then
  echo "stage-demo: tasks were added before; kept as they are"
  exit 0
fi

# --- Tasks of other apps, as their packages register them. -----------------------
"$bin/orva-taskctl" --root "$root" add "$(cat <<EOF
{"name": "Sort holiday photos", "app": "ORVA.3rdParty.PhotoSorter", "app_name": "#photosorter:app_title#",
 "action": "#photosorter:sort_now#", "owner": "root",
 "command": "find '$root/srv/media' -name '*.jpg' -not -path '*/.recycle/*' | wc -l",
 "can_edit_from_ui": true, "can_delete_from_ui": true,
 "schedule": {"repeat": "weekly", "date": "$(date +%F)", "week_name": "0,6", "hour": 7, "min": 30}}
EOF
)" >/dev/null
"$bin/orva-taskctl" --root "$root" add "$(cat <<EOF
{"name": "Storage usage report", "app": "ORVA.VEK.DataAnalysis", "app_name": "#report:report_title#",
 "action": "#report:generate_report#", "owner": "root",
 "command": "du -s '$root/srv/docs' '$root/srv/media'", "can_edit_from_ui": false,
 "schedule": {"repeat": "daily", "date": "$(date +%F)", "hour": 6, "min": 0}}
EOF
)" >/dev/null

# --- Built-in tasks and an event task, through the server like the UI would. ------
sock="$root/run/orva/webapi.sock"
"$bin/orva-webapid" --root "$root" --workers 1 >"$state/demo-stage-server.log" 2>&1 &
server=$!
trap 'kill -TERM $server 2>/dev/null || true; wait $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  "$bin/orva-api" --root "$root" ORVA.API.Info 1 query >/dev/null 2>&1 && break
  sleep 0.1
done
api() {
  "$bin/orva-api" --root "$root" "$@" >/dev/null || echo "stage-demo: warning: $1 $3 was refused" >&2
}
today=$(date +%F)
api ORVA.Core.EventScheduler 1 create \
  '{"task_name": "Greet at boot", "owner": "root", "enable": true, "event": "bootup", "script": "echo booted at $(date)"}'
api ORVA.Core.TaskScheduler 2 create "{\"type\": \"beep\", \"name\": \"Buzzer check\", \"owner\": \"root\",
  \"enable\": false, \"schedule\": {\"repeat_date\": \"weekly\", \"date\": \"$today\", \"week_day\": \"1\",
  \"hour\": 9, \"minute\": 0}, \"extra\": {\"beep_duration\": 2}}"
api ORVA.Core.TaskScheduler 2 create "{\"type\": \"script\", \"name\": \"Disk space every 15 minutes\",
  \"owner\": \"root\", \"enable\": true, \"schedule\": {\"repeat_date\": \"daily\", \"date\": \"$today\",
  \"hour\": 0, \"minute\": 0, \"repeat_min\": 15, \"last_work_hour\": 23}, \"extra\": {\"script\": \"df -h /\"}}"
api ORVA.Core.TaskScheduler 2 create "{\"type\": \"recycle\", \"name\": \"Empty old docs\", \"owner\": \"root\",
  \"enable\": true, \"schedule\": {\"repeat_date\": \"daily\", \"date\": \"$today\", \"hour\": 3, \"minute\": 0},
  \"extra\": {\"clean_share_policy\": {\"clean_all\": false, \"shares\": [\"docs\"]},
  \"clean_file_policy\": {\"policy\": \"time\", \"time\": 30,
  \"reserve_policy\": {\"extension_check\": true, \"extension\": [{\"file_ext\": \"pdf\"}]}}}}"
api ORVA.Core.TaskScheduler 2 create "{\"type\": \"service\", \"name\": \"Morning services\", \"owner\": \"root\",
  \"enable\": true, \"schedule\": {\"repeat_date\": \"daily\", \"date\": \"$today\", \"hour\": 8, \"minute\": 0},
  \"extra\": {\"action\": \"start\", \"services\": [{\"id\": \"WinShare\", \"enable\": true},
  {\"id\": \"mediaserver\", \"enable\": true}]}}"
touch "$marker"
echo "stage-demo: demo data and tasks added"

#!/usr/bin/env bash
# install.sh BUILD: installs the product on this machine (what `make install` runs):
# programs, libraries, modules, UI files and texts under /usr/orva; the default
# configuration under /etc/orva (existing files are kept); the PAM service file
# /etc/pam.d/orva-webapi; systemd units for orva-webapid, orva-schedulerd and the
# boot-up/shutdown event tasks, enabled and started when systemd runs.
# ORVA_INSTALL_ROOT=DIR installs under DIR instead of / and starts nothing (for checks).
set -euo pipefail
build=${1:?build folder}
here=$(cd "$(dirname "$0")/.." && pwd)
dest=${ORVA_INSTALL_ROOT:-/}
dest=${dest%/}
if [ -z "${ORVA_INSTALL_ROOT:-}" ] && [ "$(id -u)" -ne 0 ]; then
  echo "install.sh: run as root (or set ORVA_INSTALL_ROOT to install elsewhere)" >&2
  exit 1
fi

stage=$(mktemp -d /tmp/orva-install-XXXXXX)
trap 'rm -rf "$stage"' EXIT
cmake --install "$build" --prefix "$stage" >/dev/null

# Programs, libraries, modules, UI: replaced as a whole tree.
mkdir -p "$dest/usr/orva"
cp -a "$stage/usr/orva/." "$dest/usr/orva/"

# Configuration: never overwrite what the administrator has.
mkdir -p "$dest/etc/orva"
for f in "$stage"/etc/orva/*; do
  name=$(basename "$f")
  if [ -e "$dest/etc/orva/$name" ]; then
    echo "install.sh: keeping /etc/orva/$name"
  else
    install -m 0644 "$f" "$dest/etc/orva/$name"
  fi
done
# The task store and the sessions live in var/lib/orva: readable by root alone.
install -d -m 0700 "$dest/var/lib/orva"
install -d -m 0755 "$dest/var/lib/orva/packages" "$dest/run/orva"

install -D -m 0644 "$here/platform/server/pam/orva-webapi" "$dest/etc/pam.d/orva-webapi"
for unit in orva-webapid.service orva-schedulerd.service orva-events.service; do
  install -D -m 0644 "$here/data/systemd/$unit" "$dest/etc/systemd/system/$unit"
done

if [ -n "${ORVA_INSTALL_ROOT:-}" ]; then
  echo "install.sh: installed under $dest (nothing started)"
  exit 0
fi
if [ -d /run/systemd/system ]; then
  systemctl daemon-reload
  systemctl enable orva-webapid.service orva-schedulerd.service orva-events.service
  systemctl restart orva-webapid.service orva-schedulerd.service
  systemctl start orva-events.service
  echo "install.sh: installed; the web UI listens on 127.0.0.1:5080 (set ORVA_WEBAPI_LISTEN in /etc/default/orva-webapid)"
else
  echo "install.sh: installed; systemd is not running here, start /usr/orva/bin/orva-webapid and orva-schedulerd yourself"
fi

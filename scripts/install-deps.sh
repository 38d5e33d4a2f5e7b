#!/usr/bin/env bash
# Installs what ekadcdf needs on a Debian machine, skipping what is there.
# Usage: scripts/install-deps.sh [--test] [--package] [extra-package ...]
#   (nothing)  building the daemon, the exporter and their unit tests, and running the sample:
#              no server of any kind
#   --test     also what the whole test suite runs: a PostgreSQL server (the exporter's tests
#              start one of their own), logrotate (the rotation tests drive it), promtool and
#              the node exporter (the metrics test starts one on loopback), systemd-analyze and
#              groff (the unit and manual page checks)
#   --package  also what building and checking the Debian package needs (the Build-Depends of
#              debian/control, dpkg-buildpackage, lintian, and the node exporter whose textfile
#              directory the package links its metrics into)
set -euo pipefail
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev python3 libsqlite3-dev libpq-dev sqlite3
          zlib1g-dev)
for arg in "$@"; do
  case "$arg" in
    --test) packages+=(postgresql logrotate prometheus prometheus-node-exporter systemd groff-base) ;;
    --package) packages+=(dpkg-dev debhelper lintian devscripts equivs prometheus-node-exporter) ;;
    *) packages+=("$arg") ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

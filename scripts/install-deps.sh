#!/usr/bin/env bash
# Installs what building and testing ekadcdf needs on a Debian machine, skipping what is there.
# Usage: scripts/install-deps.sh [extra-package ...]
set -euo pipefail
# The exporter links SQLite and libpq; its tests start a PostgreSQL server of their own.
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev python3 libsqlite3-dev libpq-dev
          postgresql logrotate zlib1g-dev "$@")
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

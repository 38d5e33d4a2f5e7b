#!/usr/bin/env bash
# Runs the daemon on the bundled sample audit file until it has converted everything, stops it
# with SIGTERM and shows what it wrote.
# Usage: examples/run-sample.sh [path/to/ekadcdf]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
binary=$(realpath "${1:-$here/../build/ekadcdf}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$here/sample.audit" "$work/audit"
cd "$work"
# Debug mode writes "waiting..." once the end of the audit file is reached.
TZ=UTC "$binary" -a audit -b cdf -d 2>stderr &
pid=$!
for _ in $(seq 1 100); do
  grep -q '^waiting\.\.\.$' stderr 2>/dev/null && break
  sleep 0.1
done
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
echo "ekadcdf exited with status $status"
for f in cdf.*; do
  echo "=== $f"
  cat "$f"
done
echo "=== statistics"
sed -n '/^Statistics:/,$p' stderr

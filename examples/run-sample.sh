#!/usr/bin/env bash
# Runs the daemon on the bundled sample audit file; with --once it stops by itself at the end of
# the file. Then shows what it wrote.
# Usage: examples/run-sample.sh [path/to/ekadcdf]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
binary=$(realpath "${1:-$here/../build/ekadcdf}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$here/sample.audit" "$work/audit"
cd "$work"
status=0
TZ=UTC "$binary" -a audit -b cdf -d --once 2>stderr || status=$?
echo "ekadcdf exited with status $status"
for f in cdf.0* cdf.ERR; do
  echo "=== $f"
  cat "$f"
done
echo "=== statistics"
sed -n '/^Statistics:/,$p' stderr

#!/usr/bin/env bash
# Runs the daemon on the bundled sample audit file; with --once it stops by itself at the end of
# the file. Shows the records it wrote, then each of them column by column, as ekadcdf-export
# names the columns (the names of docs/records.md). The output stays in the directory "sample"
# beside the daemon (build/sample/cdf.000 ... for build/ekadcdf), emptied at every run.
# Usage: examples/run-sample.sh [path/to/ekadcdf]   (ekadcdf-export is looked for beside it)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
binary=$(realpath "${1:-$here/../build/ekadcdf}")
exporter=$(dirname "$binary")/ekadcdf-export
work=$(dirname "$binary")/sample
rm -rf "$work"
mkdir -p "$work"
cp "$here/sample.audit" "$work/audit"
cd "$work"
status=0
TZ=UTC "$binary" -a audit -b cdf -d --once --metrics ekadcdf.prom 2>stderr || status=$?
echo "ekadcdf exited with status $status"
echo "the output is in $work"
for f in cdf.0* cdf.ERR; do
  echo "=== $f"
  cat "$f"
done
echo "=== statistics"
sed -n '/^Statistics:/,$p' stderr
if [ -x "$exporter" ]; then
  echo "=== the records column by column (ekadcdf-export --jsonl -; unused columns left out)"
  "$exporter" --jsonl - cdf 2>/dev/null | python3 -c '
import json, sys
for line in sys.stdin:
    r = json.loads(line)
    print(r["record_type"], "at", r["event_time"])
    skip = {"record_type", "year_since_1900", "month", "day", "hour", "minute", "second",
            "epoch_seconds", "event_time", "host", "generation_date"}
    for name, value in r.items():
        if name not in skip and not name.startswith("reserved_"):
            print(f"    {name:<22} {value!r}")'
fi

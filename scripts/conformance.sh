#!/usr/bin/env bash
# Runs the conformance cases kept beside the checkout (../shared/conformance) against a daemon
# binary. The cases are copied first, because the command-line cases expect no output files and
# their expected-output folder for files is therefore absent, which the runner cannot list.
# Usage: scripts/conformance.sh path/to/ekadcdf [PATTERN ...]
set -euo pipefail
binary=$(realpath "$1")
shift
here=$(cd "$(dirname "$0")/.." && pwd)
cases=${EKADCDF_CONFORMANCE:-$here/../shared/conformance}
if [ ! -x "$cases/run" ]; then
  echo "no conformance cases at $cases; skipped"
  exit 0
fi
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp -r "$cases" "$copy/conformance"
chmod -R u+w "$copy/conformance"
for run in "$copy"/conformance/cases/*/expect/run*; do mkdir -p "$run/files"; done
cd "$copy"
python3 conformance/run "$binary" "$@"

#!/usr/bin/env bash
# Benchmark of the daemon: catch-up throughput (wall and CPU) on two generated audit files, a
# busy server's mix of a million sections and 200,000 small sections of every kind, each beside
# `cat` on the same file as the I/O floor; peak memory; start-up time with a 1 GiB <base>.000 in
# place; peak memory on giant sections (a million recipients of a routing or a fax section, a
# million stray lines) and on a section that never ends, and how fast a stop ends it. Prints a
# summary table. Takes a few minutes; build with -DCMAKE_BUILD_TYPE=Release first.
#
# Usage: scripts/benchmark.sh [path/to/ekadcdf]
# Environment:
#   BENCH_DIR       scratch and cache directory (default ${TMPDIR:-/tmp}/ekadcdf-bench); the
#                   generated audit files and the 1 GiB <base>.000 are kept there between runs
#   BENCH_SECTIONS  sections in the busy server's file (default 1000000)
#   BENCH_SMALL_SECTIONS  sections in the file of small sections (default 200000)
#   BENCH_SEED      seed of the generator (default 1)
#   BENCH_STARTUP_MIB  size of <base>.000 for the start-up test in MiB (default 1024)
#   BENCH_RUNS      conversions of each file; the best is reported (default 3)
#   BENCH_GIANT     entries of each giant section (default 1000000; 0 skips them)
#   BENCH_ENDLESS_MIB  size of the section that never ends in MiB (default 1024; 0 skips it)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
binary=$(realpath "${1:-$here/build/ekadcdf}")
if [ ! -x "$binary" ]; then
  echo "no daemon binary at $binary; build it first or pass its path" >&2
  exit 2
fi
cache="$(dirname "$binary")/CMakeCache.txt"
if [ -f "$cache" ] && ! grep -q '^CMAKE_BUILD_TYPE:STRING=Release$' "$cache"; then
  echo "warning: $binary is not a Release build; figures will be low" >&2
fi

work=${BENCH_DIR:-${TMPDIR:-/tmp}/ekadcdf-bench}
sections=${BENCH_SECTIONS:-1000000}
small_sections=${BENCH_SMALL_SECTIONS:-200000}
seed=${BENCH_SEED:-1}
startup_mib=${BENCH_STARTUP_MIB:-1024}
mkdir -p "$work"

# The audit files are cached under names that change with the generator, so an edited generator
# writes new ones.
generator="$here/bench/generate_audit.py"
stamp=$(sha256sum "$generator" | cut -c1-12)
audit_file() {  # profile sections
  local file="$work/audit-$1-$2-$seed-$stamp"
  if [ ! -s "$file" ]; then
    rm -f "$work"/audit-"$1"-*
    echo "generating $2 $1 sections into $file ..." >&2
    python3 "$generator" --profile "$1" --sections "$2" --seed "$seed" "$file.tmp"
    mv "$file.tmp" "$file"
  fi
  echo "$file"
}
busy=$(audit_file default "$sections")
small=$(audit_file small "$small_sections")

python3 "$here/bench/run_benchmark.py" --binary "$binary" --work "$work" \
  --audit "busy:$sections:$busy" --audit "small:$small_sections:$small" \
  --startup-size $((startup_mib * 1024 * 1024)) --runs "${BENCH_RUNS:-3}" \
  --giant "${BENCH_GIANT:-1000000}" --endless-size $((${BENCH_ENDLESS_MIB:-1024} * 1024 * 1024))

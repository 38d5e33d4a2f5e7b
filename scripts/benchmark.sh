#!/usr/bin/env bash
# Benchmark of the daemon: throughput on an audit file of a million sections (with `cat` on the
# same file as the I/O floor), peak memory, and start-up time with a 1 GiB <base>.000 in place.
# Prints a summary table. Takes a few minutes; build with -DCMAKE_BUILD_TYPE=Release first.
#
# Usage: scripts/benchmark.sh [path/to/ekadcdf]
# Environment:
#   BENCH_DIR       scratch and cache directory (default ${TMPDIR:-/tmp}/ekadcdf-bench); the
#                   generated audit file and the 1 GiB <base>.000 are kept there between runs
#   BENCH_SECTIONS  sections in the audit file (default 1000000)
#   BENCH_SEED      seed of the generator (default 1)
#   BENCH_STARTUP_MIB  size of <base>.000 for the start-up test in MiB (default 1024)
#   BENCH_RUNS      conversions of the whole file; the best is reported (default 3)
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
seed=${BENCH_SEED:-1}
startup_mib=${BENCH_STARTUP_MIB:-1024}
mkdir -p "$work"

# The audit file is cached under a name that changes with the generator, so an edited generator
# writes a new one.
generator="$here/bench/generate_audit.py"
stamp=$(sha256sum "$generator" | cut -c1-12)
audit="$work/audit-$sections-$seed-$stamp"
if [ ! -s "$audit" ]; then
  rm -f "$work"/audit-*
  echo "generating $sections sections into $audit ..."
  python3 "$generator" --sections "$sections" --seed "$seed" "$audit.tmp"
  mv "$audit.tmp" "$audit"
fi

python3 "$here/bench/run_benchmark.py" --binary "$binary" --audit "$audit" \
  --sections "$sections" --work "$work" --startup-size $((startup_mib * 1024 * 1024)) \
  --runs "${BENCH_RUNS:-3}"

#!/usr/bin/env bash
# Builds the libFuzzer targets and runs each for a bounded time on a copy of its seed corpus.
# Exits non-zero when a target reports a crash, a leak, a sanitizer finding or a time-out; the
# failing input is kept under the build directory's fuzz-artifacts/. Without clang and its
# fuzzer runtime it says so and exits 0.
#
# Usage: scripts/run-fuzzers.sh [seconds-per-target]   (default 60)
# Environment: FUZZ_BUILD_DIR (default build-fuzz in the checkout), CXX (a clang++ to use).
set -euo pipefail

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: $0 [seconds-per-target]" >&2
  exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build-fuzz}

# The first clang++ that can link a fuzz target.
probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
printf '%s\n' '#include <cstddef>' '#include <cstdint>' \
  'extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }' \
  >"$probe_dir/probe.cc"
compiler=
for candidate in ${CXX:-} clang++ clang++-19 clang++-18 clang++-17 clang++-16 clang++-15 clang++-14; do
  [[ $candidate == *clang* ]] || continue
  command -v "$candidate" >/dev/null 2>&1 || continue
  if "$candidate" -fsanitize=fuzzer,address,undefined "$probe_dir/probe.cc" \
    -o "$probe_dir/probe" >/dev/null 2>&1; then
    compiler=$(command -v "$candidate")
    break
  fi
done
if [[ -z $compiler ]]; then
  echo "run-fuzzers: skipped: no clang++ with the fuzzer runtime (apt-get install clang-14 libclang-rt-14-dev)"
  exit 0
fi

generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)
if [[ ! -f $build/CMakeCache.txt ]]; then
  cmake -S "$root/fuzz" -B "$build" "${generator[@]}" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j "$(nproc)" >/dev/null

artifacts=$build/fuzz-artifacts
mkdir -p "$artifacts"
work=$(mktemp -d)
trap 'rm -rf "$probe_dir" "$work"' EXIT

# target, largest input tried
targets=("audit_stream 16384" "fields 4096")
failed=0
summary=()
for entry in "${targets[@]}"; do
  read -r name max_len <<<"$entry"
  corpus=$work/$name
  mkdir -p "$corpus"
  cp "$root/fuzz/corpus/$name/"* "$corpus/"
  log=$build/$name-fuzz.log
  echo "run-fuzzers: $name for ${seconds}s"
  status=0
  "$build/${name}_fuzzer" "$corpus" -max_total_time="$seconds" -max_len="$max_len" \
    -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$name-" >"$log" 2>&1 || status=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  runs=${runs:-?}
  # A sanitizer or leak report fails the run even if the process managed to exit 0.
  if ((status == 0)) && grep -qE '^(==[0-9]+==ERROR|SUMMARY: (Address|Undefined|Leak)Sanitizer)|runtime error:' "$log"; then
    status=1
  fi
  if ((status != 0)); then
    failed=1
    summary+=("$name: FAILED after $runs executions (status $status); log: $log")
    echo "----- $name: last lines of $log"
    tail -n 40 "$log"
    echo "----- inputs kept in $artifacts:"
    ls -1 "$artifacts" | grep "^$name-" || true
  else
    summary+=("$name: $runs executions, no findings")
  fi
done

echo "run-fuzzers: summary"
printf '  %s\n' "${summary[@]}"
exit "$failed"

#!/bin/sh
# Runs the conformance cases: scripts/conformance.sh RUNNER DAEMON [PATTERN...].
#
# The runner watches a running daemon's output directory by listing it, then reading the size of
# each file it listed. A generation renamed between the two (a rotation at that instant) makes
# the runner itself stop with a FileNotFoundError traceback before it has compared anything; such
# a run says nothing about the output, so it is run again (three runs at most). Any other failure
# is the result.
runner="$1"
shift
attempt=1
while :; do
  out=$("$runner" "$@" 2>&1)
  status=$?
  printf '%s\n' "$out"
  case "$out" in
    *Traceback*FileNotFoundError*)
      if [ "$status" -ne 0 ] && [ "$attempt" -lt 3 ]; then
        attempt=$((attempt + 1))
        echo "conformance: the runner lost a file renamed while it looked; running it again"
        continue
      fi
      ;;
  esac
  exit "$status"
done

#!/usr/bin/env bash
# Runs every fuzz target for a while on its seed corpus, JOBS targets at a
# time, and fails if any of them finds a crash, a leak, a hang or a memory
# blow-up. Each target's log and crashing input are kept in OUT.
#
#   fuzz/smoke.sh BIN_DIR CORPUS_DIR OUT SECONDS JOBS TARGET...
set -uo pipefail

if [ $# -lt 6 ]; then
  echo "usage: $0 BIN_DIR CORPUS_DIR OUT SECONDS JOBS TARGET..." >&2
  exit 2
fi
bin=$1 corpus=$2 out=$3 seconds=$4 jobs=$5
shift 5
mkdir -p "$out"

run_one() {
  local t=$1
  local log="$out/fuzz-$t.log"
  mkdir -p "$corpus/$t"
  if "$bin/$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix="$out/fuzz-$t-" "$corpus/$t" >"$log" 2>&1; then
    echo "fuzz: $t for $seconds s: $(grep -o 'number_of_executed_units: *[0-9]*' "$log" | tail -n 1)"
  else
    echo "fuzz: $t FAILED (log $log):"
    tail -n 60 "$log"
    return 1
  fi
}
export -f run_one
export bin corpus out seconds

printf '%s\n' "$@" | xargs -P "$jobs" -I{} bash -c 'run_one {}'

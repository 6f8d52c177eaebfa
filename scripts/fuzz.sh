#!/usr/bin/env bash
# Runs every libFuzzer harness of tests/fuzz for the given number of seconds
# each (default 60), one after the other, at the lowest CPU priority.
#
#   scripts/fuzz.sh [seconds]
#
# Builds the fuzz tree (build-fuzz, clang, -DKOVA_FUZZ=ON) when needed. Each
# harness starts from its checked-in seeds (tests/fuzz/corpus/<name>) and
# what earlier runs found, kept in build-fuzz/fuzz-corpus/<name>, so the
# checked-in corpora stay small. A crash, leak, timeout or failed check
# leaves its input in build-fuzz/fuzz-artifacts/ and makes the script fail.
#
# Environment: KOVA_FUZZ_BUILD (build dir), KOVA_FUZZ_HARNESSES (names,
# space-separated; default all), KOVA_FUZZ_ARGS (extra libFuzzer flags).
# Must run as root, like the tests: the harnesses switch effective ids and
# write trusted. extended attributes in their temporary platform root.
set -uo pipefail
cd "$(dirname "$0")/.."

SECONDS_EACH=${1:-60}
BUILD=${KOVA_FUZZ_BUILD:-build-fuzz}
HARNESSES=${KOVA_FUZZ_HARNESSES:-"acl_record search_clause rule_object frame_reader module_methods http_front"}

# Flags of one harness beyond the common ones (none today).
declare -A EXTRA=()

if [[ ! -f "$BUILD/CMakeCache.txt" ]]; then
  launcher=()
  if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DKOVA_FUZZ=ON -DKOVA_BUILD_TESTS=ON -DKOVA_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null || exit 1
fi
targets=()
for h in $HARNESSES; do targets+=("kova_fuzz_$h"); done
# A set that starts a propagation starts the runner program.
targets+=(kova-acl-runner)
nice -n 19 cmake --build "$BUILD" -j "$(nproc)" --target "${targets[@]}" >/dev/null || {
  echo "fuzz.sh: build failed" >&2
  exit 1
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
ARTIFACTS="$BUILD/fuzz-artifacts"
mkdir -p "$ARTIFACTS"
status=0
printf '%-16s %12s %10s %8s %8s %s\n' harness executions exec/s cov ft result
for h in $HARNESSES; do
  work="$BUILD/fuzz-corpus/$h"
  mkdir -p "$work"
  cp -n tests/fuzz/corpus/"$h"/* "$work"/ 2>/dev/null
  log="$BUILD/fuzz-$h.log"
  # shellcheck disable=SC2086
  nice -n 19 "$BUILD/bin/kova_fuzz_$h" -max_total_time="$SECONDS_EACH" -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$ARTIFACTS/$h-" ${EXTRA[$h]:-} ${KOVA_FUZZ_ARGS:-} "$work" >"$log" 2>&1
  rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  result=ok
  if [[ $rc -ne 0 ]]; then
    result="FAILED (exit $rc, see $log)"
    status=1
    # CI keeps no build tree: the finding's report goes to the output.
    tail -n 60 "$log" >&2
  fi
  printf '%-16s %12s %10s %8s %8s %s\n' "$h" "${execs:-?}" "${rate:-?}" "${cov:-?}" "${ft:-?}" "$result"
done
exit $status

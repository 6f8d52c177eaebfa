#!/usr/bin/env bash
# Installs dependencies, builds twice (plain, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole CTest suite on both builds.
# Then the server's tests once more under ThreadSanitizer (build-tsan: only
# those programs and what they run): the front answers on many threads.
# With CI=true in the environment every build treats warnings as errors.
# In between, the fuzz stage: the libFuzzer harnesses are built with clang
# (build-fuzz, only the harnesses and what they drive), run once over their
# checked-in corpora, then each for KOVA_FUZZ_SECONDS (default 12) from
# those seeds (scripts/fuzz.sh). The release build's CTest summary comes
# last; the exit status is that of every stage.
# Must run as root: the tests switch effective ids and write trusted.
# extended attributes, as the platform does in production.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
JOBS=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$JOBS"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKOVA_SANITIZE=ON -DKOVA_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan -j "$JOBS"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
echo "== sanitizer build =="
(cd build-asan && ctest --output-on-failure -j "$JOBS" --timeout 600) || status=1

echo "== thread sanitizer: the server's tests =="
tsan_start=$SECONDS
TSAN_TESTS="server_unit_test server_test signin_test webd_settings_test system_log_test"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVA_TSAN=ON -DKOVA_BUILD_BENCH=OFF >/dev/null
# The test programs, and what they start: the server, kova-admin, the test modules.
cmake --build build-tsan -j "$JOBS" --target $TSAN_TESTS kova-webd kova-admin server_probe_module \
  server_bad_module || status=1
# Every process reports to its own file, the server and its workers as
# well as the test programs: any report fails the stage.
rm -rf build-tsan/tsan-reports && mkdir -p build-tsan/tsan-reports
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:log_path=$PWD/tsan-reports/report \
  ctest --output-on-failure -R "^($(echo $TSAN_TESTS | tr ' ' '|'))\$" --timeout 600) || status=1
if compgen -G "build-tsan/tsan-reports/report*" >/dev/null; then
  cat build-tsan/tsan-reports/report*
  status=1
fi
echo "thread sanitizer stage: $((SECONDS - tsan_start)) s"

echo "== fuzz harnesses =="
fuzz_start=$SECONDS
# fuzz.sh configures build-fuzz and builds the harnesses (the test programs
# of that tree are never built); CTest then replays every checked-in input.
bash scripts/fuzz.sh "${KOVA_FUZZ_SECONDS:-12}" || status=1
(cd build-fuzz && ctest --output-on-failure -R '^fuzz_' --timeout 600) || status=1
echo "fuzz stage: $((SECONDS - fuzz_start)) s"

echo "== release build =="
(cd build && ctest --output-on-failure -j "$JOBS" --timeout 600) || status=1
exit $status

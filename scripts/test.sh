#!/usr/bin/env bash
# Installs dependencies, builds twice (plain, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole CTest suite on both builds.
# In between, the fuzz stage: the libFuzzer harnesses are built with clang
# (build-fuzz, only the harnesses and what they drive), run once over their
# checked-in corpora, then each for KOVA_FUZZ_SECONDS (default 20) from
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

echo "== fuzz harnesses =="
fuzz_start=$SECONDS
# fuzz.sh configures build-fuzz and builds the harnesses (the test programs
# of that tree are never built); CTest then replays every checked-in input.
bash scripts/fuzz.sh "${KOVA_FUZZ_SECONDS:-20}" || status=1
(cd build-fuzz && ctest --output-on-failure -R '^fuzz_' --timeout 600) || status=1
echo "fuzz stage: $((SECONDS - fuzz_start)) s"

echo "== release build =="
(cd build && ctest --output-on-failure -j "$JOBS" --timeout 600) || status=1
exit $status

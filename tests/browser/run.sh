#!/usr/bin/env bash
# Browser tests of the permissions editor: builds a sample platform root with
# scripts/demo.sh (no rebuild), adds a large folder so a recursive apply can
# be cancelled half-way, and drives Debian's chromium with playwright-core.
# Exits 77 (CTest: skipped) with a message when chromium, node or the
# playwright-core package is missing.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
SRC=$(cd "$HERE/../.." && pwd)
BUILD=${KOVA_BUILD_DIR:-$SRC/build}
CHROMIUM=${KOVA_CHROMIUM:-/usr/bin/chromium}

skip() { echo "SKIP: $*"; exit 77; }
command -v node >/dev/null || skip "node is not installed (scripts/install-deps.sh installs nodejs and npm)"
[[ -x $CHROMIUM ]] || skip "chromium is not installed at $CHROMIUM (scripts/install-deps.sh installs it)"
if [[ ! -d $HERE/node_modules/playwright-core ]]; then
  (cd "$HERE" && npm ci --no-audit --no-fund >/dev/null 2>&1) || skip "playwright-core is not installed (cd tests/browser && npm ci)"
fi
[[ -x $BUILD/bin/kova-webd && -x $BUILD/bin/kova-admin && -d $BUILD/modules ]] || { echo "no build in $BUILD" >&2; exit 1; }

mkdir -p "$HERE/artifacts"
ROOT=$(mktemp -d /tmp/kova-browser-XXXXXX)
rmdir "$ROOT"  # demo.sh creates it and marks it as its own
cleanup() {
  bash "$SRC/scripts/demo.sh" --stop --root "$ROOT" >/dev/null 2>&1 || true
  rm -rf "$ROOT"
}
trap cleanup EXIT

bash "$SRC/scripts/demo.sh" --skip-build --build "$BUILD" --root "$ROOT" --port 0 --background --files 600 \
  >"$HERE/artifacts/demo.log" 2>&1 || { cat "$HERE/artifacts/demo.log"; exit 1; }
URL="http://127.0.0.1:$(cat "$ROOT/run/webd.port")/"

# 200 000 files: enough that a recursive apply is still running when the
# test presses Cancel.
BULK=$("$BUILD/bin/kova-admin" --root "$ROOT" share show projects | sed -n 's/^path: //p')/bulk
for i in $(seq -w 1 200); do
  mkdir -p "$BULK/part-$i"
  (cd "$BULK/part-$i" && touch file-{0001..1000})
done

status=0
KOVA_URL=$URL KOVA_ADMIN=$BUILD/bin/kova-admin KOVA_CHROMIUM=$CHROMIUM KOVA_ARTIFACTS=$HERE/artifacts KOVA_ROOT_DIR=$ROOT \
  node --test --test-reporter=tap "$HERE/editor.test.mjs" || status=$?

# Stop the server and wait for it, so that a sanitizer build has written its
# report; any report fails the test.
WEBD_PIDS=$(cat "$ROOT/run/demo.pids" 2>/dev/null || true)
bash "$SRC/scripts/demo.sh" --stop --root "$ROOT" >/dev/null 2>&1 || true
for pid in $WEBD_PIDS; do
  for _ in $(seq 1 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
done
cp "$ROOT/var/log/webd-error.log" "$ROOT/var/log/webd-console.log" "$HERE/artifacts/" 2>/dev/null || true
if grep -qE 'ERROR: (Address|Leak)Sanitizer|runtime error:' "$ROOT/var/log/webd-console.log" 2>/dev/null; then
  echo "kova-webd reported a sanitizer error:"
  cat "$ROOT/var/log/webd-console.log"
  status=1
fi
exit $status

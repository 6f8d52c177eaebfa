#!/usr/bin/env bash
# Load benchmark of kova-webd: wrk on loopback against the ACL "get" of one
# path, side by side with nginx serving a static file of the same size on the
# same machine (the floor: what plain HTTP costs here). Prints requests/s and
# p99 latency of both and their ratios. Then a mixed run (ACL get, Info and
# list_dir calls with one sign-in in every 100 requests, until --mixed
# requests are done), the same get while --slow connections trickle one
# header line every 2 s (slow-clients.py, from 127.0.0.2-41), and the peak
# resident memory (VmHWM) of the front and of each worker.
#
#   bash bench/webd-load/run.sh [--build DIR] [--seconds N] [--connections N] [--threads N] [--workers N]
#                               [--mixed N] [--slow N]
set -euo pipefail
cd "$(dirname "$0")/../.."
SRC=$(pwd)
BUILD=$SRC/build
SECONDS_RUN=10
CONNS=16
THREADS=2
WORKERS=4
MIXED=100000
SLOW=1000
while (($#)); do
  case "$1" in
    --build) BUILD=$2; shift ;;
    --seconds) SECONDS_RUN=$2; shift ;;
    --connections) CONNS=$2; shift ;;
    --threads) THREADS=$2; shift ;;
    --workers) WORKERS=$2; shift ;;
    --mixed) MIXED=$2; shift ;;
    --slow) SLOW=$2; shift ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

KOVA_WITH_BENCH=1 bash scripts/install-deps.sh
[[ -x $BUILD/bin/kova-webd ]] || { echo "no build in $BUILD (cmake --build $BUILD first)" >&2; exit 1; }

WORK=$(mktemp -d /tmp/kova-webd-load-XXXXXX)
# Users must be able to reach the shares below it.
chmod 755 "$WORK"
ROOT=$WORK/root
NGINX_PID=""
cleanup() {
  if [[ -n $NGINX_PID ]]; then kill "$NGINX_PID" 2>/dev/null || true; fi
  bash scripts/demo.sh --stop --root "$ROOT" >/dev/null 2>&1 || true
  rm -rf "$WORK"
}
trap cleanup EXIT

bash scripts/demo.sh --skip-build --no-ldap --build "$BUILD" --root "$ROOT" --port 0 --background --files 200 \
  >"$WORK/demo.log" 2>&1 || { cat "$WORK/demo.log"; exit 1; }
# demo.sh starts the default pool; restart with the size asked for.
bash scripts/demo.sh --stop --root "$ROOT" >/dev/null
"$BUILD/bin/kova-webd" --root "$ROOT" --modules "$BUILD/modules" --port 0 --port-file "$WORK/port" \
  --workers "$WORKERS" >"$WORK/webd.log" 2>&1 &
WEBD_PID=$!
echo $WEBD_PID >>"$ROOT/run/demo.pids"
for _ in $(seq 1 100); do [[ -s $WORK/port ]] && break; sleep 0.1; done
URL="http://127.0.0.1:$(cat "$WORK/port")/webapi"

TARGET=$("$BUILD/bin/kova-admin" --root "$ROOT" share show projects | sed -n 's/^path: //p')/engineering/project-01
curl -sS -c "$WORK/jar" -H 'Content-Type: application/json' \
  --data '{"api":"KOVA.Server.Session","version":1,"method":"login","params":{"account":"admin","passwd":"Admin-2024"}}' \
  "$URL" >"$WORK/login.json"
TOKEN=$(sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p' "$WORK/login.json")
SID=$(awk '$6 == "kova_sid" {print $7}' "$WORK/jar")
BODY='{"api":"KOVA.Core.ACL","version":1,"method":"get","params":{"file_path":"'"$TARGET"'","type":"all"}}'
curl -sS -H "Cookie: kova_sid=$SID" -H "X-Kova-Token: $TOKEN" -H 'Content-Type: application/json' \
  --data "$BODY" "$URL" >"$WORK/reply.json"
grep -q '"success":true' "$WORK/reply.json" || { echo "get failed: $(cat "$WORK/reply.json")" >&2; exit 1; }
SIZE=$(stat -c %s "$WORK/reply.json")

# One wrk script per call: the ACL get, and two calls that show the
# server's own share of the cost (answered by the front alone, and one
# worker round trip with little platform work).
lua() {  # lua FILE BODY
  {
    echo 'wrk.method = "POST"'
    echo "wrk.body = [[$2]]"
    echo 'wrk.headers["Content-Type"] = "application/json"'
    echo "wrk.headers[\"Cookie\"] = \"kova_sid=$SID\""
    echo "wrk.headers[\"X-Kova-Token\"] = \"$TOKEN\""
  } >"$1"
}
lua "$WORK/post.lua" "$BODY"
lua "$WORK/info.lua" '{"api":"KOVA.Server.Info","version":1,"method":"query"}'
lua "$WORK/dir.lua" '{"api":"KOVA.Server.Files","version":1,"method":"list_dir","params":{"path":"/projects/engineering/project-01/docs","limit":1}}'

# nginx with the same reply as a static file, as many workers as kova-webd.
mkdir -p "$WORK/nginx/html" "$WORK/nginx/logs"
cp "$WORK/reply.json" "$WORK/nginx/html/reply.json"
NPORT=$(((RANDOM % 20000) + 30000))
{
  echo "worker_processes $WORKERS;"
  echo "daemon off;"
  echo "pid $WORK/nginx/nginx.pid;"
  echo "error_log $WORK/nginx/logs/error.log;"
  echo "events { worker_connections 1024; }"
  echo "http { access_log off; default_type application/json;"
  echo "  server { listen 127.0.0.1:$NPORT; root $WORK/nginx/html; } }"
} >"$WORK/nginx/nginx.conf"
nginx -p "$WORK/nginx" -c "$WORK/nginx/nginx.conf" &
NGINX_PID=$!
for _ in $(seq 1 50); do curl -sf "http://127.0.0.1:$NPORT/reply.json" >/dev/null && break; sleep 0.1; done

# "Requests/sec" and the 99% latency in milliseconds from wrk --latency.
measure() {
  local out rps p99
  out=$(wrk -t"$THREADS" -c"$CONNS" -d"${SECONDS_RUN}s" --latency "$@")
  if grep -q 'Non-2xx' <<<"$out"; then echo "warning: non-2xx replies during $*" >&2; fi
  rps=$(awk '/^Requests\/sec:/ {print $2}' <<<"$out")
  p99=$(awk '$1 == "99%" { v = $2; u = v; sub(/^[0-9.]+/, "", u); sub(/[a-z]+$/, "", v);
        if (u == "us") v /= 1000; else if (u == "s") v *= 1000; print v }' <<<"$out")
  echo "$rps $p99"
}

if [[ ! -S /dev/log ]]; then
  echo "note: no /dev/log here, so every module syslog line costs a socket and a failed connect"
fi
echo "reply size: $SIZE bytes; wrk: $THREADS threads, $CONNS connections, ${SECONDS_RUN}s; $WORKERS workers each"
read -r WEBD_RPS WEBD_P99 < <(measure -s "$WORK/post.lua" "$URL")
read -r NGINX_RPS NGINX_P99 < <(measure "http://127.0.0.1:$NPORT/reply.json")
read -r INFO_RPS INFO_P99 < <(measure -s "$WORK/info.lua" "$URL")
read -r DIR_RPS DIR_P99 < <(measure -s "$WORK/dir.lua" "$URL")
printf '%-34s %12s %12s\n' "" "requests/s" "p99 (ms)"
printf '%-34s %12.0f %12.2f\n' "kova-webd ACL get" "$WEBD_RPS" "$WEBD_P99"
printf '%-34s %12.0f %12.2f\n' "nginx static file (floor)" "$NGINX_RPS" "$NGINX_P99"
printf '%-34s %12.0f %12.2f\n' "  for reference: Info (front only)" "$INFO_RPS" "$INFO_P99"
printf '%-34s %12.0f %12.2f\n' "  for reference: list_dir (worker)" "$DIR_RPS" "$DIR_P99"
awk -v a="$WEBD_RPS" -v b="$NGINX_RPS" -v c="$WEBD_P99" -v d="$NGINX_P99" \
  'BEGIN { printf "ratio kova-webd / nginx: throughput %.3f, p99 latency %.1fx\n", a / b, (d > 0 ? c / d : 0) }'

# ---- mixed requests with sign-ins --------------------------------------------
LOGIN='{"api":"KOVA.Server.Session","version":1,"method":"login","params":{"account":"alice","passwd":"Alice-2024"}}'
{
  echo 'local n = 0'
  echo "local login = [[$LOGIN]]"
  echo "local calls = { [[$BODY]], [[{\"api\":\"KOVA.Server.Info\",\"version\":1,\"method\":\"query\"}]],"
  echo "  [[{\"api\":\"KOVA.Server.Files\",\"version\":1,\"method\":\"list_dir\",\"params\":{\"path\":\"/projects/engineering/project-01/docs\",\"limit\":1}}]] }"
  echo "local auth = { [\"Content-Type\"] = \"application/json\", [\"Cookie\"] = \"kova_sid=$SID\", [\"X-Kova-Token\"] = \"$TOKEN\" }"
  echo 'local plain = { ["Content-Type"] = "application/json" }'
  echo 'request = function()'
  echo '  n = n + 1'
  echo '  if n % 100 == 0 then return wrk.format("POST", "/webapi", plain, login) end'
  echo '  return wrk.format("POST", "/webapi", auth, calls[n % 3 + 1])'
  echo 'end'
} >"$WORK/mixed.lua"
done_requests=0
mixed_started=$(date +%s.%N)
while ((done_requests < MIXED)); do
  out=$(wrk -t"$THREADS" -c"$CONNS" -d10s -s "$WORK/mixed.lua" "$URL")
  if grep -q 'Non-2xx' <<<"$out"; then echo "warning: non-2xx replies during the mixed run" >&2; fi
  n=$(awk '/requests in/ {print $1}' <<<"$out")
  done_requests=$((done_requests + n))
done
mixed_rps=$(awk -v n="$done_requests" -v t0="$mixed_started" -v t1="$(date +%s.%N)" 'BEGIN { printf "%.0f", n / (t1 - t0) }')
echo "mixed: $done_requests requests (about $((done_requests / 100)) sign-ins), $mixed_rps requests/s"

# ---- slow clients ------------------------------------------------------------
if ((SLOW > 0)); then
  python3 bench/webd-load/slow-clients.py --port "$(cat "$WORK/port")" --count "$SLOW" \
    --seconds $((SECONDS_RUN + 20)) >"$WORK/slow.log" 2>&1 &
  SLOW_PID=$!
  sleep 5  # all of them open and sending
  read -r SLOW_RPS SLOW_P99 < <(measure -s "$WORK/post.lua" "$URL")
  t0=$(date +%s%N)
  curl -sS -m 5 -H 'Content-Type: application/json' --data "$LOGIN" "$URL" | grep -q '"success":true' ||
    echo "warning: sign-in failed with slow clients open" >&2
  login_ms=$((($(date +%s%N) - t0) / 1000000))
  wait "$SLOW_PID" || true
  printf '%-34s %12.0f %12.2f\n' "ACL get with $SLOW slow clients" "$SLOW_RPS" "$SLOW_P99"
  echo "a sign-in with $SLOW slow clients open took ${login_ms} ms"
  cat "$WORK/slow.log"
fi

# ---- memory ------------------------------------------------------------------
mem() { awk -v k="$2:" '$1 == k { printf "%.1f", $2 / 1024 }' "/proc/$1/status" 2>/dev/null; }
echo "resident memory, MiB (peak VmHWM / now VmRSS): front $(mem "$WEBD_PID" VmHWM) / $(mem "$WEBD_PID" VmRSS)"
for w in $(ps -o pid= --ppid "$WEBD_PID"); do
  echo "  worker $w: $(mem "$w" VmHWM) / $(mem "$w" VmRSS)"
done

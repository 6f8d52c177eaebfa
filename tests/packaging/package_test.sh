#!/usr/bin/env bash
# The Debian package as an administrator gets it: built with CPack from the
# build tree, unpacked into a scratch root (dpkg-deb -x), its files and
# maintainer scripts checked, its unit checked by systemd-analyze verify,
# and the unpacked server started with the packaged settings (paths moved
# into the scratch root, ports free ones) to serve the editor over HTTPS.
# Exit 77 (skipped) only when a tool it needs is missing.
set -euo pipefail
BUILD=${KOVA_BUILD_DIR:?set KOVA_BUILD_DIR to the build tree}
for tool in cpack dpkg-deb systemd-analyze curl openssl; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed"; exit 77; }
done
S=$(mktemp -d /tmp/kova-pkg-XXXXXX)
WEBD=""
cleanup() {
  local rc=$?
  if [[ -n $WEBD ]] && kill "$WEBD" 2>/dev/null; then
    for _ in $(seq 1 50); do kill -0 "$WEBD" 2>/dev/null || break; sleep 0.1; done
    if kill -KILL "$WEBD" 2>/dev/null; then
      echo "FAIL: the packaged server did not stop within 5 s of SIGTERM" >&2
      rc=1
    fi
    wait "$WEBD" 2>/dev/null || true
  fi
  rm -rf "$S"
  exit $rc
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$BUILD" && cpack -G DEB -B "$S/out" >"$S/cpack.log" 2>&1) || { cat "$S/cpack.log"; fail "cpack"; }
DEB=$(ls "$S"/out/kova-acl_*.deb)
R=$S/root
dpkg-deb -x "$DEB" "$R"
dpkg-deb -e "$DEB" "$S/control"

for f in usr/sbin/kova-webd usr/sbin/kova-admin usr/lib/kova/modules/libwebapi-KOVA.Core.ACL.so \
         usr/lib/kova/libkovacore.so.7 usr/lib/kova/libwebapi-PLM5.so usr/share/kova/ui/index.html \
         usr/share/kova/ui/app.js etc/kova/webd.conf lib/systemd/system/kova-webd.service \
         usr/share/man/man8/kova-webd.8.gz usr/share/man/man8/kova-admin.8.gz; do
  [[ -f $R/$f ]] || fail "$f is not in the package"
done
for f in usr/sbin/kova-webd usr/sbin/kova-admin usr/lib/kova/kova-acl-runner; do
  [[ -x $R/$f ]] || fail "$f is not executable"
done
for f in postinst prerm postrm; do [[ -x $S/control/$f ]] || fail "maintainer script $f missing or not executable"; done
grep -qx /etc/kova/webd.conf "$S/control/conffiles" || fail "webd.conf is not a conffile"
grep -q '^Depends:.*libssl3' "$S/control/control" || fail "no dependency on libssl: $(grep Depends "$S/control/control")"
# Nothing points back into the build tree: libraries are found in /usr/lib/kova.
for f in "$R"/usr/sbin/* "$R"/usr/lib/kova/kova-acl-runner "$R"/usr/lib/kova/modules/*.so; do
  rp=$(readelf -d "$f" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
  [[ $rp == /usr/lib/kova ]] || fail "$f has run path '$rp'"
done
zcat "$R/usr/share/man/man8/kova-webd.8.gz" | grep -q '^\.TH KOVA-WEBD 8' || fail "kova-webd.8 is no man page"

export LD_LIBRARY_PATH=$R/usr/lib/kova
grep -q -- '--https-port' <<<"$("$R/usr/sbin/kova-webd" --help)" || fail "kova-webd --help does not list --https-port"
grep -q '^  init ' <<<"$("$R/usr/sbin/kova-admin" --help 2>&1)" || fail "kova-admin --help does not list init"

# systemd-analyze resolves the unit's default dependencies (sysinit.target
# and others) inside --root: the host's targets stand in for a system's.
cp -n /lib/systemd/system/*.target "$R/lib/systemd/system/" 2>/dev/null || true
out=$(systemd-analyze verify --man=no --root="$R" kova-webd.service 2>&1) || fail "systemd-analyze verify: $out"
[[ -z $out ]] || fail "systemd-analyze verify warns: $out"
grep -q '^NoNewPrivileges=yes' "$R/lib/systemd/system/kova-webd.service" || fail "unit lost NoNewPrivileges"

# The unpacked server with the packaged settings, moved into the scratch root.
DATA=$S/data
"$R/usr/sbin/kova-admin" --root "$DATA" init >/dev/null
sed -e "s|^root = .*|root = $DATA|" -e "s|^modules = |modules = $R|" -e "s|^ui = |ui = $R|" \
    -e "s|^https-port = .*|https-port = 0\nhttps-port-file = $S/https.port|" -e "s|^port = .*|port = 0|" \
    "$R/etc/kova/webd.conf" >"$S/webd.conf"
"$R/usr/sbin/kova-webd" --config "$S/webd.conf" >"$S/webd.out" 2>&1 &
WEBD=$!
for _ in $(seq 1 100); do [[ -s $S/https.port ]] && break; kill -0 "$WEBD" 2>/dev/null || break; sleep 0.1; done
[[ -s $S/https.port ]] || { cat "$S/webd.out"; fail "the packaged server did not start"; }
PORT=$(cat "$S/https.port")
printed=$(sed -n 's/.*SHA-256 \([0-9A-F:]*\).*/\1/p' "$S/webd.out" | tail -n 1)
served=$(timeout 30 openssl s_client -connect "127.0.0.1:$PORT" </dev/null 2>/dev/null | openssl x509 -noout -fingerprint -sha256 | cut -d= -f2)
[[ -n $printed && $printed == "$served" ]] || fail "printed fingerprint '$printed', served '$served'"
page=$(curl -sS --max-time 30 --cacert "$DATA/etc/tls/webd.crt" "https://localhost:$PORT/") || fail "no HTTPS answer with the generated certificate"
grep -qi '<html' <<<"$page" || fail "the editor's page is not served: $page"
grep -q 'module libwebapi-KOVA.Core.ACL.so loaded' "$S/webd.out" || fail "the packaged module was not loaded: $(cat "$S/webd.out")"
echo "package $(basename "$DEB") checked"

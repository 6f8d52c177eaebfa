#!/usr/bin/env bash
# Sets up a sample platform and runs the web-administration server on it.
#
#   bash scripts/demo.sh [--root DIR] [--https-port N] [--host ADDR] [--port N]
#                        [--build DIR] [--files N] [--skip-build] [--no-ldap]
#                        [--ldap-port N] [--background]
#   bash scripts/demo.sh --stop [--root DIR]     stop the server and slapd
#   bash scripts/demo.sh --remove [--root DIR]   stop, then delete the root
#
#   --root DIR       the sample platform root (default /var/tmp/kova-demo)
#   --https-port N   HTTPS port of the editor (default 5443; 0: a free one)
#   --host ADDR      HTTPS address (default 127.0.0.1; 0.0.0.0: every interface)
#   --port N         plain HTTP port, loopback only (default 5080; 0: a free one,
#                    and then a free HTTPS port too unless --https-port is given)
#   --ldap-port N    port of the private LDAP server (default: a free one in 38900-39100)
#   --background     return once it runs (stop it with --stop)
#
# On a fresh machine it installs the dependencies and builds first (output
# in BUILD/demo-build.log). The sample root holds an administrator and
# ordinary users with known passwords, groups, three shares (one with ACLs,
# one read-only, one without ACL support), a few thousand files with ACLs,
# and an LDAP cache filled from a private slapd. The server runs in the
# foreground (Ctrl-C stops everything) unless --background is given.
set -euo pipefail
cd "$(dirname "$0")/.."
SRC=$(pwd)

ROOT=/var/tmp/kova-demo
PORT=5080
HTTPS_PORT=
HOST=127.0.0.1
LDAP_PORT=
REMOVE=0
BUILD=$SRC/build
FILES=3000
SKIP_BUILD=0
LDAP=1
BACKGROUND=0
STOP=0
while (($#)); do
  case "$1" in
    --root) ROOT=$2; shift ;;
    --port) PORT=$2; shift ;;
    --host) HOST=$2; shift ;;
    --https-port) HTTPS_PORT=$2; shift ;;
    --ldap-port) LDAP_PORT=$2; shift ;;
    --remove) STOP=1; REMOVE=1 ;;
    --build) BUILD=$2; shift ;;
    --files) FILES=$2; shift ;;
    --skip-build) SKIP_BUILD=1 ;;
    --no-ldap) LDAP=0 ;;
    --background) BACKGROUND=1 ;;
    --stop) STOP=1 ;;
    -h|--help) sed -n '2,25p' "$0"; exit 0 ;;
    *) echo "demo: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done

[[ -n $HTTPS_PORT ]] || { [[ $PORT == 0 ]] && HTTPS_PORT=0 || HTTPS_PORT=5443; }
PIDS=$ROOT/run/demo.pids
say() { printf '== %s\n' "$*"; }

stop_demo() {
  [[ -f $PIDS ]] || return 0
  while read -r pid; do
    [[ -n $pid ]] && kill "$pid" 2>/dev/null || true
  done <"$PIDS"
  rm -f "$PIDS"
}

if ((STOP)); then
  stop_demo
  echo "demo stopped"
  if ((REMOVE)) && [[ -e $ROOT ]]; then
    [[ -e $ROOT/.kova-demo ]] || { echo "demo: $ROOT was not made by this script; left as it is" >&2; exit 1; }
    rm -rf "$ROOT"
    echo "removed $ROOT"
  fi
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "demo: run as root: the server switches to each signed-in user" >&2
  exit 1
fi

if ((!SKIP_BUILD)); then
  mkdir -p "$BUILD"
  LOG=$BUILD/demo-build.log
  say "Installing dependencies and building in $BUILD (a few minutes the first time; log: $LOG)"
  if ! { bash scripts/install-deps.sh && cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
         cmake --build "$BUILD" -j "$(nproc)" --target kova-webd kova-admin kova_acl_module; } >"$LOG" 2>&1; then
    tail -n 25 "$LOG" >&2
    echo "demo: the build failed; the whole log is $LOG" >&2
    exit 1
  fi
fi
KA=("$BUILD/bin/kova-admin" --root "$ROOT")
[[ -x $BUILD/bin/kova-webd && -x $BUILD/bin/kova-admin ]] || { echo "demo: no build in $BUILD" >&2; exit 1; }

# ---- a fresh sample root -------------------------------------------------
say "Creating the sample platform root $ROOT"
if [[ -e $ROOT && ! -e $ROOT/.kova-demo ]]; then
  echo "demo: $ROOT exists and was not made by this script; choose another --root" >&2
  exit 1
fi
stop_demo
# The certificate outlives a new sample root: a browser that accepted it
# once keeps trusting it.
KEEP_TLS=$(mktemp -d)
[[ -d $ROOT/etc/tls ]] && cp -a "$ROOT/etc/tls" "$KEEP_TLS/"
rm -rf "$ROOT"
mkdir -p "$ROOT/run" "$ROOT/var/log" "$ROOT/etc"
chmod 755 "$ROOT"  # every signed-in user must be able to reach the shares below it
touch "$ROOT/.kova-demo"
[[ -d $KEEP_TLS/tls ]] && cp -a "$KEEP_TLS/tls" "$ROOT/etc/"
rm -rf "$KEEP_TLS"
"${KA[@]}" init >/dev/null

declare -A PASSWD=([admin]=Admin-2024 [alice]=Alice-2024 [bob]=Bob-2024 [carol]=Carol-2024 [dave]=Dave-2024)
"${KA[@]}" user passwd admin "${PASSWD[admin]}" >/dev/null
"${KA[@]}" user add alice --password "${PASSWD[alice]}" --desc "Alice Andersen, finance" --email alice@example.com >/dev/null
"${KA[@]}" user add bob --password "${PASSWD[bob]}" --desc "Bob Berg, engineering" --email bob@example.com >/dev/null
"${KA[@]}" user add carol --password "${PASSWD[carol]}" --desc "Carol Costa, engineering" --email carol@example.com >/dev/null
"${KA[@]}" user add dave --password "${PASSWD[dave]}" --desc "Dave Dahl, contractor" --email dave@example.com >/dev/null
"${KA[@]}" group add staff --desc "Permanent staff" >/dev/null
"${KA[@]}" group add finance --desc "Finance team" >/dev/null
"${KA[@]}" group add engineering --desc "Engineering team" >/dev/null
for u in alice bob carol; do "${KA[@]}" group member add staff "$u" >/dev/null; done
"${KA[@]}" group member add finance alice >/dev/null
for u in bob carol; do "${KA[@]}" group member add engineering "$u" >/dev/null; done

# New share folders are root's with mode 0755; the demo opens its folders'
# mode bits (--mode 0777) so that every signed-in user reaches the files and
# the share privileges and ACLs alone decide.
"${KA[@]}" share add projects --comment "Team projects" --default-priv none --mode 0777 >/dev/null
"${KA[@]}" share add archive --read-only --comment "Read-only archive" --default-priv none --mode 0777 >/dev/null
"${KA[@]}" share add usbcopy --no-acl --comment "Copy of a USB drive (no ACL support)" --default-priv none --mode 0777 >/dev/null
"${KA[@]}" share priv projects --group staff rw >/dev/null
"${KA[@]}" share priv projects --user dave ro >/dev/null
"${KA[@]}" share priv archive --group staff ro >/dev/null
"${KA[@]}" share priv usbcopy --group staff rw >/dev/null
share_path() { "${KA[@]}" share show "$1" | sed -n 's/^path: //p'; }
PROJECTS=$(share_path projects)
ARCHIVE=$(share_path archive)
USBCOPY=$(share_path usbcopy)

say "Writing $FILES sample files"
depts=(finance engineering marketing sales legal support research operations design quality)
per_dir=$(( (FILES + 99) / 100 ))
n=0
for d in "${depts[@]}"; do
  for s in $(seq -w 1 10); do
    dir="$PROJECTS/$d/project-$s"
    mkdir -p "$dir/docs"
    for f in $(seq 1 "$per_dir"); do
      ((n < FILES)) || break
      name=$(printf '%03d' "$f")
      if ((f % 3 == 0)); then echo "$d $s $f" >"$dir/docs/note-$name.txt"; else echo "$d $s $f" >"$dir/report-$name.txt"; fi
      n=$((n + 1))
    done
  done
done
for y in 2019 2020 2021 2022; do mkdir -p "$ARCHIVE/$y"; for q in 1 2 3 4; do echo "$y Q$q" >"$ARCHIVE/$y/q$q.txt"; done; done
mkdir -p "$USBCOPY/photos"; for i in $(seq 1 20); do echo "photo $i" >"$USBCOPY/photos/img-$i.jpg"; done

# The share roots' rules; everything below inherits them once the server
# has applied them recursively (see below), and two departments add their
# own after that.
"${KA[@]}" acl set "$PROJECTS" \
  group:administrators:allow:rwxpdDaARWcCo:fd-- \
  group:staff:allow:rwxpdDaARWc--:fd-- \
  user:dave:allow:r-x---a-R-c--:fd-- >/dev/null
"${KA[@]}" acl set "$ARCHIVE" group:administrators:allow:rwxpdDaARWcCo:fd-- group:staff:allow:r-x---a-R-c--:fd-- >/dev/null

# ---- LDAP ------------------------------------------------------------------
in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
free_port() {  # free_port FIRST LAST
  local p
  for p in $(seq "$1" "$2"); do
    in_use "$p" || { echo "$p"; return 0; }
  done
  return 1
}

LDAP_PASSWD=Ldap-2024
if ((LDAP)); then
  say "Starting a private LDAP server and filling the LDAP cache"
  LD=$ROOT/ldap
  mkdir -p "$LD/db"
  if [[ -n $LDAP_PORT ]]; then
    LPORT=$LDAP_PORT
    if in_use "$LPORT"; then echo "demo: port $LPORT is in use; choose another --ldap-port" >&2; exit 1; fi
  else
    LPORT=$(free_port 38900 39100) || { echo "demo: no free port in 38900-39100 for LDAP; give --ldap-port N" >&2; exit 1; }
  fi
  cat >"$LD/slapd.conf" <<EOF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/nis.schema
include /etc/ldap/schema/inetorgperson.schema
pidfile $LD/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
maxsize 268435456
suffix "dc=example,dc=com"
rootdn "cn=admin,dc=example,dc=com"
rootpw secret
directory $LD/db
EOF
  {
    printf 'dn: dc=example,dc=com\nobjectClass: dcObject\nobjectClass: organization\ndc: example\no: Example\n\n'
    printf 'dn: ou=people,dc=example,dc=com\nobjectClass: organizationalUnit\nou: people\n\n'
    printf 'dn: ou=groups,dc=example,dc=com\nobjectClass: organizationalUnit\nou: groups\n\n'
    for i in $(seq -w 1 40); do
      printf 'dn: uid=ldapuser%s,ou=people,dc=example,dc=com\nobjectClass: inetOrgPerson\nobjectClass: posixAccount\n' "$i"
      printf 'uid: ldapuser%s\ncn: Directory User %s\nsn: User%s\ndisplayName: Directory User %s\n' "$i" "$i" "$i" "$i"
      printf 'mail: ldapuser%s@example.com\ndescription: Remote office %s\n' "$i" "$i"
      printf 'uidNumber: %d\ngidNumber: 100\nhomeDirectory: /home/ldapuser%s\n' $((20000 + 10#$i)) "$i"
      printf 'userPassword: %s\n\n' "$LDAP_PASSWD"
    done
    # Fixed gidNumbers; members by memberUid.
    declare -A LDAP_MEMBERS=([sales-eu]="ldapuser01 ldapuser02" [sales-us]="ldapuser03" [auditors]="ldapuser01"
                             [contractors]="ldapuser04" [helpdesk]="")
    gnum=30001
    for g in sales-eu sales-us auditors contractors helpdesk; do
      printf 'dn: cn=%s,ou=groups,dc=example,dc=com\nobjectClass: posixGroup\ncn: %s\n' "$g" "$g"
      printf 'gidNumber: %d\ndescription: Directory group %s\n' $((gnum++)) "$g"
      for m in ${LDAP_MEMBERS[$g]}; do printf 'memberUid: %s\n' "$m"; done
      printf '\n'
    done
  } >"$LD/data.ldif"
  /usr/sbin/slapadd -q -f "$LD/slapd.conf" -l "$LD/data.ldif" >"$LD/slapadd.log" 2>&1
  # A port found free can be taken before slapd binds it (another program's outgoing connection may get it
  # as its local port): slapd then exits at once, and the next free port is tried.
  for attempt in 1 2 3 4 5; do
    /usr/sbin/slapd -f "$LD/slapd.conf" -h "ldap://127.0.0.1:$LPORT/" >"$LD/slapd.log" 2>&1 && break
    if [[ -n $LDAP_PORT || $attempt == 5 ]] || ! LPORT=$(free_port $((LPORT + 1)) 39100); then
      cat "$LD/slapd.log" >&2
      echo "demo: slapd did not start on port $LPORT" >&2
      exit 1
    fi
  done
  for _ in $(seq 1 100); do [[ -s $LD/slapd.pid ]] && break; sleep 0.1; done
  cat "$LD/slapd.pid" >>"$PIDS"
  "${KA[@]}" ldap bind --uri "ldap://127.0.0.1:$LPORT/" --base dc=example,dc=com \
    --binddn cn=admin,dc=example,dc=com --password secret --suffix example.com >/dev/null
  "${KA[@]}" ldap sync >"$LD/sync.log" 2>&1 || { cat "$LD/sync.log" >&2; echo "demo: the LDAP sync failed" >&2; exit 1; }
fi

# A cache-only Windows domain: its accounts come from an LDIF export (no
# domain controller), get ids base + RID in the range the join assigns, and
# can appear in rules and own files; they cannot sign in.
say "Joining the cache-only domain CORP"
{
  for u in jdoe:1105 msmith:1106 kwong:1107; do
    printf 'dn: CN=%s,CN=Users,DC=corp,DC=example\nobjectClass: inetOrgPerson\nuid: %s\ncn: %s\nsn: %s\n' "${u%%:*}" "${u%%:*}" "${u%%:*}" "${u%%:*}"
    printf 'mail: %s@corp.example\nobjectSid: S-1-5-21-3623811015-3361044348-30300820-%s\nprimaryGroupID: 513\n\n' "${u%%:*}" "${u##*:}"
  done
  printf 'dn: CN=Domain Users,CN=Users,DC=corp,DC=example\nobjectClass: groupOfNames\ncn: Domain Users\n'
  printf 'objectSid: S-1-5-21-3623811015-3361044348-30300820-513\nmember: CN=jdoe,CN=Users,DC=corp,DC=example\n\n'
  printf 'dn: CN=Accounting,CN=Users,DC=corp,DC=example\nobjectClass: groupOfNames\ncn: Accounting\ndescription: CORP accounting\n'
  printf 'objectSid: S-1-5-21-3623811015-3361044348-30300820-1200\nmember: CN=msmith,CN=Users,DC=corp,DC=example\n\n'
} >"$ROOT/run/corp.ldif"
"${KA[@]}" domain join CORP --from-ldif "$ROOT/run/corp.ldif"

# ---- the server --------------------------------------------------------------
say "Starting kova-webd"
PORT_FILE=$ROOT/run/webd.port
HTTPS_PORT_FILE=$ROOT/run/webd-https.port
rm -f "$PORT_FILE" "$HTTPS_PORT_FILE"
# Plain HTTP on loopback for this script's own calls; HTTPS for the browser.
WEBD_ARGS=(--config "" --root "$ROOT" --modules "$BUILD/modules" --host 127.0.0.1 --port "$PORT" --port-file "$PORT_FILE"
           --https-host "$HOST" --https-port "$HTTPS_PORT" --https-port-file "$HTTPS_PORT_FILE")
if ((BACKGROUND)); then
  # Detached from this terminal: its console lines go to a file.
  setsid "$BUILD/bin/kova-webd" "${WEBD_ARGS[@]}" </dev/null >"$ROOT/var/log/webd-console.log" 2>&1 &
else
  "$BUILD/bin/kova-webd" "${WEBD_ARGS[@]}" &
fi
WEBD=$!
echo "$WEBD" >>"$PIDS"
if ((!BACKGROUND)); then trap 'stop_demo; exit 0' INT TERM; fi
for _ in $(seq 1 100); do [[ -s $PORT_FILE ]] && break; kill -0 "$WEBD" 2>/dev/null || break; sleep 0.1; done
[[ -s $PORT_FILE ]] || { echo "demo: the server did not start; see $ROOT/var/log/webd-error.log" >&2; stop_demo; exit 1; }
URL="http://127.0.0.1:$(cat "$PORT_FILE")/"
case $HOST in
  0.0.0.0|::) SHOW_HOST=$(hostname -f 2>/dev/null || hostname) ;;
  *:*) SHOW_HOST="[$HOST]" ;;
  *) SHOW_HOST=$HOST ;;
esac
HTTPS_URL="https://$SHOW_HOST:$(cat "$HTTPS_PORT_FILE")/"
FINGERPRINT=$(sed -n 's/.*SHA-256 \([0-9A-F:]*\).*/\1/p' "$ROOT/var/log/webd-error.log" | tail -n 1)

# Every sample file gets an inheriting ACL the way an administrator would
# do it: one recursive apply through the server.
say "Applying the share's rules to every file (recursive apply through the server)"
JAR=$ROOT/run/cookies
api() {  # api JSON-BODY [TOKEN]
  curl -sS -b "$JAR" -c "$JAR" -H 'Content-Type: application/json' -H "X-Kova-Token: ${2:-}" \
    --data "$1" "${URL}webapi"
}
token=$(api '{"api":"KOVA.Server.Session","version":1,"method":"login","params":{"account":"admin","passwd":"'"${PASSWD[admin]}"'"}}' |
  sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p')
for dir in "$PROJECTS" "$ARCHIVE"; do
  share=/$(basename "$dir")
  reply=$(api '{"api":"KOVA.Core.ACL","version":1,"method":"set","params":{"file_path":"'"$dir"'","dirPaths":"'"$share"'","change_acl":false,"acl_recur":true}}' "$token")
  task=$(sed -n 's/.*"task_id":"\([^"]*\)".*/\1/p' <<<"$reply")
  if [[ -z $task ]]; then echo "  $share: not applied ($(sed -n 's/.*"error":\({[^}]*}\).*/\1/p' <<<"$reply"))"; continue; fi
  for _ in $(seq 1 600); do
    st=$(api '{"api":"KOVA.Core.ACL","version":1,"method":"status","params":{"task_id":"'"$task"'"}}' "$token")
    [[ $st == *'"finished":true'* || $st == *'"success":false'* ]] && break
    sleep 0.2
  done
  if [[ $st == *'"finished":true'* && $st != *'"success":false'* ]]; then echo "  $share: done"
  else echo "  $share: not finished ($(sed -n 's/.*"error":\({[^}]*}\).*/\1/p' <<<"$st"))"; fi
done
api '{"api":"KOVA.Server.Session","version":1,"method":"logout"}' "$token" >/dev/null || true
rm -f "$JAR"
"${KA[@]}" acl set "$PROJECTS/finance" \
  group:finance:allow:rwxpdDaARWcCo:fd-- \
  user:bob:deny:rwxpdDaARWcCo:fd-- >/dev/null
"${KA[@]}" acl set "$PROJECTS/engineering" group:engineering:allow:rwxpdDaARWc--:fd-- >/dev/null
# Directory accounts in rules and as owners, named as the search shows them.
"${KA[@]}" acl set "$PROJECTS/sales" \
  group:staff:allow:r-x---a-R-c--:fd-- 'group:CORP\Accounting:allow:r-x---a-R-c--:fd--' >/dev/null
"${KA[@]}" acl owner "$PROJECTS/sales" 'user:CORP\jdoe' >/dev/null
if ((LDAP)); then
  "${KA[@]}" acl set "$PROJECTS/marketing" \
    group:staff:allow:r-x---a-R-c--:fd-- group:sales-eu@example.com:allow:rwxpdDaARWc--:fd-- \
    user:ldapuser03@example.com:allow:r-x---a-R-c--:fd-- >/dev/null
  "${KA[@]}" acl owner "$PROJECTS/marketing" user:ldapuser01@example.com >/dev/null
fi

# ---- the banner ----------------------------------------------------------------
cat <<EOF

  kova-webd is running at $HTTPS_URL
  Its certificate is self-signed; check that your browser shows this SHA-256 fingerprint:
    $FINGERPRINT
  (plain HTTP for scripts on this machine: $URL)
  Platform root: $ROOT (logs in $ROOT/var/log)

  Sign in as:
    admin / ${PASSWD[admin]}   administrator
    alice / ${PASSWD[alice]}   staff, finance
    bob   / ${PASSWD[bob]}     staff, engineering (denied in projects/finance)
    carol / ${PASSWD[carol]}   staff, engineering
    dave  / ${PASSWD[dave]}    contractor, read-only on projects

  Shares: projects (ACLs), archive (read-only), usbcopy (no ACL support).
EOF
if ((LDAP)); then
  cat <<BANNER
  LDAP (suffix example.com): ldapuser01..ldapuser40 and 5 groups, usable in rules and as owners
    (projects/marketing: owner ldapuser01@example.com, sales-eu@example.com may write).
    Sign in as ldapuser01@example.com / $LDAP_PASSWD (any ldapuserNN); sales-eu holds ldapuser01 and 02.
    slapd listens on port $LPORT.
BANNER
fi
CORP_IDS=$("${KA[@]}" domain ranges | awk '$1 == "CORP" {print $2 ".." $3}')
cat <<BANNER
  Domain CORP (cache only, ids $CORP_IDS): CORP\jdoe, CORP\msmith, CORP\kwong,
    CORP\Accounting and CORP\Domain Users are usable in rules and as owners
    (projects/sales: owner CORP\jdoe, CORP\Accounting may read); they cannot sign in (no domain controller).
BANNER
ROOT_OPT=""
[[ $ROOT != /var/tmp/kova-demo ]] && ROOT_OPT=" --root $ROOT"
echo "  Stop: bash scripts/demo.sh --stop$ROOT_OPT    Stop and delete the root: bash scripts/demo.sh --remove$ROOT_OPT"
if ((BACKGROUND)); then exit 0; fi
echo "  Press Ctrl-C to stop."
wait "$WEBD" || true
stop_demo

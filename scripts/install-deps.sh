#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the fuzz harnesses
# (clang and its libFuzzer and sanitizer runtimes) and the demo need.
# Idempotent: packages already present are skipped quickly.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  libjsoncpp-dev libsqlite3-dev sqlite3 libicu-dev libldap-dev libargon2-dev libssl-dev libsodium-dev
  libboost-dev libcpp-httplib-dev libgtest-dev libgmock-dev libbenchmark-dev
  attr acl slapd ldap-utils curl chromium
  openssl systemd  # the package test: certificate fingerprints, systemd-analyze verify
  clang libclang-rt-14-dev
)
# The browser tests also need node and npm. Some machines carry a nodejs
# package that bundles npm and conflicts with Debian's npm: ask only for
# what is missing as a command.
command -v node >/dev/null 2>&1 || PACKAGES+=(nodejs)
command -v npm >/dev/null 2>&1 || PACKAGES+=(npm)
if [[ "${KOVA_WITH_BENCH:-0}" == "1" ]]; then
  PACKAGES+=(nginx-light wrk python3)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  SUDO=""
  [[ $(id -u) -ne 0 ]] && SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  # slapd must not ask for an administrator password while installing.
  echo "slapd slapd/no_configuration boolean true" | $SUDO debconf-set-selections || true
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
# The Debian slapd package starts a system instance; the tests start their own.
# Likewise nginx (benchmarks only): the load benchmark starts its own.
if command -v service >/dev/null 2>&1; then
  service slapd stop >/dev/null 2>&1 || true
  service nginx stop >/dev/null 2>&1 || true
fi
# playwright-core for the browser tests (it drives the chromium above and
# downloads no browser of its own).
BROWSER_TESTS="$(cd "$(dirname "$0")/.." && pwd)/tests/browser"
if [[ ! -d $BROWSER_TESTS/node_modules/playwright-core ]]; then
  (cd "$BROWSER_TESTS" && npm ci --no-audit --no-fund --loglevel=error)
fi

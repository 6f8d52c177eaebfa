#!/usr/bin/env bash
# The tests' share of the source: non-blank lines of C/C++ (*.c *.cc *.cpp
# *.h *.hpp) and JavaScript (*.js *.mjs), tracked by git, node_modules and
# vendored files left out. Test lines are everything under tests/; all
# other tracked source (sdk, platform, module, server, tools, bench, the
# web UI) is the code under test.
# Usage: scripts/test-share.sh [--check PERCENT]   (exit 1 above PERCENT)
set -euo pipefail
cd "$(dirname "$0")/.."

count() {  # reads file names on stdin, prints their non-blank line total
    local total=0 n f
    while IFS= read -r f; do
        n=$(grep -cv '^[[:space:]]*$' "$f" || true)
        total=$((total + n))
    done
    echo "$total"
}

files() {
    git ls-files -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' '*.js' '*.mjs' | grep -v '/node_modules/'
}

printf '%-10s %8s\n' area lines
other=0
for area in $(files | grep -v '^tests/' | cut -d/ -f1 | sort -u); do
    n=$(files | grep "^$area/" | count)
    printf '%-10s %8d\n' "$area" "$n"
    other=$((other + n))
done
tests=$(files | grep '^tests/' | count)
total=$((other + tests))
share=$(awk -v t="$tests" -v a="$total" 'BEGIN { printf "%.1f", 100 * t / a }')
printf '%-10s %8d\n' tests "$tests"
printf '%-10s %8d\n' total "$total"
echo "tests share: $share%"

if [[ "${1:-}" == "--check" ]]; then
    limit="${2:?--check needs a percentage}"
    awk -v s="$share" -v l="$limit" 'BEGIN { exit !(s <= l) }' || { echo "above $limit%" >&2; exit 1; }
fi

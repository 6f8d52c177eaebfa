#!/usr/bin/env bash
# Mutation run: applies each mutant of tests/mutation/mutants.txt (one small
# textual change to security- or correctness-critical code) alone, rebuilds
# only the test programs that should catch it, runs those tests and reports
# whether they failed ("killed") or passed ("survived").
#
# Usage: scripts/mutate.sh [-b BUILD_DIR] [-f MUTANT_FILE] [-t TIMEOUT] [ID...]
#   BUILD_DIR    a configured build tree (default build-mutation, configured
#                and built here when missing)
#   TIMEOUT      seconds per test program (default 180)
#   ID...        run only these mutants
# Writes BUILD_DIR/mutation/results.md (a table) and one log per mutant.
# A mutant whose text is no longer in its file is "not applicable"; one
# that does not compile is "stillborn"; neither counts. Exit status 0 when
# at least 90% of the counted mutants were killed.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)
build=build-mutation
list=tests/mutation/mutants.txt
timeout=180
while getopts "b:f:t:" opt; do
    case $opt in
    b) build=$OPTARG ;;
    f) list=$OPTARG ;;
    t) timeout=$OPTARG ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
only=("$@")

if [[ ! -f $build/CMakeCache.txt ]]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
        -DCMAKE_C_COMPILER_LAUNCHER=ccache -DKOVA_BUILD_BENCH=OFF >/dev/null
else
    cmake "$build" >/dev/null  # test files may have come or gone
fi
cmake --build "$build" -j2 >/dev/null
out=$build/mutation
rm -rf "$out"
mkdir -p "$out"

# The mutants as records "id<US>file<US>find<US>repl<US>tests<US>what", one a line.
mapfile -t mutants < <(python3 - "$list" <<'EOF'
import sys
blocks, cur = [], {}
for line in open(sys.argv[1], encoding="utf-8").read().split("\n") + [""]:
    if line.startswith("#"):
        continue
    if not line.strip():
        if cur:
            blocks.append(cur)
        cur = {}
        continue
    key, _, value = line.partition(":")
    cur[key.strip()] = value[1:] if value.startswith(" ") else value
for b in blocks:
    missing = [k for k in ("id", "file", "find", "tests", "what") if k not in b]
    if missing:
        sys.exit("mutant %s lacks %s" % (b.get("id", "?"), ", ".join(missing)))
    print("\x1f".join([b["id"], b["file"], b["find"], b.get("repl", ""), b["tests"], b["what"]]))
EOF
)

# The file being mutated is put back whatever happens.
current=""
restore() { if [[ -n $current ]]; then cp "$out/original" "$current"; current=""; fi; }
trap restore EXIT INT TERM

# Test programs (build targets) behind the tests a regex selects; the
# browser and packaging tests are never part of a mutation run.
targets_for() {
    (cd "$build" && ctest -N -R "$1" -E '^(browser_|package_|module_exports)' --show-only=json-v1) |
        python3 -c '
import json, os, sys
names = set()
for t in json.load(sys.stdin).get("tests", []):
    cmd = t.get("command") or []
    if cmd and os.path.basename(cmd[0]) not in ("bash", "sh", "cmake"):
        names.add(os.path.basename(cmd[0]))
print(" ".join(sorted(names)))'
}

killed=0 survived=0 skipped=0 stillborn=0
{
    echo "| mutant | file | change | result | caught by |"
    echo "| --- | --- | --- | --- | --- |"
} >"$out/results.md"
for rec in "${mutants[@]}"; do
    IFS=$'\x1f' read -r id file find repl tests what <<<"$rec"
    if ((${#only[@]})) && [[ " ${only[*]} " != *" $id "* ]]; then continue; fi
    log=$out/$id.log
    applied=$(python3 - "$file" "$find" "$repl" "$out/original" <<'EOF'
import shutil, sys
path, find, repl, keep = sys.argv[1:5]
find, repl = find.replace("\\n", "\n"), repl.replace("\\n", "\n")
try:
    text = open(path, encoding="utf-8").read()
except FileNotFoundError:
    print("absent"); sys.exit()
if find not in text:
    print("absent"); sys.exit()
shutil.copyfile(path, keep)
open(path, "w", encoding="utf-8").write(text.replace(find, repl, 1))
print("applied")
EOF
)
    if [[ $applied != applied ]]; then
        result="not applicable"; by=""
        skipped=$((skipped + 1))
    else
        current=$file
        progs=$(targets_for "$tests")
        # shellcheck disable=SC2086
        if [[ -z $progs ]]; then
            echo "no test matches $tests" >&2
            exit 2
        elif ! cmake --build "$build" -j2 --target $progs >"$log" 2>&1; then
            result="stillborn"; by=""
            stillborn=$((stillborn + 1))
        elif (cd "$build" && ctest -R "$tests" -E '^(browser_|package_|module_exports)' -j2 \
                  --timeout "$timeout" --output-on-failure) >>"$log" 2>&1; then
            result="survived"; by=""
            survived=$((survived + 1))
        else
            result="killed"
            by=$(grep -oE '[0-9]+ - [A-Za-z0-9_]+ \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception)' "$log" |
                 sed -E 's/^[0-9]+ - ([A-Za-z0-9_]+).*/\1/' | sort -u | tr '\n' ' ')
            killed=$((killed + 1))
        fi
        restore
    fi
    printf '%-28s %-16s %s\n' "$id" "$result" "$by"
    printf '| %s | %s | %s | %s | %s |\n' "$id" "$file" "$what" "$result" "${by% }" >>"$out/results.md"
done
# Leave the build as the sources are.
cmake --build "$build" -j2 >/dev/null

counted=$((killed + survived))
pct=$(awk -v k="$killed" -v c="$counted" 'BEGIN { printf "%.1f", c ? 100 * k / c : 0 }')
summary="killed $killed of $counted ($pct%); survived $survived; stillborn $stillborn; not applicable $skipped"
echo "$summary" | tee -a "$out/results.md"
awk -v p="$pct" 'BEGIN { exit !(p >= 90) }'

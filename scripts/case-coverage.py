#!/usr/bin/env python3
"""Per-test-case line coverage of the code under test, to find tests that
repeat others. Configures and builds a clang source-coverage tree (continuous
mode, so task processes and servers that end with _exit still count), runs
each GoogleTest case of every CTest program alone (other CTest tests as one
case), and writes to BUILD/case-coverage/:
  cases.json     {"ctest::case": {"ok": bool, "lines": {file: [line, ...]}}}
  report.txt     per case: test file, lines covered, lines no other case covers
  dominated.txt  cases whose covered lines all lie inside one other case's
A case with no line of its own only runs code others run too; whether it
checks an outcome no other case checks is for its reader to judge.
Usage: scripts/case-coverage.py [-b BUILD] [FILTER...]   (root; about 30 min)
"""
import collections, glob, json, os, re, shutil, subprocess, sys

SRC = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
args = sys.argv[1:]
build = os.path.join(SRC, 'build-case-coverage')
if args[:1] == ['-b']:
    build, args = os.path.abspath(args[1]), args[2:]
out_dir = os.path.join(build, 'case-coverage')
flags = '-fprofile-instr-generate -fcoverage-mapping -mllvm -runtime-counter-relocation'
subprocess.run(['cmake', '-S', SRC, '-B', build, '-DCMAKE_BUILD_TYPE=Debug', '-DCMAKE_C_COMPILER=clang',
                '-DCMAKE_CXX_COMPILER=clang++', '-DCMAKE_C_FLAGS=' + flags, '-DCMAKE_CXX_FLAGS=' + flags,
                '-DCMAKE_EXE_LINKER_FLAGS=-fprofile-instr-generate',
                '-DCMAKE_SHARED_LINKER_FLAGS=-fprofile-instr-generate', '-DKOVA_BUILD_BENCH=OFF'],
               check=True, stdout=subprocess.DEVNULL)
subprocess.run(['cmake', '--build', build, '-j', str(os.cpu_count() or 2)], check=True, stdout=subprocess.DEVNULL)
os.makedirs(out_dir, exist_ok=True)

# The instrumented objects of the code under test.
objects = [f for f in sorted(glob.glob(build + '/lib/*') + glob.glob(build + '/modules/*.so')) +
           [build + '/bin/kova-webd', build + '/bin/kova-admin']
           if os.path.isfile(f) and not os.path.islink(f)]

listing = json.loads(subprocess.run(['ctest', '--show-only=json-v1'], cwd=build, check=True,
                                    capture_output=True, text=True).stdout)
cases = []
for test in listing['tests']:
    name, cmd = test['name'], test.get('command', [])
    # Symbol-table and package checks run no code under test; the runs
    # without *xattrat repeat a program's cases.
    if re.match(r'(platform|module)_exports|package_deb', name) or name.endswith('_without_xattrat'):
        continue
    props = {p['name']: p['value'] for p in test.get('properties', [])}
    env = dict(os.environ)
    for kv in props.get('ENVIRONMENT') or []:
        key, _, value = kv.partition('=')
        env[key] = value
    cwd = props.get('WORKING_DIRECTORY', build)
    if cmd and cmd[0].startswith(build + '/bin/'):
        text = subprocess.run(cmd + ['--gtest_list_tests'], env=env, cwd=cwd, capture_output=True, text=True).stdout
        suite = None
        for line in text.splitlines():
            if not line.strip():
                continue
            if not line.startswith(' '):
                suite = line.split('#')[0].strip()
                continue
            case = suite + line.split('#')[0].strip()
            cases.append((name + '::' + case, cmd + ['--gtest_filter=' + case], env, cwd))
    else:
        cases.append((name + '::*', cmd, env, cwd))

results = {}
raw = os.path.join(out_dir, 'raw')
for key, cmd, env, cwd in cases:
    if args and not any(a in key for a in args):
        continue
    shutil.rmtree(raw, ignore_errors=True)
    os.makedirs(raw)
    env = dict(env, LLVM_PROFILE_FILE=raw + '/%p-%m%c.profraw')
    try:
        ok = subprocess.run(cmd, env=env, cwd=cwd, capture_output=True, timeout=900).returncode == 0
    except subprocess.TimeoutExpired:
        ok = False
    lines = collections.defaultdict(set)
    profiles = glob.glob(raw + '/*.profraw')
    if profiles:
        subprocess.run(['llvm-profdata', 'merge', '-sparse', '-o', raw + '/all.profdata'] + profiles,
                       capture_output=True)
        export = ['llvm-cov', 'export', '-format=lcov', '-skip-functions', '-instr-profile', raw + '/all.profdata',
                  objects[0]]
        for o in objects[1:]:
            export += ['-object', o]
        lcov = subprocess.run(export + ['-ignore-filename-regex', '(^/usr/|/tests/)'], capture_output=True,
                              text=True).stdout
        current = None
        for line in lcov.splitlines():
            if line.startswith('SF:'):
                current = os.path.relpath(os.path.normpath(line[3:]), SRC)
            elif line.startswith('DA:'):
                number, count = line[3:].split(',')[:2]
                if int(count) > 0:
                    lines[current].add(int(number))
    results[key] = {'ok': ok, 'lines': {f: sorted(v) for f, v in lines.items()}}
    print(key, 'ok' if ok else 'FAILED', sum(len(v) for v in lines.values()), flush=True)
shutil.rmtree(raw, ignore_errors=True)
json.dump(results, open(os.path.join(out_dir, 'cases.json'), 'w'))

# Which test file holds each case.
source_of = {}
for f in subprocess.run(['git', '-C', SRC, 'ls-files', 'tests/*.cpp'], capture_output=True, text=True).stdout.split():
    for m in re.finditer(r'^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)', open(os.path.join(SRC, f)).read(), re.M):
        source_of[m.group(1) + '.' + m.group(2)] = f
def file_of(key):
    case = key.split('::', 1)[1]
    return source_of.get(re.sub(r'/\d+$', '', case).split('/')[-1], source_of.get(case, '?'))

covered = {k: {(f, n) for f, ns in v['lines'].items() for n in ns} for k, v in results.items()}
times = collections.Counter()
for s in covered.values():
    times.update(s)
with open(os.path.join(out_dir, 'report.txt'), 'w') as report:
    report.write('# test file\tctest::case\tlines covered\tlines no other case covers\tpassed\n')
    for key in sorted(covered, key=lambda k: (file_of(k), k)):
        own = sum(1 for x in covered[key] if times[x] == 1)
        report.write(f'{file_of(key)}\t{key}\t{len(covered[key])}\t{own}\t{results[key]["ok"]}\n')
by_size = sorted(covered, key=lambda k: len(covered[k]))
with open(os.path.join(out_dir, 'dominated.txt'), 'w') as dominated:
    dominated.write('# test file\tctest::case\tlines covered\ta case covering all of them\tits file\n')
    for key in sorted(covered, key=lambda k: (file_of(k), k)):
        s = covered[key]
        other = next((o for o in by_size if o != key and len(covered[o]) >= len(s) and s <= covered[o]), None)
        if s and other:
            dominated.write(f'{file_of(key)}\t{key}\t{len(s)}\t{other}\t{file_of(other)}\n')
print('written to', out_dir)

#!/usr/bin/env bash
# Builds zep with clang's source-based coverage, runs the whole suite (helpers and tools included:
# every process writes its own profile), and prints line and branch coverage per family, then per
# directory (core/, posix/, tools/).
#   scripts/coverage.sh            build, run, report
#   scripts/coverage.sh --report   report on the profiles of the last run only
#   scripts/coverage.sh --files    also list every source file
# ZEP_BUILD_DIR picks the build directory (build-cov); the HTML report goes to
# $ZEP_BUILD_DIR/coverage/ when --html is given. ZEP_COV_TESTS, a ctest regular expression, runs
# only the suites it names (what one group of suites reaches, in a fraction of the time).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${ZEP_BUILD_DIR:-build-cov}
report_only=0 files=0 html=0
for a in "$@"; do
  case $a in
    --report) report_only=1 ;;
    --files) files=1 ;;
    --html) html=1 ;;
    *) echo "usage: $0 [--report] [--files] [--html]" >&2; exit 2 ;;
  esac
done
ver=$(clang --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -1)
profdata=$(command -v llvm-profdata-"$ver" || command -v llvm-profdata)
cov=$(command -v llvm-cov-"$ver" || command -v llvm-cov)

if [ $report_only = 0 ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_COMPILER=clang -DZEP_COVERAGE=ON >/dev/null
  cmake --build "$build"
  rm -rf "$build/profiles"
  mkdir -p "$build/profiles"
  # %4m: a pool of four files per binary, merged online, so that forked and spawned processes
  # of one binary don't overwrite each other's counts.
  # The profile runtime puts a variable of its own into a child's environment, which the test of
  # an exact environment block sees.
  LLVM_PROFILE_FILE="$PWD/$build/profiles/%4m.profraw" \
    ctest --test-dir "$build" -j "$(nproc)" --output-on-failure ${ZEP_COV_TESTS:+-R "$ZEP_COV_TESTS"} \
    -E '^(install_and_consume|Process\.EnvironmentBlockAndDescriptors)$' || true
fi
"$profdata" merge -sparse "$build"/profiles/*.profraw -o "$build/zep.profdata"

objects=(-object "$build/libzep.so")
# The tools' components are linked into tests as well as into the tools.
for f in "$build"/bin/* "$build"/tests/test_* "$build"/tests/helper_*; do
  [ -x "$f" ] && [ -f "$f" ] && objects+=(-object "$f")
done
ignore="^/usr/"
"$cov" export -summary-only -instr-profile="$build/zep.profdata" "${objects[@]}" \
  -ignore-filename-regex="$ignore" >"$build/coverage.json" 2>"$build/coverage.warnings"
[ $html = 1 ] && "$cov" show -format=html -output-dir="$build/coverage" \
  -instr-profile="$build/zep.profdata" "${objects[@]}" -ignore-filename-regex="$ignore"

python3 - "$build/coverage.json" "$PWD" "$files" "$build" <<'PY'
import json, os, re, sys
data = json.load(open(sys.argv[1]))["data"][0]["files"]
root = sys.argv[2].rstrip("/") + "/"
build = os.path.join(root, sys.argv[4])
# Families by the stem of a source file's name; the first pattern that matches wins.
families = [
    ("frame, catalogue, errors", r"^(core|posix)/.*/zep(ecf|error|lib|frame|catalogue|startup)"),
    ("assertions", r"^core/.*/zepassert"),
    ("log, hex dump", r"^core/.*/zep(log|hexdump)"),
    ("ring", r"^core/.*/rambo"),
    ("trace, mask, dumps", r"^core/.*/g(ptrace|trace|tmask)"),
    ("allocator, memory debugger", r"^core/.*/zep(alloc|memory|memdbg)"),
    ("atomics, latches", r"^core/.*/zep(atomic|latch)"),
    ("time", r"^core/.*/zeptime"),
    ("files, directories", r"^core/.*/zep(h?file|primfile|dir)"),
    ("threads, processes, libraries", r"^core/.*/zep(thread|process|library)"),
    ("system information", r"^core/.*/zep(sysinfo|cpu)"),
    ("thread-specific data", r"^core/.*/zeptsd"),
    ("numerics", r"^core/.*/zep(int128|dec|numconv|text)"),
    ("OS layer", r"^posix/"),
    ("tools", r"^tools/"),
]
def fam(path):
    for name, pat in families:
        if re.search(pat, path):
            return name
    return path.split("/")[0] + "/ (other)"
rows, dirs = {}, {}
def add(table, key, s):
    t = table.setdefault(key, [0, 0, 0, 0])
    t[0] += s["lines"]["covered"]; t[1] += s["lines"]["count"]
    t[2] += s["branches"]["covered"]; t[3] += s["branches"]["count"]
per_file = []
for f in data:
    # Relative names (ccache's base directory) are relative to the build directory.
    path = os.path.normpath(os.path.join(build, f["filename"]))
    path = path[len(root):] if path.startswith(root) else path
    if not re.match(r"^(core|posix|tools)/", path):
        continue
    s = f["summary"]
    add(rows, fam(path), s)
    add(dirs, path.split("/")[0] + "/", s)
    add(dirs, "all", s)
    per_file.append((path, s))
def pct(a, b):
    return f"{100.0 * a / b:5.1f}%" if b else "   - "
def line(name, t):
    print(f"{name:30} {pct(t[0], t[1])} {t[0]:6}/{t[1]:<6} {pct(t[2], t[3])} {t[2]:6}/{t[3]:<6}")
print(f"{'family':30} {'lines':>20} {'branches':>20}")
for name, _ in families:
    if name in rows: line(name, rows.pop(name))
for name in sorted(rows):
    if rows[name][1]: line(name, rows[name])
print()
for name in ("core/", "posix/", "tools/", "all"):
    if name in dirs: line(name, dirs[name])
if sys.argv[3] == "1":
    print()
    for path, s in sorted(per_file):
        line(path, [s["lines"]["covered"], s["lines"]["count"], s["branches"]["covered"], s["branches"]["count"]])
PY

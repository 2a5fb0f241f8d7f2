#!/usr/bin/env bash
# Builds zep and runs the demo: the library's main job end to end. A trace area is built in
# shared memory; a program opens the log and makes operations fail in three threads and a second
# process while traced; the trace is dumped, shown and exported; the log is read back; last, a
# crashing program leaves a trap file that is read back.
# Run as root on a fresh Debian machine, it first installs what the build needs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prereq.sh
zep_require "${zep_base_packages[@]}"
build=${ZEP_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target zep zeperr zeplog zepdemo zeptrace zeptrap zepcrash >/dev/null
bin="$build/bin"
work=$(mktemp -d)
trace=zepdemo-$$
trap '"$bin/zeptrace" destroy "$trace" >/dev/null 2>&1 || true' EXIT

say() { printf '\n== %s\n' "$*"; }
run() { printf '$ %s\n' "$*"; "$@"; }

say "The catalogue turns codes and function identifiers into words"
run "$bin/zeperr" 0x9000001A
run "$bin/zeperr" 0x081A0016
say "A trace area in shared memory, switched on, for the product's processes to join"
run "$bin/zeptrace" create "$trace" --size 4M --on
say "A program opens the log and makes operations fail in three threads and a second process"
run "$bin/zepdemo" --trace "$trace" "$work/zepdemo.log"
say "How the trace stands"
run "$bin/zeptrace" status "$trace"
say "An instantaneous dump of the live trace"
run "$bin/zeptrace" dump "$trace" "$work/demo.dump"
say "The calls of each thread as they ran, then the errors alone"
run "$bin/zeptrace" show "$work/demo.dump" --view flow --limit 25
run "$bin/zeptrace" show "$work/demo.dump" --view flow --errors --limit 10
say "The trace as trace-event JSON (open it in Perfetto UI or speedscope)"
run "$bin/zeptrace" export "$work/demo.dump" --format chrome "$work/demo.json"
say "The log the failures left, checked record by record"
run "$bin/zeplog" --summary "$work/zepdemo.log"
say "The trace area goes"
run "$bin/zeptrace" destroy "$trace"
say "A crash leaves a trap file; its reader names the signal, the function and its callers"
(ulimit -c 0; "$bin/zepcrash" null "$work/zepcrash.trap" >/dev/null 2>&1) || true
run "$bin/zeptrap" "$work/zepcrash.trap" | head -n 40
echo
echo "files of the demo: $work"

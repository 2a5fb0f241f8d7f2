#!/usr/bin/env bash
# Builds zep and runs the demo: the catalogue tool on a few codes and identifiers, then a
# program whose operations fail, each leaving its record in the log file it opened, and the
# log reader walking that file.
# Run as root on a fresh Debian machine, it first installs what the build needs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prereq.sh
zep_require "${zep_base_packages[@]}"
build=${ZEP_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target zep zeperr zeplog zepdemo >/dev/null
bin="$build/bin"

run() { printf '\n$ %s\n' "$*"; "$@"; }
run "$bin/zeperr" 0x9000001A
run "$bin/zeperr" 0x081A0016
run "$bin/zeperr" ECF_PARTIAL_INFO MoveFile
run "$bin/zeperr" 0x9000052B || true
log=$(mktemp -d)/zepdemo.log
echo
run "$bin/zepdemo" "$log"
run "$bin/zeplog" "$log"
run "$bin/zeplog" --summary --ecf ECF_FILE_EXISTS "$log"

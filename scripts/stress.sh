#!/usr/bin/env bash
# Runs the stress tests (ring, trace, log, allocator) at the long size: ZEP_STRESS (default 50)
# multiplies their records and rounds; CI runs them at 1. A second argument picks the build
# directory's sanitizer: scripts/stress.sh 50 thread runs them under ThreadSanitizer. The test
# programs are run directly, without ctest's time limit per test.
set -euo pipefail
cd "$(dirname "$0")/.."
export ZEP_STRESS=${1:-50}
sanitize=${2:-}
build=${ZEP_BUILD_DIR:-build${sanitize:+-$sanitize}}
cmake -S . -B "$build" -G Ninja ${sanitize:+-DZEP_SANITIZE=$sanitize} >/dev/null
cmake --build "$build"
echo "== stress tests at ZEP_STRESS=$ZEP_STRESS"
failed=0
run() {
  local start=$SECONDS
  if "$build/tests/$1" --gtest_filter="$2" >"$build/stress-$1.log" 2>&1; then
    echo "ok     $1 $2 ($((SECONDS - start)) s)"
  else
    echo "FAILED $1 $2 ($((SECONDS - start)) s), see $build/stress-$1.log"
    failed=1
  fi
}
run test_rambo_stress '*'
run test_ipcqueue 'Queue.StreamsBetweenProcesses'
run test_ipcwaitpost 'Waitpost.AnotherProcessNeverSeesTwoPostsMixed'
run test_gtrace 'Trace.ThreadsAndProcessesConcurrently'
run test_log 'Log.ManyProcessesAppendToOneFile'
run test_alloc 'Area.ThreadsShareOneArea'
exit $failed

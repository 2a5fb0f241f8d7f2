#!/usr/bin/env bash
# Runs the stress tests (ring, trace, log, allocator) at the long size: ZEP_STRESS (default 50)
# multiplies their records and rounds; CI runs them at 1. A second argument picks the build
# directory's sanitizer: scripts/stress.sh 50 thread runs them under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
export ZEP_STRESS=${1:-50}
sanitize=${2:-}
build=${ZEP_BUILD_DIR:-build${sanitize:+-$sanitize}}
cmake -S . -B "$build" -G Ninja ${sanitize:+-DZEP_SANITIZE=$sanitize} >/dev/null
cmake --build "$build"
tests='RamboStress|RamboThreads|Rambo.ConcurrentClaims|Trace.ThreadsAndProcessesConcurrently'
tests+='|Log.ManyProcessesAppendToOneFile|Area.ThreadsShareOneArea'
echo "== stress tests at ZEP_STRESS=$ZEP_STRESS"
start=$SECONDS
ctest --test-dir "$build" --output-on-failure -R "$tests" --timeout 3600
echo "== done in $((SECONDS - start)) s"

#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang under AddressSanitizer+UBSan and runs each
# for a while, starting from its committed seeds (tests/fuzz/corpus/<target>); what a run adds to
# the corpus stays in the build directory. Any finding (crash, sanitizer report, hang, leak) fails
# the script and leaves the input in $ZEP_BUILD_DIR/fuzz/findings/.
#   scripts/fuzz.sh [seconds per target] [target ...]   (default 600 s, every target)
#   scripts/fuzz.sh --seeds                             remake the committed seeds
# ZEP_FUZZ_SKIP names targets to leave out (space-separated).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${ZEP_BUILD_DIR:-build-fuzz}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_COMPILER=clang -DZEP_FUZZ=ON -DZEP_SANITIZE=address -DZEP_BUILD_TESTS=OFF \
  -DZEP_WERROR=ON >/dev/null
cmake --build "$build"
bin="$build/fuzz"

if [ "${1:-}" = "--seeds" ]; then
  tmp=$(mktemp -d)
  "$build/bin/zepdemo" "$tmp/demo.log" >/dev/null
  rm -rf tests/fuzz/corpus
  ASAN_OPTIONS=detect_leaks=0 "$bin/make_seeds" tests/fuzz/corpus "$tmp/demo.log"
  rm -rf "$tmp"
  du -sh tests/fuzz/corpus/*
  exit 0
fi

seconds=${1:-600}
[ $# -gt 0 ] && shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in tests/fuzz/fuzz_*.cpp; do t=${f##*/fuzz_}; targets+=("${t%.cpp}"); done
fi
mkdir -p "$bin/findings"
failed=()
for t in "${targets[@]}"; do
  case " ${ZEP_FUZZ_SKIP:-} " in *" $t "*) echo "== $t: skipped"; continue ;; esac
  corpus="$bin/corpus/$t"
  mkdir -p "$corpus"
  echo "== $t: $seconds s"
  # -timeout: an input that takes 10 s is a hang. -rss_limit_mb: the trace dumps are large.
  if ! "$bin/fuzz_$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
      -artifact_prefix="$bin/findings/$t-" "$corpus" "tests/fuzz/corpus/$t" >"$bin/$t.log" 2>&1; then
    failed+=("$t")
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$bin/$t.log" | head -5 || true
  fi
  grep -E '^stat::number_of_executed_units|^Done' "$bin/$t.log" | head -2 || true
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "== findings in: ${failed[*]} (inputs in $bin/findings, logs in $bin/<target>.log)"
  exit 1
fi
echo "== no findings"

#!/usr/bin/env bash
# The size of the suite against the code it tests, in lines that are neither blank nor comment
# only, of the C and C++ sources git knows: tests/ against core/, posix/ and tools/.
#   scripts/size.sh            the totals and their ratio
#   scripts/size.sh FILE...    also the count of each file named
set -euo pipefail
cd "$(dirname "$0")/.."
count() { cat "$@" | grep -Ev '^\s*($|//|/?\*)' | wc -l; }
sources() { git ls-files "$@" | grep -E '\.(c|cpp|h)$'; }
for f in "$@"; do printf '%6d %s\n' "$(count "$f")" "$f"; done
tests=$(count $(sources tests)) code=$(count $(sources core posix tools))
echo "tests $tests code $code ($((100 * tests / code))%)"

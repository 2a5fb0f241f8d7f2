#!/usr/bin/env bash
# Builds zep with its tests and tools and runs the whole suite.
# ZEP_BUILD_DIR picks the build directory; any arguments go to CMake's configure step
# (for example -DZEP_SANITIZE=address).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${ZEP_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja "$@"
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

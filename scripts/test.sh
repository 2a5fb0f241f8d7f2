#!/usr/bin/env bash
# Builds zep with its tests and tools and runs the whole suite.
# ZEP_BUILD_DIR picks the build directory; any arguments go to CMake's configure step
# (for example -DZEP_SANITIZE=address). Run as root on a fresh Debian machine, it first installs
# the packages the build and the tests need; run as another user, it names the command that does.
# Warnings are errors here: this is the developers' and CI's build.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prereq.sh
mapfile -t ci_packages < <(zep_ci_packages)
zep_require "${zep_base_packages[@]}" "${ci_packages[@]}"
build=${ZEP_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DZEP_WERROR=ON "$@"
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a separate project
# against it twice: through find_package(zep) and through pkg-config. The prefix is moved after
# installation, as a packager's staging directory is: nothing may depend on where it was made.
# An installed tool runs from the prefix without any library path set.
set -euo pipefail
build=$1
src=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH
cmake --install "$build" --prefix "$work/staging" >/dev/null
mv "$work/staging" "$work/prefix"
if [ -e "$work/prefix/bin/zeperr" ]; then
  "$work/prefix/bin/zeperr" 0x9000001A | grep -q ECF_
fi
cmake -S "$src" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/consumer"
lib=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1)
flags=$(PKG_CONFIG_PATH="$lib" pkg-config --cflags --libs zep)
c++ -std=c++20 "$src/main.cpp" $flags -o "$work/pc_consumer"
LD_LIBRARY_PATH="$(dirname "$lib")" "$work/pc_consumer"
# grep reads the whole listing: with -q it would leave objdump a closed pipe (SIGPIPE).
objdump -p "$(dirname "$lib")/libzep.so" | grep 'SONAME *libzep.so.1$' >/dev/null

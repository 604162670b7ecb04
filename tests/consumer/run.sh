#!/bin/sh
# Installs the built library into a scratch prefix, then builds and runs the consumer
# program twice: once through find_package(Tarvo), once through pkg-config.
set -eu
build=$1
work=$2
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

cmake -S "$here" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-build/consumer"

pc=$(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs tarvo)
# shellcheck disable=SC2086
c++ -std=c++20 "$here/main.cpp" -o "$work/consumer-pc" $pc
LD_LIBRARY_PATH="$prefix/lib" "$work/consumer-pc"
echo "consumer built and ran through find_package and pkg-config"

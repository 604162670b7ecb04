#!/bin/sh
# Builds the Debian packages from a configured build tree, checks their dependencies and
# contents, unpacks both into a scratch root with `dpkg -x` (no installation, no root), and
# builds and runs the consumer program against that root through find_package(Tarvo) and
# through pkg-config.
set -eu
build=$1
work=$2
consumer=$(cd "$(dirname "$0")/../consumer" && pwd)
rm -rf "$work"
mkdir -p "$work"

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack"; }
runtime=$(ls "$work"/debs/libtarvo0_*_*.deb)
dev=$(ls "$work"/debs/libtarvo-dev_*_*.deb)
version=$(dpkg-deb -f "$runtime" Version)

depends() { dpkg-deb -f "$1" Depends | tr ',' '\n' | sed 's/^ *//'; }
need() {
  depends "$1" | grep -q "$2" || fail "$(basename "$1") does not depend on '$2': $(depends "$1" | tr '\n' ' ')"
}
need "$runtime" '^libevent-core-2\.1-7'
need "$runtime" '^libunwind8'
need "$runtime" '^libstdc++6'
need "$dev" "^libtarvo0 (= $version)\$"
need "$dev" '^libboost-dev (>= 1\.74)$'
# A shared-library package carries a shlibs file and runs ldconfig when installed.
dpkg-deb -e "$runtime" "$work/control"
grep -q "^libTarvo 0 libtarvo0" "$work/control/shlibs" || fail "no shlibs entry for libTarvo.so.0"
cat "$work/control/postinst" "$work/control/triggers" 2>/dev/null | grep -q ldconfig ||
  fail "no ldconfig on install"
# The library alone in the runtime package, everything to build with in the -dev package.
dpkg-deb -c "$runtime" | grep -q '/usr/lib/libTarvo\.so\.0 ' || fail "runtime lacks the SONAME link"
dpkg-deb -c "$runtime" | grep -Eq 'include/|\.pc$|cmake/|libTarvo\.so ' && fail "runtime holds -dev files"
for f in include/Tarvo/TaskScheduler.h lib/cmake/Tarvo/TarvoConfig.cmake lib/pkgconfig/tarvo.pc \
  'lib/libTarvo\.so '; do
  dpkg-deb -c "$dev" | grep -q "/usr/$f" || fail "-dev lacks $f"
done

root=$work/root
dpkg -x "$runtime" "$root"
dpkg -x "$dev" "$root"

# Every installed header compiles from the unpacked root (the umbrella header first), with
# nothing but the -dev package's dependencies.
{
  echo '#include <Tarvo/TaskScheduler.h>'
  for h in "$root"/usr/include/Tarvo/*.h; do echo "#include <Tarvo/$(basename "$h")>"; done
} >"$work/all-headers.cpp"
c++ -std=c++20 -fsyntax-only -I"$root/usr/include" "$work/all-headers.cpp" ||
  fail "the installed headers do not compile"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
grep -q "^Tarvo_DIR:PATH=$root/usr/lib/cmake/Tarvo\$" "$work/cmake-build/CMakeCache.txt" ||
  fail "find_package(Tarvo) did not use the unpacked package"
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$root/usr/lib" "$work/cmake-build/consumer"

pc=$(PKG_CONFIG_PATH="$root/usr/lib/pkgconfig" pkg-config --cflags --libs tarvo)
# shellcheck disable=SC2086
c++ -std=c++20 "$consumer/main.cpp" -o "$work/consumer-pc" $pc
LD_LIBRARY_PATH="$root/usr/lib" "$work/consumer-pc"
echo "libtarvo0 and libtarvo-dev $version: consumer built and ran against the unpacked packages"

#!/usr/bin/env bash
# Proves that an installed Lumora is usable by an application, and that the
# Debian package is sound:
#   1. `cmake --install` into a fresh prefix; the examples are built there as
#      a consumer project (find_package(Lumora)) and run as its tests, and one
#      is built with nothing but `c++ $(pkg-config --cflags --libs lumora)`;
#   2. `cpack -G DEB` makes lumora_<version>_<arch>.deb, checked with
#      dpkg-deb -I / -c;
#   3. the package is unpacked (dpkg -x) into an empty folder and the
#      consumer builds again against that tree, from the package's own copy
#      of the examples;
#   4. the package is installed with apt-get, and the installed `lumora` tool
#      runs `decode` and `demo`. A package this run installed is removed again
#      at the end.
# Every step fails the run on the first problem.
#
#   scripts/check-install.sh BUILD_DIR      (a configured and built tree)
#
# Needs root (or sudo) for apt-get, and the packages of install-deps.sh.
set -euo pipefail

if [ $# -ne 1 ] || [ ! -f "$1/CMakeCache.txt" ]; then
  echo "usage: $0 BUILD_DIR   (a configured Lumora build tree)" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/.." && pwd)
start=$(date +%s)
step() { echo "== check-install: $1 ($(($(date +%s) - start))s)"; }
fail() {
  echo "check-install: $*" >&2
  exit 1
}

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || fail "apt-get needs root or sudo"
  SUDO="sudo"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/lumora-check-install.XXXXXX")
installed_here=0
cleanup() {
  if [ "$installed_here" -eq 1 ]; then
    $SUDO env DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq lumora >/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# The examples run on the simulated air, and never touch the user's settings.
export LUMORA_BACKEND=sim
export LUMORA_DEFAULTS="$work/defaults.json"
jobs=$(nproc)

# Builds the examples project in $1 against the installation under prefix
# $2, in folder $3, and runs them as its tests. The build must find Lumora
# under $2, and nothing of the source tree may be needed.
consume_with_cmake() {
  local examples=$1 prefix=$2 out=$3
  cmake -S "$examples" -B "$out" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Werror" >"$out.configure.log" ||
    { cat "$out.configure.log"; fail "configuring the consumer against $prefix failed"; }
  local found
  found=$(sed -n 's/^Lumora_DIR:PATH=//p' "$out/CMakeCache.txt")
  case "$found" in
    "$prefix"/*) ;;
    *) fail "find_package(Lumora) found '$found', not the installation under $prefix" ;;
  esac
  cmake --build "$out" -j "$jobs"
  ctest --test-dir "$out" --output-on-failure -j "$jobs"
}

# Builds and runs one example with plain c++ and pkg-config; PKG_CONFIG_PATH
# is $1 (empty: the system's own search path only).
consume_with_pkg_config() {
  local pc_path=$1 out=$2
  local flags
  flags=$(PKG_CONFIG_PATH="$pc_path" pkg-config --cflags --libs lumora)
  # shellcheck disable=SC2086  # the flags are words
  c++ -Wall -Wextra -Wpedantic -Werror -o "$out" "$source_dir/examples/exchange.cpp" $flags
  "$out" 5 >"$out.log" 2>&1 || { cat "$out.log"; fail "$out failed"; }
  grep -q '^80 BLE RECV DATA: .*"hello from LumoraDemo"' "$out.log" ||
    { cat "$out.log"; fail "$out did not receive the greeting"; }
}

step "bring $build up to date"
cmake "$build" >/dev/null
cmake --build "$build" --target lumora lumora_tool -j "$jobs"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ -n "$version" ] || fail "no project version in $build/CMakeCache.txt"

step "install into a fresh prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in lib/liblumora.a include/lumora/Lumora/Lumora.h include/lumora/backends/sim/Air.h \
  lib/cmake/Lumora/LumoraConfig.cmake lib/cmake/Lumora/LumoraConfigVersion.cmake \
  lib/cmake/Lumora/LumoraTargets.cmake lib/pkgconfig/lumora.pc bin/lumora \
  share/doc/lumora/examples/CMakeLists.txt; do
  [ -e "$prefix/$f" ] || fail "the installation lacks $f"
done
for f in include/lumora/backends/sim/AirImpl.h include/lumora/CoreBluetooth/SerialDelivery.h; do
  [ ! -e "$prefix/$f" ] || fail "the installation has the internal header $f"
done
# Relocatable: nothing installed may point back into the source or build tree.
if grep -rl -e "$source_dir" -e "$build" "$prefix/lib/cmake" "$prefix/lib/pkgconfig"; then
  fail "installed package files name the build machine's tree (above)"
fi

step "consumer: find_package(Lumora) against the prefix"
consume_with_cmake "$source_dir/examples" "$prefix" "$work/consumer-prefix"

step "consumer: c++ \$(pkg-config --cflags --libs lumora) against the prefix"
consume_with_pkg_config "$prefix/lib/pkgconfig" "$work/pc-prefix"

step "Debian package"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/deb" >"$work/cpack.log" ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
arch=$(dpkg --print-architecture)
deb="$work/deb/lumora_${version}_${arch}.deb"
[ -f "$deb" ] || { ls "$work/deb"; fail "no $(basename "$deb")"; }
dpkg-deb -I "$deb"
info=$(dpkg-deb -f "$deb" Package Version Architecture Depends)
echo "$info" | grep -qx "Package: lumora" || fail "package name is not lumora"
echo "$info" | grep -qx "Version: $version" || fail "package version is not $version"
depends=$(dpkg-deb -f "$deb" Depends)
for d in libc6 libstdc++6 libsdbus-c++-dev; do
  echo "$depends" | grep -q "\b$d\b" || fail "Depends lacks $d: $depends"
done
dpkg-deb -c "$deb" | awk '{print $6}' >"$work/contents"
for f in ./usr/lib/liblumora.a ./usr/include/lumora/Lumora/Lumora.h \
  ./usr/lib/cmake/Lumora/LumoraConfig.cmake ./usr/lib/cmake/Lumora/LumoraConfigVersion.cmake \
  ./usr/lib/pkgconfig/lumora.pc ./usr/bin/lumora ./usr/share/doc/lumora/examples/CMakeLists.txt; do
  grep -qx "$f" "$work/contents" || fail "the package lacks $f"
done
echo "package: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB, $(grep -vc '/$' "$work/contents") files"

step "consumer: find_package(Lumora) in the unpacked package (dpkg -x)"
unpacked="$work/unpacked"
mkdir "$unpacked"
dpkg -x "$deb" "$unpacked"
consume_with_cmake "$unpacked/usr/share/doc/lumora/examples" "$unpacked/usr" "$work/consumer-deb"
consume_with_pkg_config "$unpacked/usr/lib/pkgconfig" "$work/pc-deb"

step "apt-get install the package"
if ! dpkg-query -W -f='${Status}' lumora 2>/dev/null | grep -q "install ok installed"; then
  installed_here=1
fi
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$deb" \
  >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get install failed"; }
[ "$(dpkg-query -W -f='${Version}' lumora)" = "$version" ] || fail "lumora $version not installed"

step "installed: lumora decode, lumora demo, and a pkg-config build"
decoded=$(/usr/bin/lumora decode 4C000215E2C56DB5DFFB48D2B060D0F5A71096E000010002C5)
echo "$decoded"
echo "$decoded" | grep -q "uuid E2C56DB5-DFFB-48D2-B060-D0F5A71096E0  major 1  minor 2  power -59" ||
  fail "lumora decode gave the wrong answer"
/usr/bin/lumora demo >"$work/demo.log" 2>&1 || { cat "$work/demo.log"; fail "lumora demo failed"; }
grep -q "^Demo finished in" "$work/demo.log" || { cat "$work/demo.log"; fail "lumora demo did not finish"; }
tail -1 "$work/demo.log"
consume_with_pkg_config "" "$work/pc-system"

step "done"

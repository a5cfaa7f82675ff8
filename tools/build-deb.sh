#!/bin/sh
# Builds the Debian package zalkv2d_<version>_<arch>.deb from this tree
# and prints its path. Compiler flags are Debian's (dpkg-buildflags, with
# every hardening feature on); the tests are not built.
#
#   tools/build-deb.sh [BUILD_DIR]     (default: build-deb)
set -eu
SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$SRC/build-deb}
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
eval "$(dpkg-buildflags --export=sh)"
# CMake reads the linker flags from LDFLAGS; the preprocessor flags go with
# the compiler's.
export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
cmake -S "$SRC" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	-DZALK_TESTS=OFF -DZALK_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j"$(nproc)" >/dev/null
rm -f "$BUILD"/zalkv2d_*.deb
(cd "$BUILD" && cpack -G DEB > cpack.log 2>&1) || { cat "$BUILD/cpack.log" >&2; exit 1; }
ls "$BUILD"/zalkv2d_*.deb

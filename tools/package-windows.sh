#!/usr/bin/env bash
# Builds the Windows package: cross-builds build/win32 (i686, the 32-bit
# system the interfaces come from; ARCH=x86_64 for build/win64) and installs
# it into a folder (default out/sxscan-win32): README-windows.txt, which
# tells how to install and use the rest; bin/sxscan.dll and the programs,
# lib/sxscan.lib (import library) and lib/sxscan.def, the headers in
# include/sxscan/, the reference in doc/reference/, the example's source, and
# windows/, the driver tree with the virtual scanner and the progress
# dialog's texts, ready to copy into C:\Windows\, with sxscan.reg naming
# the texts. tools/win-example.sh checks an x86_64 package under Wine.
#
# Environment: ARCH (i686 or x86_64), JOBS, BUILD_ROOT (default build), PACKAGE_DIR.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

ARCH=${ARCH:-i686}
JOBS=${JOBS:-2}
case $ARCH in
  i686) name=win32 tests=OFF ;;  # the 32-bit build has no Wine to run its tests
  x86_64) name=win64 tests=ON ;;
  *) echo "package-windows: ARCH must be i686 or x86_64" >&2; exit 2 ;;
esac
BUILD=${BUILD_ROOT:-build}/$name
PACKAGE_DIR=${PACKAGE_DIR:-out/sxscan-$name}

tools/setup.sh >/dev/null
# Same configuration as the windows stage of tools/test.sh, so the two share
# one build.
build_log=$(mktemp)
echo "package-windows: building $BUILD (log: $build_log)"
if ! { cmake -S . -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-mingw-$ARCH.cmake" \
         -DSX_WERROR=ON -DSX_BUILD_TESTS=$tests &&
       cmake --build "$BUILD" -j "$JOBS"; } >"$build_log" 2>&1; then
  tail -n 40 "$build_log"
  echo "package-windows: the build failed" >&2
  exit 1
fi
rm -rf "$PACKAGE_DIR"
cmake --install "$BUILD" --prefix "$PACKAGE_DIR" --component runtime --strip >/dev/null
cmake --install "$BUILD" --prefix "$PACKAGE_DIR" --component development >/dev/null
rm -f "$build_log"
echo "package-windows: $PACKAGE_DIR"
(cd "$PACKAGE_DIR" && find . -type f | sort | sed 's/^\.\//  /')

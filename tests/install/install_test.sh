#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, moves the prefix elsewhere
# (an installed tree must be relocatable), checks the shared object's name
# and exports, and builds and runs the README's host example against the
# installed package twice: through pkg-config and through find_package.
#
#   install_test.sh BUILD_DIR C_COMPILER [C_FLAGS]
#
# SX_TEST_RUNNER, when set, is the command the example programs run under
# (e.g. "qemu-i386 -L /" for an i386 build on a kernel that cannot run it).
set -euo pipefail
build=$1
cc=$2
cflags=${3:-}
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "install test: $*" >&2
  exit 1
}

# A tree that lacks a file the install copies (the demo's, built only in
# part) is refused before anything is copied.
held="$build/modules/aspisim/wnaspi32.dll"
mv "$held" "$held.held"
trap 'mv "$held.held" "$held" 2>/dev/null || true; rm -rf "$work"' EXIT
if cmake --install "$build" --prefix "$work/partial" >"$work/partial.log" 2>&1; then
  fail "an install without $held succeeded"
fi
grep -q "nothing was installed" "$work/partial.log" || fail "the refusal does not say why: $(cat "$work/partial.log")"
[[ -z "$(find "$work/partial" -type f 2>/dev/null)" ]] || fail "the refused install copied files"
mv "$held.held" "$held"

cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/prefix"
prefix=$work/prefix
libdir=$(cd "$prefix" && ls -d lib/*-linux-gnu | head -n 1)
[[ -n "$libdir" ]] || fail "no multiarch library folder under lib/"

for f in "$libdir/libsxscan.so.1" "$libdir/libsxscan.so" "$libdir/pkgconfig/sxscan.pc" \
         "$libdir/cmake/sxscan/sxscanConfig.cmake" include/sxscan/sxscan.h include/sxscan/sxsys.h \
         include/sxscan/sxdriver.h include/sxscan/sxaspi.h share/man/man3/SxLoad.3 share/man/man3/SxFree.3 \
         share/man/man3/SxSysGlobalBlockCount.3 "$libdir/sxscan/root/user.reg" \
         "$libdir/sxscan/root/windows/twain_32/Corvane/VScan/vscan.dll"; do
  [[ -e "$prefix/$f" ]] || fail "missing $f"
done

lib="$prefix/$libdir/libsxscan.so.1"
readelf -d "$lib" | grep -q 'SONAME.*\[libsxscan\.so\.1\]' || fail "SONAME is not libsxscan.so.1"
# Only the eight functions and the SxSys* functions, all under SXSCAN_1.
exports=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | grep -v '^SXSCAN_1$' | sort)
for symbol in $exports; do
  [[ "$symbol" == Sx*@@SXSCAN_1 ]] || fail "unexpected export $symbol"
done
for name in SxLoad SxFree SxGetDS SxSetDriverById SxSetValue SxGetValue SxQueryData SxAcquire \
            SxSysGlobalAlloc; do
  grep -q "^$name@@SXSCAN_1\$" <<<"$exports" || fail "$name is not exported"
done
unexpected=$(grep -v '^SxSys' <<<"$exports" | grep -cv '^Sx\(Load\|Free\|GetDS\|SetDriverById\|SetValue\|GetValue\|QueryData\|Acquire\)@@' || true)
[[ "$unexpected" == 0 ]] || fail "exports beyond the eight functions and SxSys*: $exports"

# The README's example, exactly as the README shows it.
mkdir -p "$work/example"
awk '/^```c$/ {inside = 1; next} /^```$/ {inside = 0} inside' "$source_dir/README.md" >"$work/example/example.c"
[[ -s "$work/example/example.c" ]] || fail "no C example in the README"

run_example() {
  local program=$1
  local root="$work/root-$(basename "$program")"
  cp -r "$prefix/$libdir/sxscan/root" "$root"
  # shellcheck disable=SC2086 # the runner is a command with its options
  (cd "$work/example" && SX_ROOT=$root ${SX_TEST_RUNNER:-} "$program" 2>/dev/null) || fail "$program failed"
  [[ -s "$work/example/page.raw" ]] || fail "$program wrote no page"
  rm -f "$work/example/page.raw"
}

# shellcheck disable=SC2046,SC2086 # pkg-config prints a list of options
"$cc" $cflags -o "$work/example/by-pkg-config" "$work/example/example.c" \
  $(PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" pkg-config --cflags --libs sxscan) \
  -Wl,-rpath,"$prefix/$libdir"
run_example "$work/example/by-pkg-config"

cat >"$work/example/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(example C)
find_package(sxscan 0.1 REQUIRED)
add_executable(by-find-package example.c)
target_link_libraries(by-find-package PRIVATE sxscan::sxscan)
CMAKE
# The multiarch name is what a compiler of that ABI reports; a multilib
# compiler given -m32 reports none, so it is named as a toolchain file would.
cmake -S "$work/example" -B "$work/example/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" -DCMAKE_BUILD_RPATH="$prefix/$libdir" \
  -DCMAKE_LIBRARY_ARCHITECTURE="${libdir#lib/}" >/dev/null
cmake --build "$work/example/build" >/dev/null
run_example "$work/example/build/by-find-package"

# Every function has its manual page, found by name.
man -M "$prefix/share/man" -w 3 SxQueryData >/dev/null 2>&1 || ! command -v man >/dev/null ||
  fail "man does not find SxQueryData(3)"
# The proof host, a host made from the headers alone, builds against the
# installed ones.
# shellcheck disable=SC2046,SC2086 # pkg-config prints a list of options
"$cc" $cflags -std=c99 -Wall -Wextra -Werror -o "$work/example/proof-host" \
  "$source_dir/tests/hosts/headers/proof_host.c" \
  $(PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" pkg-config --cflags --libs sxscan) ||
  fail "the proof host does not build against the installed headers"

# The installed program finds its library through its relative run path.
if [[ -x "$prefix/bin/sxscan" ]]; then
  "$prefix/bin/sxscan" --version | grep -q '^sxscan ' || fail "sxscan --version"
  cp -r "$prefix/$libdir/sxscan/root" "$work/root-program"
  SX_ROOT="$work/root-program" "$prefix/bin/sxscan" sources | grep -q QM7110V || fail "sxscan sources"
  SX_ROOT="$work/root-program" "$prefix/bin/sxscan" doctor >/dev/null || fail "sxscan doctor on the default tree"
  # The default tree's localisation file names the transfer mode on the progress line.
  progress=$(cd "$work" && LC_ALL=C SX_ROOT="$work/root-program" "$prefix/bin/sxscan" scan --resolution 50 \
             --progress --output page.png 2>&1 >/dev/null || true)
  grep -q "Scanning  Transfer Mode : Direct" <<<"$progress" ||
    fail "the progress line on the default tree names no transfer mode: $progress"
  # A tree without drivers: the fix names the default tree of the moved prefix.
  advice=$(SX_ROOT="$work/bare" "$prefix/bin/sxscan" doctor || true)
  grep -qF "cp -r $prefix/$libdir/sxscan/root/windows $work/bare/" <<<"$advice" ||
    fail "sxscan doctor does not offer the installed default tree: $advice"
  [[ -e "$prefix/share/man/man1/sxscan.1" ]] || fail "missing the man page"
fi
# The SANE backend, where it is built: in SANE's backend folder, enabled in
# dll.d, and found by scanimage with the library beside it.
if [[ -e "$build/hosts/sane/libsane-sxscan.so.1" ]]; then
  for f in "$libdir/sane/libsane-sxscan.so.1" etc/sane.d/sxscan.conf etc/sane.d/dll.d/sxscan; do
    [[ -e "$prefix/$f" ]] || fail "missing $f"
  done
  if command -v scanimage >/dev/null && [[ -z "${SX_TEST_RUNNER:-}" ]] &&
     [[ "$(file -L "$(command -v scanimage)" | grep -o 'ELF [0-9]*-bit')" == "$(file -L "$prefix/$libdir/libsxscan.so.1" | grep -o 'ELF [0-9]*-bit')" ]]; then
    cp -r "$prefix/$libdir/sxscan/root" "$work/root-sane"
    devices=$(SX_ROOT="$work/root-sane" SANE_CONFIG_DIR="$prefix/etc/sane.d" \
              LD_LIBRARY_PATH="$prefix/$libdir/sane" timeout 60 scanimage -L 2>&1 || true)
    grep -q "sxscan:QM7110V" <<<"$devices" || fail "scanimage does not list the installed backend's device: $devices"
  fi
fi
echo "install test: passed ($prefix)"

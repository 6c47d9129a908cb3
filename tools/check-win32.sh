#!/usr/bin/env bash
# Static checks of the 32-bit Windows build, which cannot run here: the DLL
# exports exactly the names of cmake/sxscan.def, undecorated, and its import
# library carries each name's __stdcall decoration as the .def gives it
# (_Name@N, N the bytes of arguments). The record layouts are checked while
# the build compiles (the static_asserts of include/).
#
#   tools/check-win32.sh build/win32
set -euo pipefail

build=${1:?usage: tools/check-win32.sh <build folder>}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
def="$source_dir/cmake/sxscan.def"
dll="$build/sxscan.dll"
lib="$build/sxscan.lib"
objdump=${SX_OBJDUMP:-i686-w64-mingw32-objdump}
nm=${SX_NM:-i686-w64-mingw32-nm}
status=0
fail() { echo "check-win32: $*" >&2; status=1; }

for f in "$dll" "$lib"; do [ -f "$f" ] || { echo "check-win32: $f missing" >&2; exit 1; }; done
"$objdump" -f "$dll" | grep -q 'file format pei-i386' || fail "$dll is not a 32-bit DLL"

# "Name@N" lines of the EXPORTS section.
decorated=$(sed -n '/^EXPORTS/,$p' "$def" | sed -n 's/^[[:space:]]*\([A-Za-z_][A-Za-z0-9_]*@[0-9][0-9]*\).*/\1/p' | sort)
[ -n "$decorated" ] || { echo "check-win32: no exports in $def" >&2; exit 1; }
plain=$(printf '%s\n' "$decorated" | sed 's/@.*//' | sort)

# The export name table: "[ ordinal] Name" lines after "[Ordinal/Name Pointer] Table".
exported=$("$objdump" -p "$dll" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
  sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\][[:space:]]*\([^[:space:]]*\).*/\1/p' | sort)
if [ "$exported" != "$plain" ]; then
  fail "the DLL's exports differ from $def:"
  diff <(printf '%s\n' "$plain") <(printf '%s\n' "$exported") | sed 's/^/    /' >&2 || true
fi

# Each decorated name as the import library's thunk (_Name@N) and import
# pointer (__imp__Name@N); no other Sx symbol.
symbols=$("$nm" "$lib" 2>/dev/null | awk 'NF >= 2 { print $NF }' | sort -u)
thunks=$(printf '%s\n' "$symbols" | sed -n 's/^_\(Sx[A-Za-z0-9_]*@[0-9]*\)$/\1/p' | sort)
pointers=$(printf '%s\n' "$symbols" | sed -n 's/^__imp__\(Sx[A-Za-z0-9_]*@[0-9]*\)$/\1/p' | sort)
for kind in thunks pointers; do
  if [ "${!kind}" != "$decorated" ]; then
    fail "the import library's $kind differ from $def:"
    diff <(printf '%s\n' "$decorated") <(printf '%s\n' "${!kind}") | sed 's/^/    /' >&2 || true
  fi
done

# Every binary of the package carries the project's version resource, so an
# installer or a person can tell which release a file belongs to.
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
for f in "$dll" "$build/modules/cmms/sxcmms.dll" "$build/bin/sxscan.exe"; do
  strings -el "$f" | grep -A1 -x ProductVersion | tail -n 1 | grep -qx "$version" ||
    fail "$f carries no version resource naming $version"
done

# zlib and the C and C++ runtimes are linked in: a binary of the package
# loads with the system's DLLs alone.
for f in "$dll" "$build/modules/cmms/sxcmms.dll" "$build/bin/sxscan.exe"; do
  extra=$("$objdump" -p "$f" | sed -n 's/^[[:space:]]*DLL Name: //p' |
    grep -Ei '^(zlib1|libz|libstdc\+\+|libgcc|libwinpthread)' || true)
  [ -z "$extra" ] || fail "$f needs DLLs the package does not carry: $extra"
done

# The public headers as a host compiled MSVC-style sees them (clang in the
# MSVC mode, both pointer widths, C and C++): their size and offset checks
# hold there too.
clang=${SX_CLANG:-$(command -v clang || command -v clang-14 || true)}
if [ -n "$clang" ]; then
  for target in i686-pc-windows-msvc x86_64-pc-windows-msvc; do
    for language in c c++; do
      printf '#include "sxsys.h"\n#include "sxdriver.h"\n#include "sxaspi.h"\nint main(void) { return 0; }\n' |
        "$clang" --target=$target -ffreestanding -fsyntax-only -Wall -Werror -I"$source_dir/include" -x $language - ||
        fail "the public headers do not compile for $target ($language)"
    done
  done
else
  fail "clang not found: the headers' MSVC-style check cannot run"
fi

count=$(printf '%s\n' "$decorated" | wc -l)
[ $status -eq 0 ] && echo "win32: sxscan.dll exports the $count names of sxscan.def; sxscan.lib has their @N decorations; the binaries carry version $version and need only system DLLs; the headers compile MSVC-style"
exit $status

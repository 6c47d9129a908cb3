#!/usr/bin/env bash
# Photographs the library's real progress dialog as a Windows user sees it:
# the x86-64 Windows build, run under wine64 on a virtual X screen (Xvfb,
# 1024 x 768), the dialog 40 % through a colour page; the picture is cropped
# to the dialog.
#
# Usage: tools/screenshot-dialog.sh [build-folder] [output.png]
#   defaults: build/win64 and docs/progress-dialog.png
# Needs: the MinGW-w64 cross compiler, wine64, Xvfb, xwininfo and ImageMagick's
# import (apt-get install xvfb x11-utils imagemagick).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(realpath -m "${1:-$root/build/win64}")
out=$(realpath -m "${2:-$root/docs/progress-dialog.png}")
display=":${SX_SHOT_DISPLAY:-77}"
cxx=x86_64-w64-mingw32-g++-posix
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
for tool in "$cxx" "$wine" Xvfb xwininfo import; do
  command -v "$tool" >/dev/null || { echo "screenshot-dialog: $tool is missing" >&2; exit 1; }
done

# The library's static archives and its dialog resources, then the preview
# program linked against them.
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw-x86_64.cmake" >/dev/null
cmake --build "$build" -j2 --target sxcore sxplatform_rc >/dev/null
resources=$(find "$build/lib/CMakeFiles/sxplatform_rc.dir" -name '*.res' | head -n 1)
preview="$build/dialog-preview.exe"
"$cxx" -std=c++20 -O1 -I"$root/lib" -I"$root/include" "$root/tools/dialog-preview.cpp" "$resources" \
  "$build/libsxcore.a" "$build/libsxplatform.a" -static -luser32 -lgdi32 -ladvapi32 -lversion -o "$preview"

work=$(mktemp -d /tmp/sx-screenshot.XXXXXX)
export WINEPREFIX="$work/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY="$display"
xvfb_pid=""
cleanup() {
  "$wineserver" -k >/dev/null 2>&1 || true
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

Xvfb "$display" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
sleep 1
"$wine" wineboot -i >/dev/null 2>&1
# No window manager runs here: Wine draws the caption and frame itself.
"$wine" reg add 'HKCU\Software\Wine\X11 Driver' /v Decorated /d N /f >/dev/null 2>&1
"$wine" reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /d N /f >/dev/null 2>&1

(cd "$work" && exec "$wine" "$preview" 40 30 >"$work/preview.out" 2>&1) &
for _ in $(seq 1 60); do
  grep -q shown "$work/preview.out" 2>/dev/null && break
  sleep 0.5
done
grep -q shown "$work/preview.out" || { cat "$work/preview.out" >&2; exit 1; }
sleep 2  # let the window finish painting

# The dialog's X window, found by its caption: "Page1    Scanning".
line=$(xwininfo -root -tree | grep '"Page1 *Scanning"' | head -n 1)
[ -n "$line" ] || { echo "screenshot-dialog: the dialog's window was not found" >&2; exit 1; }
id=$(awk '{print $1}' <<<"$line")
geometry=$(xwininfo -id "$id")
x=$(awk '/Absolute upper-left X/ {print $4}' <<<"$geometry")
y=$(awk '/Absolute upper-left Y/ {print $4}' <<<"$geometry")
w=$(awk '/Width:/ {print $2}' <<<"$geometry")
h=$(awk '/Height:/ {print $2}' <<<"$geometry")
mkdir -p "$(dirname "$out")"
import -window root -crop "${w}x${h}+${x}+${y}" +repage "$out"
echo "screenshot-dialog: ${w}x${h} dialog written to $out"

#!/usr/bin/env bash
# Runs the Windows package under wine64 as a developer meets it: a fresh
# prefix, the package installed as its README-windows.txt says (windows\ into
# C:\windows, sxscan.reg imported, bin\ in C:\sxscan), dialogs headless
# (Wine's null graphics driver). Then
#   - the package holds what its README lists, and its programs import no
#     DLL but the system's and its own;
#   - sxscan-example lists, selects, scans a colour page with the progress
#     dialog and writes it through WIC; it decodes the PNG again itself, and
#     the page must have the size of the scanner's default area;
#   - sxscan.exe: its help in Windows terms, sources, select, info, caps, a
#     PNG scan whose progress names the transfer mode, a multi-page TIFF, a
#     JPEG, a two-page PDF (checked by pdfinfo), the advice
#     for a missing folder, and the doctor.
#
# usage: tools/win-example.sh PACKAGE   (a folder made by tools/package-windows.sh, x86_64)
# SX_EXAMPLE_PREFIX names a prefix to use (and keep) instead of a new one.
# Exit status 0 when every check passed.
set -euo pipefail

if [[ $# -ne 1 || ! -d $1 ]]; then
  sed -n '2,18p' "$0" >&2
  exit 2
fi
package=$(cd "$1" && pwd)

wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
objdump=${SX_OBJDUMP:-x86_64-w64-mingw32-objdump}
export WINEDEBUG=-all
# No Gecko or Mono installer dialogs while the prefix is made.
export WINEDLLOVERRIDES="mscoree,mshtml="
# The progress dialog's texts come from the section of the system's language.
export LANG=C.UTF-8 LC_ALL=C.UTF-8

ownPrefix=0
if [[ -n ${SX_EXAMPLE_PREFIX:-} ]]; then
  export WINEPREFIX=$SX_EXAMPLE_PREFIX
else
  export WINEPREFIX
  WINEPREFIX=$(mktemp -d /tmp/sx-example-wine.XXXXXX)
  ownPrefix=1
fi
output=$(mktemp /tmp/sx-example-out.XXXXXX)
cleanup() {
  "$wineserver" -k >/dev/null 2>&1 || true
  rm -f "$output"
  if [[ $ownPrefix == 1 ]]; then rm -rf "$WINEPREFIX"; fi
}
trap cleanup EXIT

# A flatbed page at 150 dpi of the library's default area, which the virtual
# scanner's flatbed cuts to 8.5 x 11 inches; the width aligned down to the
# model's unit (1272 of 1275 pixels), as the Linux build scans it. sxscan
# takes the whole area of the source instead: the flatbed's 11.69 inches
# (1754 lines at 150 dpi, 1169 at 100), the feeder's 14 (1400 at 100), 848
# pixels wide at 100 dpi: a PDF page of 610.56 x 1008 points.
readonly DPI=150 PAGE_WIDTH=1272 PAGE_LINES=1650 SXSCAN_LINES=1754 FEEDER_PAGE_POINTS="610.56 x 1008"

failures=0
check() {  # check DESCRIPTION COMMAND...: runs the command, reports the outcome
  local what=$1
  shift
  if "$@"; then
    echo "ok    $what"
  else
    echo "FAIL  $what"
    failures=$((failures + 1))
  fi
}
windowsPath() { local p=${1//\//\\}; echo "Z:$p"; }

echo "== the package"
holds() {  # holds FILE...: every file is in the package
  local f
  for f in "$@"; do [[ -f $package/$f ]] || { echo "      missing $f"; return 1; }; done
}
check "holds the README, the registry file, the programs, the import library and headers" \
  holds README-windows.txt sxscan.reg bin/sxscan.dll bin/sxcmms.dll bin/sxscan.exe bin/sxscan-example.exe \
  lib/sxscan.lib lib/sxscan.def include/sxscan/sxscan.h include/sxscan/sxsys.h examples/winhost.c
check "holds the virtual scanner and the progress dialog's texts under windows\\" \
  holds windows/twain_32/Corvane/VScan/vscan.dll windows/twain_32/Corvane/VScan/vscan.ini windows/sxscan.loc

# The prefix, with the headless driver and no source chosen from an earlier
# run. The desktop process that the import starts has already loaded the
# display driver it found, so the server is stopped and started again: the
# programs' desktop then runs on the null driver.
registry=$(mktemp /tmp/sx-example-reg.XXXXXX)
printf 'REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\Wine\\Drivers]\r\n"Graphics"="null"\r\n\r\n[-HKEY_CURRENT_USER\\Software\\Quillmark]\r\n' \
  >"$registry"
"$wine" regedit /S "$(windowsPath "$registry")" >/dev/null 2>&1 </dev/null
rm -f "$registry"
"$wineserver" -k >/dev/null 2>&1 || true
"$wineserver" -w >/dev/null 2>&1 || true
"$wineserver" -p >/dev/null 2>&1 </dev/null

driveC=$WINEPREFIX/drive_c
# Every DLL a program or library of bin\ imports is the system's or the
# package's own: no MinGW runtime and no zlib1.dll to carry along.
importsOnlySystem() {
  local binary dll status=0
  for binary in "$package"/bin/*.exe "$package"/bin/*.dll; do
    while read -r dll; do
      if [[ ! -e $package/bin/$dll ]] &&
         ! find "$driveC/windows/system32" -maxdepth 1 -iname "$dll" | grep -q .; then
        echo "      $(basename "$binary") imports $dll"
        status=1
      fi
    done < <("$objdump" -p "$binary" | sed -n 's/^[[:space:]]*DLL Name: //p')
  done
  return $status
}
check "its programs import only the system's DLLs and the package's" importsOnlySystem

# Installed as README-windows.txt says.
cp -r "$package/windows/." "$driveC/windows/"
"$wine" regedit /S "$(windowsPath "$package/sxscan.reg")" >/dev/null 2>&1 </dev/null
mkdir -p "$driveC/sxscan" "$driveC/out"
cp "$package"/bin/* "$driveC/sxscan/"
cd "$driveC/out"

run() {  # run PROGRAM ARGS...: a program of C:\sxscan; its output kept in $log
  local status=0
  "$wine" "C:\\sxscan\\$1" "${@:2}" >"$output" 2>&1 </dev/null || status=$?
  log=$(tr -d '\r' <"$output")
  printf '%s\n' "$log" | sed 's/^/      /'
  return "$status"
}
quiet() {  # quiet PROGRAM ARGS...: as run, the output kept but not shown
  local status=0
  "$wine" "C:\\sxscan\\$1" "${@:2}" >"$output" 2>&1 </dev/null || status=$?
  log=$(tr -d '\r' <"$output")
  return "$status"
}
describes() {  # describes FILE TEXT: file(1) describes the file with TEXT
  file -b "$1" | grep -q -- "$2"
}
says() { grep -q -- "$1" <<<"$log"; }

echo "== sxscan-example"
check "example host: list, select, scan, write through WIC, read back" \
  run sxscan-example.exe --resolution $DPI --expect ${PAGE_WIDTH}x${PAGE_LINES} 'C:\out\example.png'
check "example page is a ${PAGE_WIDTH} x ${PAGE_LINES} colour PNG" \
  describes example.png "PNG image data, $PAGE_WIDTH x $PAGE_LINES, 8-bit/color RGB"

echo "== sxscan.exe"
check "help" quiet sxscan.exe help
check "  ... names the registry key HKEY_CURRENT_USER\\Software\\Quillmark" says 'HKEY_CURRENT_USER\\Software\\Quillmark'
check "  ... and not SX_ROOT, which Windows builds do not read" test -z "$(grep SX_ROOT <<<"$log")"
check "sources lists the virtual scanner" run sxscan.exe sources
check "  ... named QM7110V" says QM7110V
check "select" run sxscan.exe select QM7110V
check "info" run sxscan.exe info
check "  ... model and serial number" grep -q '^model' <<<"$log"
check "caps" quiet sxscan.exe caps
check "  ... resolutions listed" grep -q '^CAP_XRESOLUTION .* 50 to 600 dpi' <<<"$log"
check "scan to PNG, with progress" run sxscan.exe scan --source flatbed --resolution $DPI --progress \
  --output 'C:\out\page.png'
check "  ... ${PAGE_WIDTH} x ${SXSCAN_LINES} colour" describes page.png "PNG image data, $PAGE_WIDTH x $SXSCAN_LINES, 8-bit/color RGB"
check "  ... the progress dialog names the transfer mode" says 'Transfer Mode : Direct'
check "scan two feeder pages to TIFF" run sxscan.exe scan --source feeder --pages 2 --mode gray \
  --resolution 100 --output 'C:\out\pages.tif'
check "  ... two pages written" says 'wrote 2 pages'
# sxscan asks the system's TIFF encoder for LZW, as libtiff writes on Linux;
# Wine's encoder takes the option and writes every TIFF uncompressed, so
# under Wine the file shows the page, not the compression.
check "  ... a TIFF whose first page is 848 x 1400" describes pages.tif "TIFF image data.*height=1400,.*width=848"
check "scan line art to JPEG" run sxscan.exe scan --source flatbed --mode lineart --resolution 100 \
  --output 'C:\out\page.jpg'
check "  ... an 832 x 1169 gray JPEG" describes page.jpg "JPEG image data.*832x1169, components 1"
check "scan two feeder pages to PDF" run sxscan.exe scan --source feeder --pages 2 --resolution 100 \
  --output 'C:\out\stack.pdf'
pdf=$(pdfinfo stack.pdf 2>&1 || true)
check "  ... a PDF of two pages of $FEEDER_PAGE_POINTS points" \
  grep -Pzq "Pages: +2\n(.*\n)*Page size: +$FEEDER_PAGE_POINTS pts" <<<"$pdf"
missingStatus=0
run sxscan.exe scan --output 'C:\out\none\page.png' || missingStatus=$?
check "a missing folder is refused, status 2, with the Windows command that makes it" \
  test "$missingStatus" = 2 -a ! -e none
check "  ... mkdir \"C:\\out\\none\"" says 'mkdir "C:\\out\\none"'
check "doctor finds no problem" run sxscan.exe doctor

if [[ $failures -gt 0 ]]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all checks passed"

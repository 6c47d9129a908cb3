#!/usr/bin/env bash
# Runs the Windows hosts under wine64 as a user would: a fresh prefix whose
# C:\windows\twain_32\Corvane\VScan holds the virtual scanner, the programs
# beside sxscan.dll in C:\sxscan, dialogs headless (Wine's null graphics
# driver). Then
#   - sxscan-example lists, selects, scans a colour page with the progress
#     dialog and writes it through WIC; it decodes the PNG again itself, and
#     the page must have the size of the scanner's default area;
#   - sxscan.exe, when given: sources, select, info, caps, scans to PNG,
#     multi-page TIFF and JPEG, the refusal of PDF, and the doctor.
#
# usage: tools/win-example.sh EXAMPLE.exe SXSCAN.dll VSCAN.dll VSCAN.ini [SXSCAN.exe]
# SX_EXAMPLE_PREFIX names a prefix to use (and keep) instead of a new one.
# Exit status 0 when every check passed.
set -euo pipefail

if [[ $# -lt 4 ]]; then
  sed -n '2,14p' "$0" >&2
  exit 2
fi
example=$1 library=$2 vscan=$3 vscanIni=$4 program=${5:-}

wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(command -v wineserver || echo /usr/lib/wine/wineserver)
export WINEDEBUG=-all
# No Gecko or Mono installer dialogs while the prefix is made.
export WINEDLLOVERRIDES="mscoree,mshtml="

ownPrefix=0
if [[ -n ${SX_EXAMPLE_PREFIX:-} ]]; then
  export WINEPREFIX=$SX_EXAMPLE_PREFIX
else
  export WINEPREFIX
  WINEPREFIX=$(mktemp -d /tmp/sx-example-wine.XXXXXX)
  ownPrefix=1
fi
cleanup() {
  "$wineserver" -k >/dev/null 2>&1 || true
  if [[ $ownPrefix == 1 ]]; then rm -rf "$WINEPREFIX"; fi
}
trap cleanup EXIT

# A flatbed page at 150 dpi of the library's default area, which the virtual
# scanner's flatbed cuts to 8.5 x 11 inches; the width aligned down to the
# model's unit (1272 of 1275 pixels), as the Linux build scans it. sxscan
# takes the whole area of the source instead: the flatbed's 11.69 inches
# (1754 lines at 150 dpi, 1169 at 100), the feeder's 14 (1400 at 100).
readonly DPI=150 PAGE_WIDTH=1272 PAGE_LINES=1650 SXSCAN_LINES=1754

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

# The prefix, with the headless driver and no source chosen from an earlier
# run. The desktop process that the import starts has already loaded the
# display driver it found, so the server is stopped and started again: the
# programs' desktop then runs on the null driver.
registry=$(mktemp /tmp/sx-example-reg.XXXXXX)
printf 'REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\Wine\\Drivers]\r\n"Graphics"="null"\r\n\r\n[-HKEY_CURRENT_USER\\Software\\Quillmark]\r\n' \
  >"$registry"
"$wine" regedit /S "Z:${registry//\//\\}" >/dev/null 2>&1 </dev/null
rm -f "$registry"
"$wineserver" -k >/dev/null 2>&1 || true
"$wineserver" -w >/dev/null 2>&1 || true
"$wineserver" -p >/dev/null 2>&1 </dev/null

driveC=$WINEPREFIX/drive_c
scanner=$driveC/windows/twain_32/Corvane/VScan
mkdir -p "$scanner" "$driveC/sxscan" "$driveC/out"
cp "$vscan" "$scanner/vscan.dll"
cp "$vscanIni" "$scanner/vscan.ini"
cp "$library" "$example" "$driveC/sxscan/"
[[ -n $program ]] && cp "$program" "$driveC/sxscan/sxscan.exe"
cd "$driveC/out"

output=$(mktemp /tmp/sx-example-out.XXXXXX)
trap 'rm -f "$output"; cleanup' EXIT
run() {  # run PROGRAM ARGS...: a program of C:\sxscan; its output kept in $log
  local status=0
  "$wine" "C:\\sxscan\\$1" "${@:2}" >"$output" 2>&1 </dev/null || status=$?
  log=$(tr -d '\r' <"$output")
  printf '%s\n' "$log" | sed 's/^/      /'
  return "$status"
}
describes() {  # describes FILE TEXT: file(1) describes the file with TEXT
  file -b "$1" | grep -q -- "$2"
}

echo "== sxscan-example"
check "example host: list, select, scan, write through WIC, read back" \
  run "$(basename "$example")" --resolution $DPI --expect ${PAGE_WIDTH}x${PAGE_LINES} 'C:\out\example.png'
check "example page is a ${PAGE_WIDTH} x ${PAGE_LINES} colour PNG" \
  describes example.png "PNG image data, $PAGE_WIDTH x $PAGE_LINES, 8-bit/color RGB"

if [[ -n $program ]]; then
  echo "== sxscan.exe"
  check "sources lists the virtual scanner" run sxscan.exe sources
  check "  ... named QM7110V" grep -q QM7110V <<<"$log"
  check "select" run sxscan.exe select QM7110V
  check "info" run sxscan.exe info
  check "  ... model and serial number" grep -q '^model' <<<"$log"
  check "caps" run sxscan.exe caps
  check "  ... resolutions listed" grep -q '^CAP_XRESOLUTION .* 50 to 600 dpi' <<<"$log"
  check "scan to PNG" run sxscan.exe scan --source flatbed --resolution $DPI --output 'C:\out\page.png'
  check "  ... ${PAGE_WIDTH} x ${SXSCAN_LINES} colour" describes page.png "PNG image data, $PAGE_WIDTH x $SXSCAN_LINES, 8-bit/color RGB"
  check "scan two feeder pages to TIFF" run sxscan.exe scan --source feeder --pages 2 --mode gray \
    --resolution 100 --output 'C:\out\pages.tif'
  check "  ... two pages written" grep -q 'wrote 2 pages' <<<"$log"
  check "  ... a TIFF whose first page is 848 x 1400" describes pages.tif "TIFF image data.*height=1400,.*width=848"
  check "scan line art to JPEG" run sxscan.exe scan --source flatbed --mode lineart --resolution 100 \
    --output 'C:\out\page.jpg'
  check "  ... an 832 x 1169 gray JPEG" describes page.jpg "JPEG image data.*832x1169, components 1"
  pdfStatus=0
  run sxscan.exe scan --output 'C:\out\page.pdf' || pdfStatus=$?
  check "PDF is refused before scanning, status 2" test "$pdfStatus" = 2 -a ! -e page.pdf
  check "  ... with the reason" grep -q 'PDF output is not available' <<<"$log"
  check "doctor finds no problem" run sxscan.exe doctor
fi

if [[ $failures -gt 0 ]]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all checks passed"

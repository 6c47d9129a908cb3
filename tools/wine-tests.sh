#!/usr/bin/env bash
# Runs the Windows test programs of an x86-64 build folder under wine64, in a
# throw-away prefix made under the build folder: one line per program, the
# failures' details after it. Exit status 0 only when every program passed.
#
#   tools/wine-tests.sh build/win64 [sx_tests_frame ...]
#
# One wineserver serves every program (started persistent, stopped at the
# end whatever happens), so only the first start pays for the prefix.
# SX_WINE_TIMEOUT: seconds one program may take (default 600).
set -uo pipefail

build=${1:?usage: tools/wine-tests.sh <build folder> [program ...]}
shift
build=$(cd "$build" && pwd)

find_wine_tool() {  # Debian keeps the loader and the server out of PATH
  command -v "$1" 2>/dev/null || { [ -x "/usr/lib/wine/$1" ] && echo "/usr/lib/wine/$1"; }
}
wine=$(find_wine_tool wine64) || { echo "wine-tests: wine64 not found" >&2; exit 1; }
wineserver=$(find_wine_tool wineserver) || { echo "wine-tests: wineserver not found" >&2; exit 1; }

export WINEPREFIX="$build/wineprefix"
export WINEDEBUG=-all
# No Mono or Gecko installer at prefix creation; a crash ends the program at
# once instead of waiting in the debugger; no ASPI layer but the one a test
# installs (Wine's own would answer every list building, and would be loaded
# in place of the file a test puts in the system folder).
export WINEDLLOVERRIDES="mscoree,mshtml=;winedbg.exe=d;wnaspi32=n"
timeout_s=${SX_WINE_TIMEOUT:-600}
logs="$build/wine-logs"

# A wineserver keeps every descriptor it inherits open: with any of them a
# pipe, whoever reads that pipe would wait for its end forever.
stop_server() { "$wineserver" -k >/dev/null 2>&1 </dev/null || true; }
trap stop_server EXIT

rm -rf "$WINEPREFIX" "$logs"
mkdir -p "$WINEPREFIX" "$logs"
start=$(date +%s)
"$wine" wineboot -i >/dev/null 2>&1 </dev/null
rm -f "$WINEPREFIX/drive_c/windows/system32/wnaspi32.dll"
# Dialogs run headless: the null graphics driver. The desktop process reads
# the driver when it starts, so the session that made the prefix ends and a
# persistent one begins.
"$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1 </dev/null
"$wineserver" -k >/dev/null 2>&1 </dev/null
"$wineserver" -w >/dev/null 2>&1 </dev/null
"$wineserver" -p >/dev/null 2>&1 </dev/null
echo "windows: prefix ready in $(( $(date +%s) - start )) s"

programs=("$@")
if [ ${#programs[@]} -eq 0 ]; then
  for exe in "$build"/tests/sx_tests_*.exe; do programs+=("$(basename "$exe" .exe)"); done
fi

failed=0
for name in "${programs[@]}"; do
  exe="$build/tests/$name.exe"
  log="$logs/$name.log"
  t0=$(date +%s.%N)
  # The programs' own files (twain_32, the registry key) live in the prefix;
  # the build folder is their Z: drive.
  (cd "$build/tests" && timeout "$timeout_s" "$wine" "$exe" --gtest_brief=1 >"$log" 2>&1 </dev/null)
  status=$?
  seconds=$(awk -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }')
  passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -1)
  total=$(sed -n 's/^\[==========\] \([0-9]*\) tests\{0,1\} from .* ran.*/\1/p' "$log" | tail -1)
  failures=$(grep -c '^\[  FAILED  \] [A-Za-z_]' "$log")
  if [ "$status" -eq 0 ]; then
    printf 'windows: %-22s ok      %4s tests  %6s s\n' "$name" "${total:-?}" "$seconds"
  else
    failed=1
    case $status in
      124) why="timed out after $timeout_s s" ;;
      *) why="exit $status" ;;
    esac
    printf 'windows: %-22s FAILED  %4s tests  %6s s  (%s failed, %s passed; %s)\n' "$name" "${total:-?}" \
      "$seconds" "${failures:-?}" "${passed:-?}" "$why"
    # The failures' messages: gtest's brief output is only them.
    sed -n '/^\[ RUN \|Failure\|^\[  FAILED  \]\|^[^[]/p' "$log" | head -n 200 | sed 's/^/    /'
  fi
done
exit $failed

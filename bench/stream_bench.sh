#!/usr/bin/env bash
# Scan to file with sxscan and with scanimage through the sxscan SANE backend,
# side by side in one run: the same virtual scanner, the same 600 dpi colour
# Letter page (5096 x 6600 pixels, 101 MB raw), one page from the flatbed and
# a feeder batch, as PNG, TIFF, JPEG and PDF, with the scanner
#   (a) at memory speed: each page drawn before its first read, reads copied;
#   (b) paced like hardware: LineDelayUs per line (750 us: 5 s a page).
# For each run: wall time and peak memory of the program (/usr/bin/time),
# the size of what it wrote, and sxscan's tail (last block delivered to file
# closed) from `sxscan scan --stats` when this sxscan has it.
# Then the eSCL rows: the same PNG pages served by `sxscan serve` on
# loopback and scanned by scanimage through sane-airscan (when installed),
# with pages per minute and the server's and the client's peak memory
# against the local `sxscan scan` rows.
#
# Goals: sxscan's memory <= scanimage's; PNG wall time <= scanimage's at a
# file no larger than 1.1x its; sxscan's tail <= 50 ms (judged on the paced
# runs, where the scanner, not the encoder, sets the pace).
#
# Usage: bench/stream_bench.sh [BUILD_DIR]
#   BUILD_DIR defaults to build/x64-bench (configured as a Release build
#   when new); the targets this needs are brought up to date first.
# Environment: SX_BENCH_PAGES (feeder batch, default 2), SX_BENCH_LINE_US
#   (pace, default 750), SX_BENCH_FORMATS (default "png tiff jpeg pdf").
# Not part of the test run: it takes about three minutes.
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$SRC/build/x64-bench}
PAGES=${SX_BENCH_PAGES:-2}
LINE_US=${SX_BENCH_LINE_US:-750}
FORMATS=${SX_BENCH_FORMATS:-"png tiff jpeg pdf"}
TAIL_GOAL_MS=50
SIZE_SLACK=1.1
# /usr/bin/time gives wall time in hundredths: one tick apart is a tie.
TIME_TICK=0.01
DEVICE=sxscan:QM7110V
# Letter at 600 dpi, in each program's units.
SX_AREA=0,0,8.5,11
SI_AREA=(-l 0 -t 0 -x 215.9 -y 279.4)
DPI=600
# At memory speed the virtual scanner holds the page it drew (5096 x 6600
# colour pixels) inside each program; memory is reported net of it.
HELD_PAGE_KB=$((5096 * 6600 * 3 / 1024))

die() { echo "stream_bench: $*" >&2; exit 1; }
command -v scanimage >/dev/null || die "scanimage is not installed (Debian: sane-utils)"
[ -x /usr/bin/time ] || die "/usr/bin/time is not installed (Debian: time)"

# ---- build ---------------------------------------------------------------
# Always brought up to date, so the figures are those of the sources.
SXSCAN=$BUILD/bin/sxscan
if [ ! -e "$BUILD/CMakeCache.txt" ]; then
  cmake -S "$SRC" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release >/dev/null || die "cannot configure $BUILD"
fi
# sxscan_host brings sxscan-serve along when this build has the server.
cmake --build "$BUILD" -j2 --target sxscan sxscan_host vscan sane-sxscan >"$BUILD/stream_bench-build.log" 2>&1 ||
  die "the build failed (see $BUILD/stream_bench-build.log)"
# Every run happens in a folder of its own: the build is named absolutely.
BUILD=$(cd "$BUILD" && pwd)
SXSCAN=$BUILD/bin/sxscan
LIBSXSCAN=$(find "$BUILD" -maxdepth 1 -name 'libsxscan.so*' -type f | head -1)
[ -n "$LIBSXSCAN" ] || die "no libsxscan.so in $BUILD"
VSCAN=$BUILD/modules/vscan/vscan.dll
[ -e "$VSCAN" ] || die "no virtual scanner module in $BUILD"
HAVE_STATS=0
# Read whole (grep -q would end the pipe early, failing it under pipefail).
if "$SXSCAN" help scan 2>&1 | grep -c -- '--stats' >/dev/null; then HAVE_STATS=1; fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/sxstream.XXXXXX")
SERVER_PID=
trap '[ -z "$SERVER_PID" ] || kill "$SERVER_PID" 2>/dev/null; rm -rf "$WORK"' EXIT
ROOT=$WORK/root
SCANNER=$ROOT/windows/twain_32/Corvane/QM7110
mkdir -p "$SCANNER" "$WORK/conf"
cp "$VSCAN" "$SCANNER/vscan.dll"
echo sxscan >"$WORK/conf/dll.conf"
printf 'root %s\nlibrary %s\n' "$ROOT" "$LIBSXSCAN" >"$WORK/conf/sxscan.conf"

# The scanner's behaviour for one speed: memory or paced.
configure_scanner() {
  local page
  if [ "$1" = memory ]; then page="Prerender=1"; else page="LineDelayUs=$LINE_US"; fi
  printf '[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n[Feeder]\nSheets=1000\n[Page]\n%s\n' "$page" \
    >"$SCANNER/vscan.ini"
}

# Runs a command in a fresh folder under /usr/bin/time; sets WALL (s), RSS
# (KB), BYTES (everything it wrote), OK, and ERR (its stderr file).
measure() {
  local dir=$1; shift
  rm -rf "$dir"; mkdir -p "$dir"
  ERR=$dir.err
  OK=1
  (cd "$dir" && /usr/bin/time -f '%e %M' -o "$dir.time" "$@" >/dev/null 2>"$ERR") || OK=0
  # A failed command adds a line before the figures.
  read -r WALL RSS < <(tail -n 1 "$dir.time") || { WALL=0; RSS=0; }
  [ -n "${RSS:-}" ] || RSS=0
  BYTES=$(find "$dir" -type f -printf '%s\n' | awk '{s += $1} END {print s + 0}')
}

sx_ext() { case $1 in png) echo png ;; tiff) echo tif ;; jpeg) echo jpg ;; pdf) echo pdf ;; esac; }

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else printf "n/a" }'; }
le() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a <= b) }'; }

declare -A LOCAL_PNG=()
declare -a MEM_MISSED=() PNG_MISSED=() PNG_OTHER=() TAIL_MISSED=() FAILED=()
TAIL_SEEN=0
OTHER_FORMAT=0
PNG_SEEN=0

printf '%-6s %-6s %-5s | %7s %7s %5s | %6s %6s %5s | %8s %8s %5s | %7s\n' \
  speed job fmt "sx s" "si s" ratio "sx MB" "si MB" ratio "sx MB" "si MB" ratio "tail ms"
printf '%-6s %-6s %-5s | %21s | %20s | %23s |\n' "" "" "" "wall time" "peak memory" "file size"

for speed in memory paced; do
  configure_scanner "$speed"
  for job in page batch; do
    for fmt in $FORMATS; do
      ext=$(sx_ext "$fmt")
      if [ "$job" = page ]; then
        sx_src=(--source flatbed); si_src=(--source Flatbed -o "out.$ext")
      else
        sx_src=(--source feeder --pages "$PAGES"); si_src=(--source ADF --batch="out%d.$ext" --batch-count="$PAGES")
      fi
      stats=(); [ "$HAVE_STATS" = 1 ] && stats=(--stats)
      measure "$WORK/sx" env SX_ROOT="$ROOT" "$SXSCAN" scan --resolution $DPI --mode color --area $SX_AREA \
        "${sx_src[@]}" "${stats[@]}" --output "out.$ext"
      sx_ok=$OK sx_wall=$WALL sx_rss=$RSS sx_bytes=$BYTES
      # A row where sxscan wrote another format than the one named (several
      # pages for a .png name become one multi-page TIFF) is marked.
      mark=" "
      if find "$WORK/sx" -type f ! -name "*.$ext" | grep -q .; then mark="*"; OTHER_FORMAT=1; fi
      tail=$(sed -n 's/^stats: .*tail-ms \([0-9.]*\).*/\1/p' "$ERR" | tail -1)
      [ -n "$tail" ] || tail=n/a
      measure "$WORK/si" env SANE_CONFIG_DIR="$WORK/conf" LD_LIBRARY_PATH="$BUILD/hosts/sane" \
        scanimage -d "$DEVICE" --mode Color --resolution $DPI "${SI_AREA[@]}" --format="$fmt" "${si_src[@]}"
      si_ok=$OK si_wall=$WALL si_rss=$RSS si_bytes=$BYTES
      if [ "$speed" = memory ]; then
        sx_rss=$((sx_rss > HELD_PAGE_KB ? sx_rss - HELD_PAGE_KB : 0))
        si_rss=$((si_rss > HELD_PAGE_KB ? si_rss - HELD_PAGE_KB : 0))
      fi
      # The eSCL rows below compare with these.
      if [ "$fmt" = png ]; then LOCAL_PNG["$speed $job"]="$sx_wall $sx_rss $sx_bytes $mark"; fi
      [ "$job" = batch ] && [ "$si_ok" = 0 ] && grep -q "Batch terminated" "$ERR" && si_ok=1

      row="$speed $job $fmt"
      [ "$sx_ok" = 1 ] || FAILED+=("sxscan $row")
      [ "$si_ok" = 1 ] || FAILED+=("scanimage $row")
      printf '%-6s %-6s %-5s%s| %7.2f %7.2f %5s | %6.1f %6.1f %5s | %8.1f %8.1f %5s | %7s\n' \
        "$speed" "$job" "$fmt" "$mark" "$sx_wall" "$si_wall" "$(ratio "$sx_wall" "$si_wall")" \
        "$(awk -v k="$sx_rss" 'BEGIN{print k/1024}')" "$(awk -v k="$si_rss" 'BEGIN{print k/1024}')" \
        "$(ratio "$sx_rss" "$si_rss")" \
        "$(awk -v b="$sx_bytes" 'BEGIN{print b/1e6}')" "$(awk -v b="$si_bytes" 'BEGIN{print b/1e6}')" \
        "$(ratio "$sx_bytes" "$si_bytes")" "$tail"

      le "$sx_rss" "$si_rss" || MEM_MISSED+=("$row")
      if [ "$fmt" = png ] && [ "$mark" = "*" ]; then
        PNG_OTHER+=("$row")
      elif [ "$fmt" = png ]; then
        PNG_SEEN=1
        { le "$sx_wall" "$(awk -v w="$si_wall" -v t=$TIME_TICK 'BEGIN{print w + t}')" && le "$sx_bytes" "$(awk -v b="$si_bytes" -v s=$SIZE_SLACK 'BEGIN{print b*s}')"; } ||
          PNG_MISSED+=("$row")
      fi
      if [ "$speed" = paced ] && [ "$tail" != n/a ]; then
        TAIL_SEEN=1
        le "$tail" "$TAIL_GOAL_MS" || TAIL_MISSED+=("$row")
      fi
    done
  done
done

# ---- eSCL ----------------------------------------------------------------
# The same pages served by `sxscan serve` and scanned by scanimage through
# sane-airscan, as a desktop scans over the network (PNG, which the client
# asks for): pages per minute, the server's and the client's peak memory,
# against the local `sxscan scan` rows above. A fresh server per row, so
# that its peak (VmHWM, read before it is stopped) is that row's.
ESCL_DEVICE=airscan:e0:sxscan
# sane-airscan now and then never returns from sane_close after its last
# page: the client is stopped after this long beyond the pages' own time.
ESCL_SPARE_S=30
SERVE_WAIT_TICKS=100  # tenths of a second for the server to say its port

start_server() {  # sets SERVER_PID and PORT, or returns 1
  env SX_ROOT="$ROOT" "$SXSCAN" serve --port 0 --no-announce >"$WORK/serve.out" 2>"$WORK/serve.log" </dev/null &
  SERVER_PID=$!
  local i line
  for ((i = 0; i < SERVE_WAIT_TICKS; i++)); do
    line=$(grep -o 'http://127\.0\.0\.1:[0-9]*' "$WORK/serve.out" 2>/dev/null | head -1) || true
    if [ -n "$line" ]; then PORT=${line##*:}; return 0; fi
    kill -0 "$SERVER_PID" 2>/dev/null || break
    sleep 0.1
  done
  stop_server
  return 1
}
stop_server() {  # sets SERVER_KB, the server's peak resident memory
  SERVER_KB=$(awk '/^VmHWM:/ {print $2}' "/proc/$SERVER_PID/status" 2>/dev/null) || true
  [ -n "$SERVER_KB" ] || SERVER_KB=0
  kill "$SERVER_PID" 2>/dev/null || true
  wait "$SERVER_PID" 2>/dev/null || true
  SERVER_PID=
}

ESCL_ROWS=()
escl_rows() {
  local speed job pages limit local_wall local_rss local_bytes local_mark hung
  mkdir -p "$WORK/airscan"
  echo airscan >"$WORK/airscan/dll.conf"
  for speed in memory paced; do
    configure_scanner "$speed"
    for job in page batch; do
      if [ "$job" = page ]; then pages=1; else pages=$PAGES; fi
      if [ -z "${LOCAL_PNG["$speed $job"]:-}" ]; then
        echo "eSCL $speed $job: no local PNG row to compare with (SX_BENCH_FORMATS lacks png)"; continue
      fi
      read -r local_wall local_rss local_bytes local_mark <<<"${LOCAL_PNG["$speed $job"]}"
      start_server || { FAILED+=("sxscan serve ($speed $job)"); continue; }
      printf '[devices]\n"sxscan" = http://127.0.0.1:%s/eSCL\n[options]\ndiscovery = disable\n' "$PORT" \
        >"$WORK/airscan/airscan.conf"
      limit=$((ESCL_SPARE_S + pages * 5 * LINE_US / 750))
      if [ "$job" = page ]; then src=(--source Flatbed -o out.png); else src=(--source ADF --batch=out%d.png --batch-count="$pages"); fi
      measure "$WORK/escl" env SANE_CONFIG_DIR="$WORK/airscan" timeout -k 5 "$limit" scanimage -d "$ESCL_DEVICE" \
        --mode Color --resolution $DPI "${SI_AREA[@]}" --format=png "${src[@]}"
      stop_server
      hung=" "
      if [ "$OK" = 0 ] && [ "$(find "$WORK/escl" -name '*.png' | wc -l)" -eq "$pages" ] &&
         grep -q "DELETE /eSCL/ScanJobs/.*: 200" "$WORK/serve.log"; then
        hung="!"; OK=1; ESCL_HUNG=1
      fi
      [ "$job" = batch ] && [ "$OK" = 0 ] && grep -q "Batch terminated" "$ERR" && OK=1
      [ "$OK" = 1 ] || FAILED+=("eSCL $speed $job")
      [ "$speed" = memory ] && SERVER_KB=$((SERVER_KB > HELD_PAGE_KB ? SERVER_KB - HELD_PAGE_KB : 0))
      printf '%-6s %-6s %-1s%s| %7.2f %7.2f %5s | %5.1f %5.1f | %6.1f %6.1f %6.1f %5s | %6.1f %6.1f\n' \
        "$speed" "$job" "$local_mark" "$hung" "$WALL" "$local_wall" "$(ratio "$WALL" "$local_wall")" \
        "$(awk -v p="$pages" -v w="$WALL" 'BEGIN{print (w > 0 ? 60 * p / w : 0)}')" \
        "$(awk -v p="$pages" -v w="$local_wall" 'BEGIN{print (w > 0 ? 60 * p / w : 0)}')" \
        "$(awk -v k="$SERVER_KB" 'BEGIN{print k/1024}')" "$(awk -v k="$RSS" 'BEGIN{print k/1024}')" \
        "$(awk -v k="$local_rss" 'BEGIN{print k/1024}')" "$(ratio "$SERVER_KB" "$local_rss")" \
        "$(awk -v b="$BYTES" 'BEGIN{print b/1e6}')" "$(awk -v b="$local_bytes" 'BEGIN{print b/1e6}')"
    done
  done
}

ESCL_HUNG=0
echo
if ! ls /usr/lib/*/sane/libsane-airscan.so* >/dev/null 2>&1; then
  echo "eSCL: skipped (sane-airscan is not installed; Debian: sane-airscan)"
elif [ ! -x "$BUILD/bin/sxscan-serve" ]; then
  echo "eSCL: skipped (this build has no sxscan-serve)"
else
  echo "eSCL: sxscan serve on loopback, scanimage through sane-airscan (PNG) against local sxscan scan"
  printf '%-6s %-6s %2s| %7s %7s %5s | %5s %5s | %6s %6s %6s %5s | %6s %6s\n' \
    speed job "" "eSCL s" "local" ratio "ppm" "local" "server" client "local" "s/l" "eSCL" "local"
  printf '%-6s %-6s %2s| %21s | %11s | %27s | %13s\n' "" "" "" "wall time" "pages/min" "peak memory MB" "file MB"
  escl_rows
  [ "$ESCL_HUNG" = 0 ] || echo "!: scanimage never returned from sane_close after its last page and was stopped: its wall time includes the wait."
fi

verdict() {  # name, then the rows that missed
  local name=$1; shift
  if [ $# -eq 0 ]; then echo "  $name: met"; else echo "  $name: NOT met ($(IFS=,; echo "$*" | sed 's/,/, /g'))"; fi
}
echo
echo "sxscan ($SXSCAN) against scanimage with the sxscan backend; batch: $PAGES feeder pages;"
echo "paced: $LINE_US us per line. At memory speed the virtual scanner holds the page it drew"
echo "inside each program: peak memory there is shown net of it ($((HELD_PAGE_KB / 1024)) MB)."
if [ "$OTHER_FORMAT" = 1 ]; then echo "*: sxscan wrote another format than the one named (its files' sizes are summed)."; fi
echo "Goals:"
if [ ${#FAILED[@]} -gt 0 ]; then
  echo "  not judged: some runs failed: ${FAILED[*]}"
  exit 1
fi
verdict "memory <= scanimage's" "${MEM_MISSED[@]}"
if [ "$PNG_SEEN" = 1 ]; then
  verdict "PNG wall <= scanimage's (+${TIME_TICK} s, the timer's tick) at a file <= ${SIZE_SLACK}x its size" \
    "${PNG_MISSED[@]}"
fi
if [ ${#PNG_OTHER[@]} -gt 0 ]; then
  echo "  (not judged for PNG: $(IFS=,; echo "${PNG_OTHER[*]}" | sed 's/,/, /g'), where sxscan wrote no PNG)"
fi
if [ "$TAIL_SEEN" = 1 ]; then
  verdict "tail <= $TAIL_GOAL_MS ms (paced)" "${TAIL_MISSED[@]}"
else
  echo "  tail <= $TAIL_GOAL_MS ms: n/a (this sxscan prints no stats line)"
fi


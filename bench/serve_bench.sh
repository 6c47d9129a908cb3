#!/usr/bin/env bash
# The eSCL server under load: `sxscan serve` on loopback over the virtual
# scanner, a scan job running all along (a paced 300 dpi Letter page streamed
# to a client), while
#   load: 32 clients (each from an address of its own) share 1,600
#         capabilities and status requests on keep-alive connections:
#         requests per second, p50 and p99 latency of one request;
#   slow: 256 connections each send part of a request (half a header, or a
#         header and part of its body) and wait, from 16 addresses; then
#         capabilities requests from another client, one at a time: their
#         median and largest latency (goal: at most 250 ms).
# Each round starts a fresh job; the figures are the medians of the rounds
# (the machine may be shared: each round's figures are printed too).
#
# Usage: bench/serve_bench.sh [BUILD_DIR]
#   BUILD_DIR defaults to build/x64-bench (configured as a Release build when
#   new); the targets this needs are brought up to date first.
# Environment: SX_BENCH_ROUNDS (default 5).
set -euo pipefail

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$SRC/build/x64-bench}
ROUNDS=${SX_BENCH_ROUNDS:-5}
CLIENTS=32
REQUESTS=1600
SLOW=256
SLOW_SOURCES=16
SLOW_GOAL_MS=250
# 300 dpi Letter: 3300 lines, 5 ms each, so the job outlasts a round.
LINE_US=5000
SETTINGS='<?xml version="1.0"?><scan:ScanSettings xmlns:scan="http://schemas.hp.com/imaging/escl/2011/05/03" xmlns:pwg="http://www.pwg.org/schemas/2010/12/sm"><pwg:Version>2.0</pwg:Version><pwg:ScanRegions><pwg:ScanRegion><pwg:Height>3300</pwg:Height><pwg:Width>2550</pwg:Width><pwg:XOffset>0</pwg:XOffset><pwg:YOffset>0</pwg:YOffset></pwg:ScanRegion></pwg:ScanRegions><pwg:InputSource>Platen</pwg:InputSource><scan:ColorMode>RGB24</scan:ColorMode><scan:XResolution>300</scan:XResolution><scan:YResolution>300</scan:YResolution><scan:DocumentFormatExt>image/png</scan:DocumentFormatExt></scan:ScanSettings>'

die() { echo "serve_bench: $*" >&2; exit 1; }
command -v curl >/dev/null || die "curl is not installed"

if [ ! -e "$BUILD/CMakeCache.txt" ]; then
  cmake -S "$SRC" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release >/dev/null || die "cannot configure $BUILD"
fi
cmake --build "$BUILD" -j2 --target sxscan_host vscan serve_load >"$BUILD/serve_bench-build.log" 2>&1 ||
  die "the build failed (see $BUILD/serve_bench-build.log)"
BUILD=$(cd "$BUILD" && pwd)
LOAD=$BUILD/bench/serve_load
[ -x "$LOAD" ] || die "this build has no server (libmicrohttpd missing?)"

WORK=$(mktemp -d "${TMPDIR:-/tmp}/sxserve.XXXXXX")
SERVER_PID=
READER_PID=
cleanup() {
  [ -z "$READER_PID" ] || kill "$READER_PID" 2>/dev/null || true
  [ -z "$SERVER_PID" ] || kill "$SERVER_PID" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT
SCANNER=$WORK/root/windows/twain_32/Corvane/QM7110
mkdir -p "$SCANNER"
cp "$BUILD/modules/vscan/vscan.dll" "$SCANNER/vscan.dll"
printf '[Scanner]\nModel=QM7110V\nFirmware=1.00\nPort=USB\n[Page]\nLineDelayUs=%s\n' "$LINE_US" >"$SCANNER/vscan.ini"

env SX_ROOT="$WORK/root" "$BUILD/bin/sxscan" serve --port 0 --no-announce >"$WORK/serve.out" 2>"$WORK/serve.log" </dev/null &
SERVER_PID=$!
PORT=
for _ in $(seq 100); do
  PORT=$(sed -n 's|.*http://127\.0\.0\.1:\([0-9]*\)/eSCL.*|\1|p' "$WORK/serve.out" | head -1)
  [ -n "$PORT" ] && break
  kill -0 "$SERVER_PID" 2>/dev/null || break
  sleep 0.1
done
[ -n "$PORT" ] || die "the server did not start: $(cat "$WORK/serve.log")"
URL=http://127.0.0.1:$PORT/eSCL

field() { sed -n "s/.*\\b$1 \\([0-9.]*\\).*/\\1/p" <<<"$2"; }
median() { sort -n | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }

echo "machine: $(nproc) cores, $(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1), load average $(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-5s | %8s %8s %8s %6s | %10s %10s %5s\n' round "req/s" "p50 ms" "p99 ms" failed "slow p50" "slow max" held
declare -a RPS=() P50=() P99=() SLOW50=() SLOWMAX=()
FAILED=0
for round in $(seq "$ROUNDS"); do
  # The previous round's job may still be letting the scanner go.
  job=
  for _ in $(seq 50); do
    job=$(curl -s -D - -o /dev/null -H 'Content-Type: text/xml' --data "$SETTINGS" "$URL/ScanJobs" |
      sed -n 's|^Location: \(/eSCL/ScanJobs/[0-9a-f-]*\).*|\1|p')
    [ -n "$job" ] && break
    sleep 0.1
  done
  [ -n "$job" ] || die "round $round: the job was not created"
  curl -s -o /dev/null "http://127.0.0.1:$PORT$job/NextDocument" &
  READER_PID=$!
  load=$("$LOAD" load "$PORT" "$CLIENTS" "$REQUESTS") || FAILED=1
  slow=$("$LOAD" slow "$PORT" "$SLOW" "$SLOW_SOURCES") || FAILED=1
  curl -s -o /dev/null -X DELETE "http://127.0.0.1:$PORT$job"
  wait "$READER_PID" 2>/dev/null || true
  READER_PID=
  RPS+=("$(field rps "$load")") P50+=("$(field p50_ms "$load")") P99+=("$(field p99_ms "$load")")
  SLOW50+=("$(field probe_p50_ms "$slow")") SLOWMAX+=("$(field probe_max_ms "$slow")")
  printf '%-5s | %8s %8s %8s %6s | %10s %10s %5s\n' "$round" "${RPS[-1]}" "${P50[-1]}" "${P99[-1]}" \
    "$(field failed "$load")" "${SLOW50[-1]}" "${SLOWMAX[-1]}" "$(field held "$slow")"
done
m_rps=$(printf '%s\n' "${RPS[@]}" | median)
m_slow=$(printf '%s\n' "${SLOWMAX[@]}" | median)
printf '%-5s | %8s %8s %8s %6s | %10s %10s\n' median "$m_rps" "$(printf '%s\n' "${P50[@]}" | median)" \
  "$(printf '%s\n' "${P99[@]}" | median)" "" "$(printf '%s\n' "${SLOW50[@]}" | median)" "$m_slow"
if awk -v a="$m_slow" -v b="$SLOW_GOAL_MS" 'BEGIN { exit !(a <= b) }'; then
  echo "goal met: a capabilities request among $SLOW partial ones is answered within $SLOW_GOAL_MS ms"
else
  echo "goal missed: a capabilities request among $SLOW partial ones took $m_slow ms (goal $SLOW_GOAL_MS)"
  FAILED=1
fi
exit $FAILED

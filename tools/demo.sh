#!/usr/bin/env bash
# The main job: build sxscan and everything `cmake --install` copies (the
# SANE backend where the SANE headers are, the modules, the reference),
# install the virtual scanner into a demo system tree, choose it as the data
# source, show it, and scan one page to out/page.png. When the scan does
# not succeed, the capabilities are shown instead (set DEMO_STRICT=1 to fail
# then).
#
# Environment: SX_ROOT (demo system tree, default out/demo-root), JOBS,
# BUILD_ROOT (folder of the build trees, default build), DEMO_OUTPUT (default
# out/page.png), DEMO_SCAN_ARGS (extra scan options).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

JOBS=${JOBS:-2}
BUILD=${BUILD_ROOT:-build}/x64
export SX_ROOT=${SX_ROOT:-$PWD/out/demo-root}
OUTPUT=${DEMO_OUTPUT:-out/page.png}
MODEL=QM7110V

tools/setup.sh >/dev/null
# Same configuration as tools/test.sh, so that the two share one build.
# The build is quiet; its log is shown only when it fails.
build_log=$(mktemp)
echo "demo: building (log: $build_log)"
if ! { cmake -S . -B "$BUILD" -DSX_WERROR=ON &&
       cmake --build "$BUILD" -j "$JOBS" --target sx_installable sxprofile; } \
     >"$build_log" 2>&1; then
  tail -n 40 "$build_log"
  echo "demo: the build failed" >&2
  exit 1
fi

sxscan="$BUILD/bin/sxscan"
module_dir="$SX_ROOT/windows/twain_32/Corvane/VScan"
mkdir -p "$module_dir" "$(dirname "$OUTPUT")"
install -m 0755 "$BUILD/modules/vscan/vscan.dll" "$module_dir/vscan.dll"
# The module's defaults describe a colour flatbed with an empty feeder; the
# demo names the model it selects.
cat > "$module_dir/vscan.ini" <<INI
[Scanner]
Vendor=CORVANE
Model=$MODEL
Firmware=1.00
Port=USB

[Feeder]
Sheets=0
INI

# The progress dialog's words (the transfer mode's name among them), which
# a new tree's registry store names; an existing store is kept.
install -D -m 0644 cmake/skeleton/sxscan.loc "$SX_ROOT/windows/sxscan.loc"
[[ -e "$SX_ROOT/user.reg" ]] || install -m 0644 cmake/skeleton/user.reg "$SX_ROOT/user.reg"

# SCSI: the machine's own bus is asked for scanners through the Linux ASPI
# module (a machine without SCSI answers at once).
install -D -m 0755 "$BUILD/modules/aspisg/wnaspi32.dll" "$SX_ROOT/windows/system32/wnaspi32.dll"

# Colour matching: the colour-management module beside the system's modules,
# the scanner's input profile and an sRGB output profile in the colour folder,
# and the driver's cmatch.ini naming the profile for the model.
color_dir="$SX_ROOT/windows/system32/SPOOL/DRIVERS/COLOR"
mkdir -p "$color_dir"
install -m 0755 "$BUILD/modules/cmms/sxcmms.dll" "$SX_ROOT/windows/system32/sxcmms.dll"
"$BUILD/modules/cmms/sxprofile" scanner "$color_dir/vscan.icc"
"$BUILD/modules/cmms/sxprofile" srgb "$color_dir/sRGB.icc"
printf '[Model]\n%s=vscan.icc\n' "$MODEL" >"$module_dir/cmatch.ini"

run() {
  echo "\$ sxscan $*"
  "$sxscan" "$@"
}

echo "demo: system tree $SX_ROOT"
[[ -e "$BUILD/hosts/sane/libsane-sxscan.so.1" ]] &&
  echo "demo: SANE backend $BUILD/hosts/sane/libsane-sxscan.so.1 (README: Scanning from SANE frontends)"
run sources
run select "$MODEL"
run info
# shellcheck disable=SC2086 # DEMO_SCAN_ARGS is a list of options
if run scan --source flatbed --resolution 150 --mode color --output "$OUTPUT" ${DEMO_SCAN_ARGS:-}; then
  echo "demo: scanned one page to $OUTPUT"
else
  status=$?
  echo "demo: the scan did not succeed (exit $status); the capabilities instead:"
  run caps
  [[ "${DEMO_STRICT:-0}" == 1 ]] && exit "$status"
fi

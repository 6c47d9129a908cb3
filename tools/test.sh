#!/usr/bin/env bash
# The whole check of sxscan, as CI runs it: set-up, then build and test the
# x86-64 and i386 configurations, build the Windows DLLs and run the x86-64
# one's suites under wine64, fuzz the parsers briefly, run the threaded
# suites under ThreadSanitizer and the whole suite under AddressSanitizer and
# UndefinedBehaviorSanitizer. Every stage runs even when an earlier
# one failed; the exit status is nonzero if any failed.
#
# Environment: JOBS (parallel jobs, default 2), BUILD_ROOT (folder of the build
# trees, default build), FUZZ_SECONDS (per fuzz target, default 5),
# TSAN_SUITES (test folders run under ThreadSanitizer, default
# "platform lifecycle acquire buffered reliability scsi sxscan serve"), SKIP_STAGES (e.g. "fuzz tsan"),
# SX_WINE_TIMEOUT (seconds one Windows test program may take, default 600).
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

JOBS=${JOBS:-2}
BUILD_ROOT=${BUILD_ROOT:-build}
FUZZ_SECONDS=${FUZZ_SECONDS:-5}
TSAN_SUITES=${TSAN_SUITES:-"platform lifecycle acquire buffered reliability scsi sxscan serve"}
SKIP_STAGES=${SKIP_STAGES:-}

summary=()
failed=0

# stage NAME COMMAND...: runs one stage and records its outcome and time.
stage() {
  local name=$1
  shift
  if [[ " $SKIP_STAGES " == *" $name "* ]]; then
    summary+=("$name skipped")
    return
  fi
  echo "==== $name"
  local start=$SECONDS
  if "$@"; then
    summary+=("$name ok ($((SECONDS - start))s)")
  else
    summary+=("$name FAILED ($((SECONDS - start))s)")
    failed=1
  fi
}

# build_and_test DIR CMAKE-ARGS...
build_and_test() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -DSX_WERROR=ON "$@" &&
    cmake --build "$dir" -j "$JOBS" &&
    ctest --test-dir "$dir" --output-on-failure -j "$JOBS"
}

# Whether this machine runs i386 programs at all: some kernels are built
# without 32-bit emulation ("Exec format error").
runs_i386() {
  local probe
  probe=$(mktemp -d) || return 1
  printf 'int main(void) { return 0; }\n' >"$probe/probe.c"
  cc -m32 "$probe/probe.c" -o "$probe/probe" 2>/dev/null && "$probe/probe" 2>/dev/null
  local status=$?
  rm -rf "$probe"
  return $status
}

# The i386 configuration: built (the records' static size and offset checks
# run at compile time) and tested, natively where the kernel runs i386
# programs, else each test program and the install check's examples under
# qemu's user-mode emulation.
build_and_test_i386() {
  local dir=$1
  shift
  if runs_i386; then
    build_and_test "$dir" "$@"
    return
  fi
  cmake -S . -B "$dir" -DSX_WERROR=ON "$@" && cmake --build "$dir" -j "$JOBS" || return 1
  if ! command -v qemu-i386 >/dev/null; then
    echo "x86: this kernel cannot run i386 programs and qemu-i386 is absent; built without running the tests"
    return 0
  fi
  echo "x86: this kernel cannot run i386 programs; running the tests under qemu-i386"
  local program status=0
  for program in "$dir"/tests/sx_tests_*; do
    [[ -x $program ]] || continue
    echo "== ${program##*/}"
    (cd "$dir/tests" && timeout 1200 qemu-i386 -L / "./${program##*/}" --gtest_brief=1) || status=1
  done
  echo "== install"
  SX_TEST_RUNNER="qemu-i386 -L /" bash tests/install/install_test.sh "$dir" cc -m32 || status=1
  return $status
}

# The Windows builds (MinGW-w64). x86-64: every suite that runs on Windows,
# under wine64 in a throw-away prefix (tools/wine-tests.sh), then the package
# as tools/package-windows.sh makes it, in a temporary folder, installed into
# a fresh prefix as its README says, with the example host and sxscan.exe run
# from it (tools/win-example.sh). i686, the 32-bit system the interfaces come
# from, has no Wine here: built (the records' size and offset checks run at
# compile time) and its exports checked (tools/check-win32.sh).
windows() {
  local status=0 package
  if cmake -S . -B "$BUILD_ROOT/win64" -DSX_WERROR=ON -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-x86_64.cmake &&
    cmake --build "$BUILD_ROOT/win64" -j "$JOBS"; then
    tools/wine-tests.sh "$BUILD_ROOT/win64" || status=1
    package=$(mktemp -d)
    if ARCH=x86_64 JOBS=$JOBS BUILD_ROOT=$BUILD_ROOT PACKAGE_DIR=$package/sxscan-win64 \
      tools/package-windows.sh >/dev/null; then
      tools/win-example.sh "$package/sxscan-win64" || status=1
    else
      status=1
    fi
    rm -rf "$package"
  else
    status=1
  fi
  cmake -S . -B "$BUILD_ROOT/win32" -DSX_WERROR=ON -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-i686.cmake \
    -DSX_BUILD_TESTS=OFF &&
    cmake --build "$BUILD_ROOT/win32" -j "$JOBS" &&
    tools/check-win32.sh "$BUILD_ROOT/win32" || status=1
  return $status
}

fuzz() {
  FUZZ_SECONDS=$FUZZ_SECONDS FUZZ_BUILD_DIR="$BUILD_ROOT/fuzz" JOBS=$JOBS bash tools/fuzz.sh
}

# The sanitizer builds: assertions on, light optimisation and line tables
# only. Against the optimised default this takes a third (ThreadSanitizer)
# to two fifths (AddressSanitizer) off their stages, and every report's stack
# still names files and lines.
SANITIZER_BUILD=(-DCMAKE_BUILD_TYPE=Debug "-DCMAKE_C_FLAGS_DEBUG=-O1 -g1" "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g1")

# Only the suites that run threads: the sanitizer slows everything down, and
# the others have nothing for it to find. The sxscan and serve suites run the
# sxscan programs (their encoder, job and signal-handling threads) built with
# the sanitizer too: a report ends the program and fails the test.
tsan() {
  local targets=() names=() suite
  for suite in $TSAN_SUITES; do
    if compgen -G "tests/*/$suite/*.cpp" >/dev/null; then
      targets+=("sx_tests_$suite")
      names+=("$suite")
    fi
  done
  if ((${#targets[@]} == 0)); then
    echo "tsan: none of the suites '$TSAN_SUITES' exists"
    return 0
  fi
  local pattern
  pattern="^($(IFS='|'; echo "${names[*]}"))\$"
  cmake -S . -B "$BUILD_ROOT/tsan" -DSX_WERROR=ON -DSX_SANITIZE=thread "${SANITIZER_BUILD[@]}" -DSX_BUILD_BENCH=OFF \
    -DSX_BUILD_HOST=ON &&
    cmake --build "$BUILD_ROOT/tsan" -j "$JOBS" --target "${targets[@]}" &&
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ${TSAN_OPTIONS:-}" \
      ctest --test-dir "$BUILD_ROOT/tsan" --output-on-failure -j "$JOBS" -R "$pattern"
}

# The whole suite under AddressSanitizer (leaks included) and
# UndefinedBehaviorSanitizer in one build: any report fails the test that
# caused it.
asan_ubsan() {
  cmake -S . -B "$BUILD_ROOT/asan" -DSX_WERROR=ON -DSX_SANITIZE=address,undefined \
    -DCMAKE_C_FLAGS=-fno-sanitize-recover=undefined -DCMAKE_CXX_FLAGS=-fno-sanitize-recover=undefined \
    "${SANITIZER_BUILD[@]}" -DSX_BUILD_BENCH=OFF &&
    cmake --build "$BUILD_ROOT/asan" -j "$JOBS" &&
    ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}" UBSAN_OPTIONS="print_stacktrace=1 ${UBSAN_OPTIONS:-}" \
      ctest --test-dir "$BUILD_ROOT/asan" --output-on-failure -j "$JOBS"
}

total_start=$SECONDS
stage setup tools/setup.sh
stage x64 build_and_test "$BUILD_ROOT/x64"
stage x86 build_and_test_i386 "$BUILD_ROOT/x86" -DCMAKE_C_FLAGS=-m32 -DCMAKE_CXX_FLAGS=-m32 \
  -DSX_BUILD_HOST=OFF -DSX_BUILD_BENCH=OFF
stage windows windows
if [[ -f tools/fuzz.sh ]]; then
  stage fuzz fuzz
else
  summary+=("fuzz absent")
fi
stage tsan tsan
stage asan-ubsan asan_ubsan

verdict=PASSED
((failed)) && verdict=FAILED
echo "==== sxscan CI $verdict in $((SECONDS - total_start))s: $(IFS=';'; echo "${summary[*]}" | sed 's/;/, /g')"
exit "$failed"

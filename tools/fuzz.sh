#!/usr/bin/env bash
# Builds the fuzz targets through CMake (fuzz/CMakeLists.txt: clang's
# libFuzzer, address and undefined-behaviour sanitizers, the same targets the
# library and the modules are built from) and runs each one for a bounded
# time on its seed corpus fuzz/corpus/<target>.
#
#   tools/fuzz.sh [target...]      targets: registry profile version values driver vscan kernels aspibus escl
#                                  (default: every one this build has; escl needs the eSCL server's libraries)
#
# Environment: FUZZ_SECONDS (default 20) per target; FUZZ_BUILD_DIR (default
# build/fuzz); JOBS (parallel build jobs, default 2); CC_FUZZ / CXX_FUZZ
# (default clang-14 or clang). Needs: apt-get install clang libclang-rt-14-dev
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${FUZZ_SECONDS:-20}"
out="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
jobs="${JOBS:-2}"
cc="${CC_FUZZ:-$(command -v clang-14 || command -v clang || true)}"
cxx="${CXX_FUZZ:-$(command -v clang++-14 || command -v clang++ || true)}"
if [[ -z "$cc" || -z "$cxx" ]]; then
  echo "fuzz.sh: clang not found (apt-get install clang libclang-rt-14-dev)" >&2
  exit 2
fi

mkdir -p "$out"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$root" -B "$out" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DSX_BUILD_FUZZ=ON \
  -DSX_SANITIZE=address,undefined -DCMAKE_C_FLAGS=-fno-sanitize-recover=undefined \
  -DCMAKE_CXX_FLAGS=-fno-sanitize-recover=undefined -DSX_BUILD_TESTS=OFF -DSX_BUILD_BENCH=OFF \
  "${launcher[@]}" >"$out/configure.log" 2>&1 || { cat "$out/configure.log" >&2; exit 2; }
if [[ ! -f "$out/fuzz/targets.txt" ]]; then
  echo "fuzz.sh: this clang has no libFuzzer (apt-get install libclang-rt-14-dev)" >&2
  exit 2
fi
mapfile -t available <"$out/fuzz/targets.txt"

targets=("$@")
[[ ${#targets[@]} -eq 0 ]] && targets=("${available[@]}")
for t in "${targets[@]}"; do
  if [[ " ${available[*]} " != *" $t "* ]]; then
    echo "fuzz.sh: no fuzz target '$t' in this build (there are: ${available[*]})" >&2
    exit 2
  fi
done
echo "== building ${targets[*]}"
cmake --build "$out" -j "$jobs" --target "${targets[@]/%/_fuzz}"

status=0
for t in "${targets[@]}"; do
  bin="$out/fuzz/${t}_fuzz"
  # New inputs go to a work corpus; the seed corpus in the tree stays as it is.
  work="$out/corpus-$t"
  mkdir -p "$work"
  echo "== running $t for ${seconds}s"
  if ! "$bin" "$work" "$root/fuzz/corpus/$t" -max_total_time="$seconds" -max_len=65536 \
       -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$out/$t-" -print_final_stats=1 2>"$out/$t.log"; then
    echo "fuzz.sh: $t found a failure; see $out/$t.log" >&2
    tail -n 40 "$out/$t.log" >&2
    status=1
  else
    grep -E "^kernel set |^stat::number_of_executed_units|^Done" "$out/$t.log" || true
  fi
done
exit $status

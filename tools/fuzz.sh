#!/usr/bin/env bash
# Builds the parser fuzz targets with libFuzzer (clang, address and undefined
# sanitizers) straight from the platform sources and runs each one for a
# bounded time on its seed corpus.
#
#   tools/fuzz.sh [target...]      targets: registry profile version values driver vscan kernels aspibus escl
#                                  (default: all)
#
# Environment: FUZZ_SECONDS (default 20) per target; FUZZ_BUILD_DIR (default
# build-fuzz). Needs: apt-get install clang libclang-rt-14-dev
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${FUZZ_SECONDS:-20}"
out="${FUZZ_BUILD_DIR:-$root/build-fuzz}"
cxx="${CXX_FUZZ:-$(command -v clang++-14 || command -v clang++ || true)}"
if [[ -z "$cxx" ]]; then
  echo "fuzz.sh: clang++ not found (apt-get install clang libclang-rt-14-dev)" >&2
  exit 2
fi

declare -A sources=(
  [registry]="lib/platform/text/RegistryText.cpp"
  [profile]="lib/platform/text/ProfileText.cpp"
  [version]="lib/platform/posix/VersionRecord.cpp lib/platform/posix/VersionBlock.cpp"
)
# Host values go through the whole library: every source but the shared
# object's attach hooks.
core=$(cd "$root" && ls lib/frame/*.cpp lib/driver/*.cpp lib/sources/*.cpp lib/settings/*.cpp lib/acquire/*.cpp \
  lib/imaging/*.cpp lib/platform/*.cpp lib/platform/text/*.cpp lib/platform/posix/*.cpp | grep -v '/Attach\.cpp$' | tr '\n' ' ')
kernels="lib/imaging/kernels/Kernels.cpp lib/imaging/kernels/KernelsPortable.cpp lib/imaging/kernels/Processor.cpp"
core="$core $kernels"
sources[values]="$core"
sources[driver]="$core"
sources[vscan]="modules/vscan/VscanConfig.cpp modules/common/ModuleIni.cpp modules/common/ModuleIniPosix.cpp modules/vscan/TestChart.cpp $kernels"
sources[aspibus]="modules/aspisim/AspiBus.cpp modules/common/ModuleIni.cpp modules/common/ModuleIniPosix.cpp"
# The eSCL server's ScanSettings parser and its check (links pugixml).
sources[escl]="hosts/serve/EsclSettings.cpp"
# The kernels against the tests' reference; on x86-64 the AVX2 and AVX-512 sets
# too (the target says which of them this processor cannot run).
sources[kernels]="$kernels tests/support/ReferenceKernels.cpp"

targets=("$@")
[[ ${#targets[@]} -eq 0 ]] && targets=(registry profile version values driver vscan kernels aspibus escl)
mkdir -p "$out"

status=0
for t in "${targets[@]}"; do
  if [[ -z "${sources[$t]:-}" ]]; then
    echo "fuzz.sh: unknown target '$t'" >&2
    exit 2
  fi
  bin="$out/${t}_fuzz"
  srcs=()
  for s in ${sources[$t]}; do srcs+=("$root/$s"); done
  flags=(-std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined
         -I"$root" -I"$root/lib" -I"$root/hosts" -I"$root/include" -I"$root/tests")
  extra=()
  libs=()
  [[ $t == escl ]] && libs=(-lpugixml)
  if [[ $t == kernels && $(uname -m) == x86_64 ]]; then
    extra=(-DSX_HAVE_AVX2_KERNELS -DSX_HAVE_AVX512_KERNELS)
    for set in "Avx2:-mavx2" "Avx512:-mavx512f -mavx512bw -mavx512vl" \
               "Avx512Ymm:-mavx512f -mavx512bw -mavx512vl -mprefer-vector-width=256"; do
      # shellcheck disable=SC2086
      "$cxx" "${flags[@]/-fsanitize=fuzzer,/-fsanitize=fuzzer-no-link,}" ${set#*:} \
        -c "$root/lib/imaging/kernels/Kernels${set%%:*}.cpp" -o "$out/Kernels${set%%:*}.o"
      extra+=("$out/Kernels${set%%:*}.o")
    done
  fi
  echo "== building $t"
  "$cxx" "${flags[@]}" "${extra[@]}" "$root/fuzz/${t}_fuzz.cpp" "${srcs[@]}" -o "$bin" "${libs[@]}" -lpthread -ldl
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

#!/usr/bin/env bash
# Fails when the compiler no longer vectorises a kernel loop marked
# "vectorised:" in lib/imaging/kernels/KernelsBody.inc at the full vector
# width of a kernel build: compiles each build with the vectoriser's report
# and looks for every marked line in it. The options are those
# lib/CMakeLists.txt gives each file; a kernel build missing here fails too.
# A build must also define no shared (weak) symbol: the linker keeps one copy
# of such a function for the whole library, which could be an AVX-512 one
# called from the portable kernels.
#
#   tools/check-vectorised.sh [c++ compiler]     (default: c++)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cxx="${1:-c++}"
dir="$root/lib/imaging/kernels"
body="$dir/KernelsBody.inc"
avx512="-mavx512f -mavx512bw -mavx512vl"
# file:vector bytes:options
builds=("KernelsPortable.cpp:16:")
if [[ $(uname -m) == x86_64 ]]; then
  builds+=("KernelsAvx2.cpp:32:-mavx2" "KernelsAvx512.cpp:64:$avx512"
           "KernelsAvx512Ymm.cpp:32:$avx512 -mprefer-vector-width=256")
fi

status=0
if [[ $(uname -m) == x86_64 ]]; then
  for file in "$dir"/Kernels?*.cpp; do
    name=$(basename "$file")
    if ! printf '%s\n' "${builds[@]}" | grep -q "^$name:"; then
      echo "FAIL $name: a kernel build this check does not know" >&2
      status=1
    fi
  done
fi

object=$(mktemp)
trap 'rm -f "$object"' EXIT
for build in "${builds[@]}"; do
  IFS=: read -r file bytes extra <<<"$build"
  # shellcheck disable=SC2086
  report=$("$cxx" -std=c++20 -O3 $extra -fopt-info-vec-optimized -I"$root/lib" \
    -c "$dir/$file" -o "$object" 2>&1)
  if shared=$(nm -C "$object" | grep -E ' [VvWwu] '); then
    echo "FAIL $file: defines shared symbols: $shared" >&2
    status=1
  fi
  while IFS=: read -r line text; do
    name="${text#*vectorised: }"
    if grep -q "KernelsBody.inc:$line:[0-9]*: optimized: loop vectorized using $bytes byte vectors" <<<"$report"; then
      echo "ok   $file: $name (line $line)"
    else
      echo "FAIL $file: $name (line $line) is not vectorised with $bytes-byte vectors" >&2
      status=1
    fi
  done < <(grep -n "// vectorised:" "$body")
done
exit $status

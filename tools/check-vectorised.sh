#!/usr/bin/env bash
# Fails when the compiler no longer vectorises a kernel loop marked
# "vectorised:" in lib/imaging/kernels/KernelsBody.inc: compiles each kernel build
# with the vectoriser's report and looks for every marked line in it.
#
#   tools/check-vectorised.sh [c++ compiler]     (default: c++)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
cxx="${1:-c++}"
body="$root/lib/imaging/kernels/KernelsBody.inc"
builds=("KernelsPortable.cpp:")
[[ $(uname -m) == x86_64 ]] && builds+=("KernelsAvx2.cpp:-mavx2")

status=0
for build in "${builds[@]}"; do
  file="${build%%:*}"
  extra="${build#*:}"
  # shellcheck disable=SC2086
  report=$("$cxx" -std=c++20 -O3 $extra -fopt-info-vec-optimized -I"$root/lib" \
    -c "$root/lib/imaging/kernels/$file" -o /dev/null 2>&1)
  while IFS=: read -r line text; do
    name="${text#*vectorised: }"
    if grep -q "KernelsBody.inc:$line:[0-9]*: optimized: loop vectorized" <<<"$report"; then
      echo "ok   $file: $name (line $line)"
    else
      echo "FAIL $file: $name (line $line) is not vectorised" >&2
      status=1
    fi
  done < <(grep -n "// vectorised:" "$body")
done
exit $status

// The block chain's kernels written the plain way, one byte at a time,
// exactly as the arithmetic is defined. The library's kernel sets must
// deliver the same bytes; tests run both and compare.
#pragma once
#include "imaging/kernels/Kernels.h"

namespace sx::test {

const KernelSet& ReferenceKernels();

}  // namespace sx::test

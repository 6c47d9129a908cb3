// The kernels compiled for AVX2 (x86-64 only; the build gives this file
// -mavx2). Run only where the processor reports AVX2.
#define SX_KERNEL_NS avx2
#define SX_KERNEL_NAME "avx2"
#include "imaging/kernels/KernelsBody.inc"

// The kernels compiled for AVX-512 with 512-bit vectors (x86-64 only; the
// build gives this file -mavx512f -mavx512bw -mavx512vl). Run only where the
// processor has all three and the system saves the ZMM and opmask registers.
#define SX_KERNEL_NS avx512
#define SX_KERNEL_NAME "avx512"
#include "imaging/kernels/KernelsBody.inc"

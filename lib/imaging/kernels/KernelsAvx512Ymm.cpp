// The AVX-512 kernels kept to 256-bit vectors (the build adds
// -mprefer-vector-width=256 to the AVX-512 options): the instructions and
// sixteen more registers without the wider data path, which some processors
// run at a lower clock. Run where the 512-bit set runs.
#define SX_KERNEL_NS avx512ymm
#define SX_KERNEL_NAME "avx512-ymm"
#include "imaging/kernels/KernelsBody.inc"

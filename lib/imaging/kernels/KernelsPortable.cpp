// The kernels for the baseline instruction set of the build's ABI.
#define SX_KERNEL_NS portable
#define SX_KERNEL_NAME "portable"
#include "imaging/kernels/KernelsBody.inc"

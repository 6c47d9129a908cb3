// Driver status codes to library result codes.
#pragma once
#include <cstdint>

namespace sx {

// Traced ("In " with the driver code, "Out" with the library code).
int32_t ErrorCodeMapping(uint32_t statusCode);

}  // namespace sx

# Cross build for Windows with MinGW-w64 (x86_64). Used as
# cmake -DCMAKE_TOOLCHAIN_FILE=<this file>.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/MingwToolchain.cmake)

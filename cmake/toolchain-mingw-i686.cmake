# Cross build for Windows with MinGW-w64 (i686). Used as
# cmake -DCMAKE_TOOLCHAIN_FILE=<this file>.
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/MingwToolchain.cmake)

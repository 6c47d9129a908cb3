# What both MinGW-w64 toolchain files share: the posix-threads compilers
# (they have std::thread) of the processor the including file names.
set(CMAKE_SYSTEM_NAME Windows)
set(SX_MINGW_TRIPLE ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)
set(CMAKE_C_COMPILER ${SX_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${SX_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${SX_MINGW_TRIPLE}-windres)
set(CMAKE_STRIP /usr/bin/${SX_MINGW_TRIPLE}-strip)
set(CMAKE_FIND_ROOT_PATH /usr/${SX_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

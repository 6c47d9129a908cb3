# The Windows build (MinGW-w64): the platform's own libraries, programs and
# DLLs that need no MinGW runtime DLL beside them, and sxscan.dll with its
# .def exports and import library.
enable_language(RC)

# What lib/platform/win32 calls: the registry and version resources, dialogs,
# drawing and the colour API.
set(SX_SYSTEM_LIBS advapi32 version user32 gdi32)

# The C++ and thread runtimes are linked in, so a DLL or program copied to
# another machine (or prefix) loads with only the system's DLLs.
add_link_options(-static -static-libgcc -static-libstdc++)

set(SX_IS_WIN32_X86 OFF)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(SX_IS_WIN32_X86 ON)
endif()

# The export list as written for this build (the install rules ship it).
set(SX_DEF_FILE ${CMAKE_BINARY_DIR}/sxscan.def)

# sxscan.dll: the exports of cmake/sxscan.def. On i686 the list keeps the
# __stdcall decoration for the import library and --kill-at exports the
# plain names; on x86-64 the decoration does not exist and is dropped.
function(sx_add_windows_library attach_source)
  file(READ ${CMAKE_SOURCE_DIR}/cmake/sxscan.def def)
  if(NOT SX_IS_WIN32_X86)
    string(REGEX REPLACE "@[0-9]+" "" def "${def}")
  endif()
  file(GENERATE OUTPUT ${SX_DEF_FILE} CONTENT "${def}")
  add_library(sxscan SHARED ${attach_source} ${SX_DEF_FILE}
              $<TARGET_OBJECTS:sxcore_obj> $<TARGET_OBJECTS:sxkernels_obj>
              $<TARGET_OBJECTS:sxplatform_obj>)
  target_include_directories(sxscan PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>
                                           $<INSTALL_INTERFACE:include/sxscan>
                                    PRIVATE ${CMAKE_SOURCE_DIR}/lib)
  target_link_libraries(sxscan PRIVATE Threads::Threads ${SX_SYSTEM_LIBS})
  target_link_options(sxscan PRIVATE -Wl,--no-undefined)
  if(SX_IS_WIN32_X86)
    target_link_options(sxscan PRIVATE -Wl,--kill-at)
    # --kill-at strips the decoration from the import library the linker
    # writes as well, and a caller compiled with __stdcall asks for _Name@N:
    # the import library is written again from the decorated list, its
    # entries naming the plain exports.
    add_custom_command(TARGET sxscan POST_BUILD
      COMMAND ${CMAKE_DLLTOOL} --input-def ${SX_DEF_FILE} --dllname sxscan.dll --kill-at
              --output-lib $<TARGET_LINKER_FILE:sxscan>
      VERBATIM)
  endif()
  set_target_properties(sxscan PROPERTIES PREFIX "" IMPORT_PREFIX "" IMPORT_SUFFIX ".lib"
                                          LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/sxscan.def)
endfunction()

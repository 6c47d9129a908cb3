# Driver modules keep their Windows names ("vscan.dll") and carry a version
# record: on Linux in the ELF section .sxversion, on Windows as the module's
# VERSIONINFO resource made from the same text.
if(NOT WIN32)
  find_program(SX_OBJCOPY NAMES objcopy REQUIRED)
endif()

# sx_add_module(<target> SOURCES ...): a loadable module named <target>.dll.
function(sx_add_module target)
  cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
  add_library(${target} MODULE ${ARG_SOURCES})
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".dll")
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/include)
  # The library looks entry points up by their plain names, as a maker's
  # 32-bit module exports its __stdcall functions.
  if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_link_options(${target} PRIVATE -Wl,--kill-at)
  endif()
endfunction()

# sx_attach_version_record(<target> <file>): attaches <file> as the module's
# version record after every link.
function(sx_attach_version_record target file)
  if(WIN32)
    sx_add_version_resource(${target} ${file})
    return()
  endif()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${SX_OBJCOPY} --remove-section .sxversion $<TARGET_FILE:${target}>
    COMMAND ${SX_OBJCOPY} --add-section .sxversion=${file}
            --set-section-flags .sxversion=noload,readonly $<TARGET_FILE:${target}>
    VERBATIM)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${file})
endfunction()

# sx_add_project_version(<target> <file name> <description>): the project's
# own binaries on Windows (sxscan.dll, sxcmms.dll, sxscan.exe) carry a
# version resource made from the one project version, so that installers and
# support staff can read which release a file belongs to.
function(sx_add_project_version target filename description)
  if(NOT WIN32)
    return()
  endif()
  set(text ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.txt)
  set(prefix "\\StringFileInfo\\040904B0\\")
  file(WRITE ${text} "\\VarFileInfo\\Translation=hex:09 04 b0 04\n"
    "${prefix}CompanyName=Quillmark\n"
    "${prefix}FileDescription=${description}\n"
    "${prefix}FileVersion=${PROJECT_VERSION_MAJOR}, ${PROJECT_VERSION_MINOR}, ${PROJECT_VERSION_PATCH}, 0\n"
    "${prefix}InternalName=${filename}\n"
    "${prefix}OriginalFilename=${filename}\n"
    "${prefix}ProductName=sxscan\n"
    "${prefix}ProductVersion=${PROJECT_VERSION}\n")
  sx_add_version_resource(${target} ${text})
endfunction()

# sx_add_version_resource(<target> <file>): the version record's text as a
# VERSIONINFO resource. Each "\StringFileInfo\<block>\<name>=<text>" line
# becomes a string of that block, "\VarFileInfo\Translation=hex:..." the
# translation pairs, and FileVersion ("1, 0, 1, 0") the fixed file version.
function(sx_add_version_resource target file)
  file(STRINGS ${file} lines)
  set(block "040904B0")
  set(strings "")
  set(translation "0x0409, 0x04B0")
  set(fixed "0,0,0,0")
  foreach(line IN LISTS lines)
    if(line MATCHES "^\\\\StringFileInfo\\\\([0-9A-Fa-f]+)\\\\([^=]+)=(.*)$")
      set(block ${CMAKE_MATCH_1})
      set(name ${CMAKE_MATCH_2})
      set(value ${CMAKE_MATCH_3})
      string(REPLACE "\"" "\"\"" value "${value}")
      string(APPEND strings "      VALUE \"${name}\", \"${value}\"\n")
      if(name STREQUAL "FileVersion")
        string(REGEX REPLACE "[ \t]" "" fixed "${CMAKE_MATCH_3}")
      endif()
    elseif(line MATCHES "^\\\\VarFileInfo\\\\Translation=hex:[ ]*([0-9A-Fa-f][0-9A-Fa-f])[ ,]*([0-9A-Fa-f][0-9A-Fa-f])[ ,]*([0-9A-Fa-f][0-9A-Fa-f])[ ,]*([0-9A-Fa-f][0-9A-Fa-f])")
      set(translation "0x${CMAKE_MATCH_2}${CMAKE_MATCH_1}, 0x${CMAKE_MATCH_4}${CMAKE_MATCH_3}")
    endif()
  endforeach()
  # A program's file type is VFT_APP, a library's or module's VFT_DLL.
  get_target_property(type ${target} TYPE)
  set(filetype 0x2)
  if(type STREQUAL "EXECUTABLE")
    set(filetype 0x1)
  endif()
  set(rc ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
  file(WRITE ${rc} "1 VERSIONINFO\nFILEVERSION ${fixed}\nPRODUCTVERSION ${fixed}\n"
    "FILEOS 0x4\nFILETYPE ${filetype}\nBEGIN\n  BLOCK \"StringFileInfo\"\n  BEGIN\n"
    "    BLOCK \"${block}\"\n    BEGIN\n${strings}    END\n  END\n"
    "  BLOCK \"VarFileInfo\"\n  BEGIN\n    VALUE \"Translation\", ${translation}\n  END\nEND\n")
  target_sources(${target} PRIVATE ${rc})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
endfunction()

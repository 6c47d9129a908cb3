# Driver modules keep their Windows names ("vscan.dll") and carry a version
# record in the ELF section .sxversion.
find_program(SX_OBJCOPY NAMES objcopy REQUIRED)

# sx_add_module(<target> SOURCES ...): a loadable module named <target>.dll.
function(sx_add_module target)
  cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
  add_library(${target} MODULE ${ARG_SOURCES})
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".dll")
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/include)
endfunction()

# sx_attach_version_record(<target> <file>): attaches <file> as the module's
# version record after every link.
function(sx_attach_version_record target file)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${SX_OBJCOPY} --remove-section .sxversion $<TARGET_FILE:${target}>
    COMMAND ${SX_OBJCOPY} --add-section .sxversion=${file}
            --set-section-flags .sxversion=noload,readonly $<TARGET_FILE:${target}>
    VERBATIM)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${file})
endfunction()

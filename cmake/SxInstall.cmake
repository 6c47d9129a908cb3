# cmake --install: the library with its headers, manual pages, HTML
# reference, pkg-config file and CMake package, the sxscan program with its man page and bash completion, the
# modules, and a default system tree. Every path is relative to the prefix,
# so an installed tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(SX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/sxscan)
set(SX_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/sxscan)
# The default system tree holds the virtual scanner built for this ABI, so
# it lives in the multiarch folder: an i386 install beside an x86-64 one must
# not replace the module an x86-64 host loads.
set(SX_INSTALL_SKELETON ${CMAKE_INSTALL_LIBDIR}/sxscan/root)

# What the rules below copy from the build. sx_installable builds all of it
# (tools/demo.sh does), and an install from a tree that lacks any of it
# stops before it copies anything, naming what is missing: a partial prefix
# would pass for a whole one.
set(SX_PROFILE_DIR ${CMAKE_CURRENT_BINARY_DIR}/profiles)
set(SX_INSTALLED_TARGETS sxscan vscan aspisg aspisim)
foreach(target sxcmms sxscan_host sxscan_serve sane-sxscan sx_reference)
  if(TARGET ${target})
    list(APPEND SX_INSTALLED_TARGETS ${target})
  endif()
endforeach()
if(TARGET sxprofile)
  list(APPEND SX_INSTALLED_TARGETS sx_profiles)  # made below
endif()
set(SX_INSTALLED_FILES)
foreach(target ${SX_INSTALLED_TARGETS})
  if(target STREQUAL "sx_profiles")
    list(APPEND SX_INSTALLED_FILES ${SX_PROFILE_DIR}/vscan.icc ${SX_PROFILE_DIR}/sRGB.icc)
  elseif(target STREQUAL "sx_reference")
    list(APPEND SX_INSTALLED_FILES ${SX_REFERENCE_DIR}/html/index.html)
  else()
    list(APPEND SX_INSTALLED_FILES $<TARGET_FILE:${target}>)
  endif()
endforeach()
add_custom_target(sx_installable DEPENDS ${SX_INSTALLED_TARGETS})
install(CODE "
  set(missing)
  foreach(file IN ITEMS ${SX_INSTALLED_FILES})
    if(NOT EXISTS \"\${file}\")
      list(APPEND missing \"  \${file}\")
    endif()
  endforeach()
  if(missing)
    list(JOIN missing \"\\n\" missing)
    message(FATAL_ERROR \"the build tree lacks what the install copies; nothing was installed. \"
      \"Build it first: cmake --build ${CMAKE_BINARY_DIR} --target sx_installable\\n\${missing}\")
  endif()")

install(TARGETS sxscan EXPORT sxscanTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(FILES include/sxscan.h include/sxsys.h include/sxdriver.h include/sxaspi.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sxscan COMPONENT development)
# The reference: the functions' manual pages, and the HTML where Doxygen
# made it.
install(FILES ${SX_MAN3_PAGES} ${SX_MAN3_LINKS} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT development)
if(TARGET sx_reference)
  install(DIRECTORY ${SX_REFERENCE_DIR}/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/reference
    COMPONENT development)
endif()

install(EXPORT sxscanTargets NAMESPACE sxscan:: DESTINATION ${SX_INSTALL_CMAKEDIR}
  COMPONENT development)
configure_package_config_file(cmake/sxscanConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/sxscanConfig.cmake INSTALL_DESTINATION ${SX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/sxscanConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sxscanConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/sxscanConfigVersion.cmake
  DESTINATION ${SX_INSTALL_CMAKEDIR} COMPONENT development)

# The pkg-config file finds the prefix from its own place (../../.. from
# <prefix>/lib/<multiarch>/pkgconfig).
file(RELATIVE_PATH SX_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/sxscan.pc.in ${CMAKE_CURRENT_BINARY_DIR}/sxscan.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sxscan.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The colour-management module goes beside the library, where the library
# looks for it after the system tree; the virtual scanner into the module
# folder and, with its behaviour file, into the default system tree.
if(TARGET sxcmms)
  install(TARGETS sxcmms LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
endif()
install(TARGETS vscan LIBRARY DESTINATION ${SX_INSTALL_MODULEDIR} COMPONENT runtime)
install(TARGETS vscan LIBRARY DESTINATION ${SX_INSTALL_SKELETON}/windows/twain_32/Corvane/VScan
  COMPONENT runtime)
install(FILES cmake/skeleton/vscan.ini cmake/skeleton/cmatch.ini
  DESTINATION ${SX_INSTALL_SKELETON}/windows/twain_32/Corvane/VScan COMPONENT runtime)
# SCSI: the machine's own bus over SG_IO is the default tree's ASPI; the
# simulated bus waits in the module folder for whoever wants to describe one.
install(TARGETS aspisg LIBRARY DESTINATION ${SX_INSTALL_SKELETON}/windows/system32 COMPONENT runtime)
install(TARGETS aspisim LIBRARY DESTINATION ${SX_INSTALL_MODULEDIR}/scsi-sim COMPONENT runtime)
install(FILES modules/aspisim/aspibus.ini.example DESTINATION ${SX_INSTALL_MODULEDIR}/scsi-sim
  COMPONENT runtime)
install(FILES cmake/skeleton/user.reg DESTINATION ${SX_INSTALL_SKELETON} COMPONENT runtime)
# The progress dialog's texts, which the store's "LOCALIZE" names by a bare
# name: the library looks for it in the tree's Windows folder.
install(FILES cmake/skeleton/sxscan.loc DESTINATION ${SX_INSTALL_SKELETON}/windows COMPONENT runtime)
install(DIRECTORY DESTINATION ${SX_INSTALL_SKELETON}/temp COMPONENT runtime)
if(TARGET sxprofile)
  add_custom_command(OUTPUT ${SX_PROFILE_DIR}/vscan.icc ${SX_PROFILE_DIR}/sRGB.icc
    COMMAND ${CMAKE_COMMAND} -E make_directory ${SX_PROFILE_DIR}
    COMMAND sxprofile scanner ${SX_PROFILE_DIR}/vscan.icc
    COMMAND sxprofile srgb ${SX_PROFILE_DIR}/sRGB.icc
    DEPENDS sxprofile VERBATIM)
  add_custom_target(sx_profiles ALL DEPENDS ${SX_PROFILE_DIR}/vscan.icc ${SX_PROFILE_DIR}/sRGB.icc)
  install(FILES ${SX_PROFILE_DIR}/vscan.icc ${SX_PROFILE_DIR}/sRGB.icc
    DESTINATION ${SX_INSTALL_SKELETON}/windows/system32/SPOOL/DRIVERS/COLOR COMPONENT runtime)
endif()

if(TARGET sxscan_host)
  set_target_properties(sxscan_host PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  # sxscan doctor points at the default tree relative to the program.
  target_compile_definitions(sxdoctor PRIVATE SX_INSTALL_SKELETON="${SX_INSTALL_SKELETON}")
  install(TARGETS sxscan_host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES docs/sxscan.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
  install(FILES tools/completion/sxscan.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME sxscan
    COMPONENT runtime)
endif()

# The eSCL server, which `sxscan serve` runs from beside itself.
if(TARGET sxscan_serve)
  set_target_properties(sxscan_serve PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS sxscan_serve RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

# The SANE backend in the folder SANE's dll backend loads backends from,
# enabled by its dll.d entry, with its configuration. SANE reads /etc/sane.d,
# which is where a /usr install puts it; other prefixes keep everything under
# the prefix (a tree that can be moved, or pointed at with SANE_CONFIG_DIR).
if(TARGET sane-sxscan)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(SX_SANE_CONFDIR /etc/sane.d)
  else()
    set(SX_SANE_CONFDIR ${CMAKE_INSTALL_SYSCONFDIR}/sane.d)
  endif()
  install(TARGETS sane-sxscan LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/sane COMPONENT runtime
    NAMELINK_SKIP)
  install(FILES hosts/sane/sxscan.conf DESTINATION ${SX_SANE_CONFDIR} COMPONENT runtime)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/sane-dll.d-entry "sxscan\n")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/sane-dll.d-entry DESTINATION ${SX_SANE_CONFDIR}/dll.d
    RENAME sxscan COMPONENT runtime)
endif()

# cmake --install on Windows: the package a host's developer copies. The DLL
# and programs in bin/, the import library and the .def in lib/, the headers
# in include/sxscan/, the HTML reference in doc/reference/, and windows/,
# which mirrors C:\Windows: the driver tree twain_32\ with the virtual
# scanner, and the scanner's colour profile in the system colour folder.
set(SX_PACKAGE_WINDOWS windows)
install(TARGETS sxscan
  RUNTIME DESTINATION bin COMPONENT runtime
  ARCHIVE DESTINATION lib COMPONENT development)
install(FILES ${SX_DEF_FILE} DESTINATION lib COMPONENT development)
install(FILES include/sxscan.h include/sxsys.h include/sxdriver.h include/sxaspi.h
  DESTINATION include/sxscan COMPONENT development)
# The HTML reference of the headers (doc\reference\index.html), where
# Doxygen made it.
if(TARGET sx_reference)
  install(DIRECTORY ${SX_REFERENCE_DIR}/html/ DESTINATION doc/reference COMPONENT development)
endif()
install(TARGETS vscan RUNTIME DESTINATION ${SX_PACKAGE_WINDOWS}/twain_32/Corvane/VScan
  LIBRARY DESTINATION ${SX_PACKAGE_WINDOWS}/twain_32/Corvane/VScan COMPONENT runtime)
install(FILES cmake/skeleton/vscan.ini cmake/skeleton/cmatch.ini
  DESTINATION ${SX_PACKAGE_WINDOWS}/twain_32/Corvane/VScan COMPONENT runtime)
# The virtual scanner's input profile, as cmatch.ini names it (made once by
# sxprofile on Linux: Windows has no call that makes a profile).
install(FILES tests/data/colour/scanner.icc RENAME vscan.icc
  DESTINATION ${SX_PACKAGE_WINDOWS}/system32/spool/drivers/color COMPONENT runtime)
if(TARGET sxcmms)
  install(TARGETS sxcmms RUNTIME DESTINATION bin LIBRARY DESTINATION bin COMPONENT runtime)
endif()
if(TARGET sxscan_host)
  install(TARGETS sxscan_host RUNTIME DESTINATION bin COMPONENT runtime)
endif()

# The progress dialog's texts, in the Windows folder where the library finds
# the bare name that sxscan.reg gives "LOCALIZE". Carried in UTF-16 with its
# byte-order mark: the system's profile functions read that encoding whatever
# the ANSI code page, and hand each text over in the code page of the system.
find_program(SX_ICONV iconv REQUIRED)
set(SX_LOCALISATION ${CMAKE_BINARY_DIR}/sxscan.loc)
execute_process(COMMAND ${SX_ICONV} -f UTF-8 -t UTF-16 ${CMAKE_SOURCE_DIR}/cmake/skeleton/sxscan.loc
  OUTPUT_FILE ${SX_LOCALISATION} COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/skeleton/sxscan.loc)
install(FILES ${SX_LOCALISATION} DESTINATION ${SX_PACKAGE_WINDOWS} COMPONENT runtime)
install(FILES cmake/sxscan.reg DESTINATION . COMPONENT runtime)
# What a developer reads first: what the package holds, how to install it,
# the registry values, the conventions against Linux, how to run the programs.
install(FILES docs/README-windows.txt DESTINATION . COMPONENT runtime)

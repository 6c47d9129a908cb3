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

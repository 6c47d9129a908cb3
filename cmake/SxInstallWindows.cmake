# cmake --install on Windows: the package a host's developer copies. The DLL
# and programs in bin/, the import library and the .def in lib/, the headers
# in include/sxscan/, and twain_32/, the driver tree ready to copy under the
# Windows directory (C:\Windows\twain_32\), holding the virtual scanner.
install(TARGETS sxscan
  RUNTIME DESTINATION bin COMPONENT runtime
  ARCHIVE DESTINATION lib COMPONENT development)
install(FILES ${SX_DEF_FILE} DESTINATION lib COMPONENT development)
install(FILES include/sxscan.h include/sxsys.h include/sxdriver.h include/sxaspi.h
  DESTINATION include/sxscan COMPONENT development)
install(TARGETS vscan LIBRARY DESTINATION twain_32/Corvane/VScan RUNTIME DESTINATION twain_32/Corvane/VScan
  COMPONENT runtime)
install(FILES cmake/skeleton/vscan.ini cmake/skeleton/cmatch.ini
  DESTINATION twain_32/Corvane/VScan COMPONENT runtime)
if(TARGET sxcmms)
  install(TARGETS sxcmms LIBRARY DESTINATION bin RUNTIME DESTINATION bin COMPONENT runtime)
endif()
if(TARGET sxscan-cli)
  install(TARGETS sxscan-cli RUNTIME DESTINATION bin COMPONENT runtime)
endif()

# The reference of the public headers: HTML made by Doxygen from the
# headers and docs/ (where Doxygen is installed; tools/setup.sh installs it),
# and the manual pages of section 3 written by hand in docs/man3. The
# install rules of each system place them (SxInstall.cmake,
# SxInstallWindows.cmake).
find_program(SX_DOXYGEN doxygen)

# One page per family of functions; every other function of the family gets
# a page that includes it, so that man finds each name.
set(SX_MAN3_FAMILIES
  "SxLoad:SxFree"
  "SxGetDS:SxSetDriverById"
  "SxSetValue:SxGetValue,SxQueryData"
  "SxAcquire:"
  "SxSysGlobalAlloc:SxSysGlobalReAlloc,SxSysGlobalLock,SxSysGlobalUnlock,SxSysGlobalFree,SxSysGlobalSize,SxSysGlobalHandle,SxSysGlobalLockCount,SxSysGlobalBlockCount"
  "SxSysUiSetObserver:SxSysUiPress,SxSysUiEscape,SxSysUiGetText,SxSysUiSetScreen")
set(SX_MAN3_PAGES)
set(SX_MAN3_LINKS)
foreach(family ${SX_MAN3_FAMILIES})
  string(REPLACE ":" ";" parts "${family}")
  list(GET parts 0 page)
  list(APPEND SX_MAN3_PAGES ${CMAKE_SOURCE_DIR}/docs/man3/${page}.3)
  list(LENGTH parts n)
  if(n GREATER 1)
    list(GET parts 1 others)
    string(REPLACE "," ";" others "${others}")
    foreach(name ${others})
      set(link ${CMAKE_BINARY_DIR}/man3/${name}.3)
      file(CONFIGURE OUTPUT ${link} CONTENT ".so man3/${page}.3\n")
      list(APPEND SX_MAN3_LINKS ${link})
    endforeach()
  endif()
endforeach()

if(SX_DOXYGEN)
  set(SX_REFERENCE_DIR ${CMAKE_BINARY_DIR}/reference)
  file(GLOB SX_REFERENCE_INPUTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/*.h)
  list(APPEND SX_REFERENCE_INPUTS ${CMAKE_SOURCE_DIR}/docs/Doxyfile ${CMAKE_SOURCE_DIR}/docs/reference.md
       ${CMAKE_SOURCE_DIR}/docs/writing-a-host.md)
  add_custom_command(OUTPUT ${SX_REFERENCE_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${SX_REFERENCE_DIR}
    COMMAND ${CMAKE_COMMAND} -E env SX_DOC_OUTPUT=${SX_REFERENCE_DIR} SX_DOC_VERSION=${PROJECT_VERSION}
            ${SX_DOXYGEN} docs/Doxyfile
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    DEPENDS ${SX_REFERENCE_INPUTS}
    COMMENT "Making the HTML reference of the public headers" VERBATIM)
  add_custom_target(sx_reference ALL DEPENDS ${SX_REFERENCE_DIR}/html/index.html)
endif()

# The installed product: shared library, flat headers, CMake package, pkg-config file, man pages.
include(CMakePackageConfigHelpers)

set(QVL_SRC Adaptors/src/qvlmf500)
set(QVL_PUBLIC_HEADERS
  foundation/EventObject.h
  foundation/OpResultCode.h
  foundation/QVLParamCollection.h
  foundation/QVLParameter.h
  foundation/QvlExport.h
  foundation/ServiceEnums.h
  foundation/ServiceStatus.h
  foundation/TagTypes.h
  foundation/TagUID.h
  ${QVL_SRC}/api/HostWait.h
  ${QVL_SRC}/api/QVLReaderServiceIntf.h
  ${QVL_SRC}/api/ReaderImpl.h
  ${QVL_SRC}/api/TagPrompt.h
  ${QVL_SRC}/bfl/BflStatus.h
  ${QVL_SRC}/bfl/Mf500bfl.h
  ${QVL_SRC}/bfl/NfcTamaBfl.h
  ${QVL_SRC}/bfl/Qvl14443bfl.h
  ${QVL_SRC}/tcl/QvlTcl.h
  ${QVL_SRC}/tcl/QvlTclUtil.h)
install(FILES ${QVL_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qvlmf500)
install(DIRECTORY host/qvlmf500/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qvlmf500 FILES_MATCHING PATTERN "*.h")

install(TARGETS qvlmf500 EXPORT qvlmf500Targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT qvlmf500Targets NAMESPACE qvlmf500:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvlmf500)
configure_package_config_file(cmake/qvlmf500Config.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/qvlmf500Config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvlmf500)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qvlmf500ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvlmf500Config.cmake ${CMAKE_CURRENT_BINARY_DIR}/qvlmf500ConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qvlmf500)

configure_file(cmake/qvlmf500.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qvlmf500.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvlmf500.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(QVL_BUILD_PROGRAMS)
  install(TARGETS qvltag qvlreadersim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES docs/man/qvltag.1 docs/man/qvlreadersim.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

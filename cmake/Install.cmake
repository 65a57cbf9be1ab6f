# Where `cmake --install` puts the headers, both libraries, the CMake package and the pkg-config
# file. Each file finds the others relative to its own place, so the prefix can be moved.
include(CMakePackageConfigHelpers)

set(TESSRA_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tessra)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tessra
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(TARGETS tessra tessra-static EXPORT tessraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT tessraTargets NAMESPACE tessra:: DESTINATION ${TESSRA_PACKAGE_DIR})

if(TESSRA_INSTALL_LIBLOG)
  # Programs are often linked with libtessra.so alone, so this library finds liblog in its own
  # folder.
  set_target_properties(tessra PROPERTIES INSTALL_RPATH "\$ORIGIN")
  install(TARGETS tessra-liblog tessra-liblog-static EXPORT tessraLiblogTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT tessraLiblogTargets NAMESPACE tessra:: DESTINATION ${TESSRA_PACKAGE_DIR})
endif()

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tessraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tessraConfig.cmake INSTALL_DESTINATION ${TESSRA_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tessraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tessraConfig.cmake
  ${PROJECT_BINARY_DIR}/tessraConfigVersion.cmake DESTINATION ${TESSRA_PACKAGE_DIR})

# The path from the pkg-config file to the prefix. A libdir outside the prefix can't be moved
# anyway.
set(TESSRA_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR} OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
  set(TESSRA_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(TESSRA_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
  set(TESSRA_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH up /prefix/${TESSRA_PC_DIR} /prefix)
  string(REGEX REPLACE "/$" "" up "${up}")
  set(TESSRA_PC_PREFIX "\${pcfiledir}/${up}")
  set(TESSRA_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(TESSRA_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/packaging/tessra.pc.in ${PROJECT_BINARY_DIR}/tessra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tessra.pc DESTINATION ${TESSRA_PC_DIR})

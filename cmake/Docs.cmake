# The target "docs" builds the reference: pages to browse (docs/html) and manual pages (docs/man).
# No other target builds it. The install step installs it if it has been built.
find_program(TESSRA_DOXYGEN doxygen)
find_package(Python3 COMPONENTS Interpreter QUIET)

configure_file(${PROJECT_SOURCE_DIR}/docs/reference/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(PROJECT_IS_TOP_LEVEL AND TESSRA_DOXYGEN AND Python3_FOUND)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
    COMMAND ${TESSRA_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/manpages
      ${PROJECT_BINARY_DIR}/docs/xml ${PROJECT_BINARY_DIR}/docs/man ${PROJECT_VERSION}
    COMMENT "Building the reference"
    VERBATIM)
endif()
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} OPTIONAL)
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html DESTINATION ${CMAKE_INSTALL_DOCDIR} OPTIONAL)

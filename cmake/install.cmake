# `cmake --install` puts libzorvi-core, its headers, the shipped programs, a
# CMake package (find_package(zorvi-core), target zorvi::core) and
# zorvi-core.pc under the prefix.
include(CMakePackageConfigHelpers)

install(TARGETS zorvi-core EXPORT zorvi-core-targets)
install(TARGETS ${ZORVI_INSTALLED_PROGRAMS})

# Every header under client/ except those that only the library's own sources
# include: bounded_zstd.hpp exposes libarchive, which stays private.
install(DIRECTORY client/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zorvi-core/client
  FILES_MATCHING PATTERN "*.hpp" PATTERN "bounded_zstd.hpp" EXCLUDE)

set(ZORVI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zorvi-core)
install(EXPORT zorvi-core-targets NAMESPACE zorvi:: DESTINATION ${ZORVI_CMAKE_DIR})
configure_package_config_file(cmake/zorvi-core-config.cmake.in zorvi-core-config.cmake
  INSTALL_DESTINATION ${ZORVI_CMAKE_DIR})
write_basic_package_version_file(zorvi-core-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zorvi-core-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zorvi-core-config-version.cmake DESTINATION ${ZORVI_CMAKE_DIR})

# The .pc finds the prefix from its own place, so a tree installed with
# `cmake --install --prefix` elsewhere still works.
file(RELATIVE_PATH ZORVI_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZORVI_PC_TO_PREFIX "${ZORVI_PC_TO_PREFIX}")
configure_file(cmake/zorvi-core.pc.in zorvi-core.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zorvi-core.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

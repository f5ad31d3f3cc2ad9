# SPDX-License-Identifier: MIT
# What "cmake --install" lays down: the library, its public headers, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

set(ZEL_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/zelshell)
set(ZEL_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZELShell)

install(TARGETS ZELShell EXPORT ZELShellTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Devel)
get_target_property(headers ZELShell ZEL_PUBLIC_HEADERS)
install(FILES ${headers} DESTINATION ${ZEL_HEADER_DIR} COMPONENT Devel)
install(EXPORT ZELShellTargets NAMESPACE ZELShell:: DESTINATION ${ZEL_CONFIG_DIR} COMPONENT Devel)

configure_package_config_file(cmake/ZELShellConfig.cmake.in ${PROJECT_BINARY_DIR}/ZELShellConfig.cmake
  INSTALL_DESTINATION ${ZEL_CONFIG_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZELShellConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZELShellConfig.cmake ${PROJECT_BINARY_DIR}/ZELShellConfigVersion.cmake
  DESTINATION ${ZEL_CONFIG_DIR} COMPONENT Devel)

# The prefix is found from where the file lies, so that staging and "cmake --install --prefix" do not make it wrong;
# a multiarch library directory is one level deeper than a plain one.
string(REGEX REPLACE "[^/]+" ".." up "${CMAKE_INSTALL_LIBDIR}")
set(ZEL_PC_PREFIX "\${pcfiledir}/../${up}")
configure_file(cmake/zelshell.pc.in ${PROJECT_BINARY_DIR}/zelshell.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelshell.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Devel)

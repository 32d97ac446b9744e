# Installation: libbase.so with its SONAME link, the public headers under
# include/kestrel/, the CMake package KestrelBase (target Kestrel::base) and
# the pkg-config file kestrel-base.pc.
include(CMakePackageConfigHelpers)

set(KESTREL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KestrelBase)

install(TARGETS base EXPORT KestrelBaseTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT KestrelBaseTargets
  NAMESPACE Kestrel::
  DESTINATION ${KESTREL_CMAKE_DIR})

configure_package_config_file(cmake/KestrelBaseConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KestrelBaseConfig.cmake
  INSTALL_DESTINATION ${KESTREL_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestrelBaseConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/KestrelBaseConfig.cmake
  ${PROJECT_BINARY_DIR}/KestrelBaseConfigVersion.cmake
  DESTINATION ${KESTREL_CMAKE_DIR})

# The .pc file finds the prefix from its own folder, so the installed tree can
# be moved (or installed with --prefix) and still be found.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KESTREL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _kestrel_pc_up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" _kestrel_pc_up "${_kestrel_pc_up}")
  set(KESTREL_PC_PREFIX "\${pcfiledir}/${_kestrel_pc_up}")
endif()
configure_file(cmake/kestrel-base.pc.in ${PROJECT_BINARY_DIR}/kestrel-base.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kestrel-base.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

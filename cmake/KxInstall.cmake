# What `cmake --install` puts under the prefix (GNUInstallDirs layout):
#   lib/libkx_cloud_openapi.so.2*, lib/libkx_cloud_openapi.a   the library
#   lib/libkx_platform.so.1*                                   the stand-ins for the maker's
#                                                              debug-log and OS libraries
#   include/kx_cloud_openapi.h, kx_sdk_*.h, vtl_platform.h     the public headers
#   lib/cmake/kx_cloud_openapi/                                find_package(kx_cloud_openapi CONFIG)
#   lib/pkgconfig/kx_cloud_openapi.pc, kx_platform.pc          pkg-config
# The installed library carries the build's embedded server key and CA
# bundle path (cmake/KxOptions.cmake), like any other build of it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kx_cloud_openapi)

foreach(target kx_cloud_openapi kx_cloud_openapi_static kx_platform)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()

# The installed library finds the stand-ins beside it wherever the tree is
# put; a program or preloaded library that defines their functions still
# replaces them, as the dynamic linker binds to the first definition.
set_target_properties(kx_cloud_openapi PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS kx_cloud_openapi kx_cloud_openapi_static kx_platform EXPORT kx_cloud_openapi_targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES platform/vtl_platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Imported targets kx_cloud_openapi::kx_cloud_openapi, ::kx_cloud_openapi_static
# and ::kx_platform, with their dependencies found again by the package's
# config file (cmake/kx_cloud_openapiConfig.cmake.in).
install(EXPORT kx_cloud_openapi_targets NAMESPACE kx_cloud_openapi:: DESTINATION ${KX_CMAKE_DIR}
        FILE kx_cloud_openapiTargets.cmake)
configure_package_config_file(cmake/kx_cloud_openapiConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kx_cloud_openapiConfig.cmake INSTALL_DESTINATION ${KX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kx_cloud_openapiConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kx_cloud_openapiConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kx_cloud_openapiConfigVersion.cmake
        DESTINATION ${KX_CMAKE_DIR})

# pkg-config files that find their prefix from where they lie, so the
# installed tree may move (a staging directory, a firmware image's sysroot).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(KX_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH kx_up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" kx_up "${kx_up}")
  set(KX_PC_PREFIX "\${pcfiledir}/${kx_up}")
  set(KX_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(KX_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(KX_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
foreach(pc kx_cloud_openapi kx_platform)
  configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# `cmake --install` lays out the library for camera components built outside this tree:
#
#   lib/libzorcam_metadata.so.<major>[.<minor>]   the library, with its SONAME
#   lib/libzorcam_metadata_android.so.<major>[...] the Android packet bridge above it
#   lib/libzorcam_platform_host.so.<major>[...]    the host stand-ins it loads off the device
#   include/zorcam/metadata/*.h                    the public headers
#   lib/cmake/zorcam_metadata/                     find_package(zorcam_metadata CONFIG) -> zorcam::metadata,
#                                                  zorcam::metadata_android
#   lib/pkgconfig/zorcam_metadata.pc               pkg-config --cflags --libs zorcam_metadata
#   lib/pkgconfig/zorcam_metadata_android.pc       ... zorcam_metadata_android (the bridge and the container)
#   bin/zmeta                                      when the tool is built
#
# (lib is CMAKE_INSTALL_LIBDIR, lib/<multiarch> under /usr.) Everything is found relative to
# where it lands, so the installed tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(ZORCAM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zorcam_metadata)
set(ZORCAM_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The stand-ins sit beside the library; the Debian android libraries stay where Debian puts them.
set_target_properties(zorcam_platform_host PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
set_target_properties(zorcam_metadata zorcam_metadata_android zorcam_platform_host PROPERTIES
  INSTALL_RPATH "$ORIGIN;${ANDROID_HOST_LIBDIR}")
set_target_properties(zorcam_metadata PROPERTIES EXPORT_NAME metadata)

install(TARGETS zorcam_metadata zorcam_metadata_android EXPORT zorcam_metadataTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# Off the device the library loads the stand-ins (zorcam::platform_host, exported so that a
# consumer's link finds them); nothing a consumer compiles sees the platform interfaces.
install(TARGETS zorcam_platform_host EXPORT zorcam_metadataTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/zorcam/metadata
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zorcam FILES_MATCHING PATTERN "*.h")

if(TARGET zmeta)
  file(RELATIVE_PATH zorcam_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(zmeta PROPERTIES
    INSTALL_RPATH "$ORIGIN/${zorcam_bin_to_lib};${ANDROID_HOST_LIBDIR}")
  install(TARGETS zmeta RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT zorcam_metadataTargets NAMESPACE zorcam:: DESTINATION ${ZORCAM_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zorcam_metadataConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadataConfig.cmake
  INSTALL_DESTINATION ${ZORCAM_CMAKE_DIR})
# A new major version is a new SONAME: it does not satisfy a request for the old one.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadataConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadataConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadataConfigVersion.cmake
  DESTINATION ${ZORCAM_CMAKE_DIR})

# pkg-config: the prefix is found from the .pc file's own place (pcfiledir).
file(RELATIVE_PATH ZORCAM_PC_TO_PREFIX /${ZORCAM_PKGCONFIG_DIR} /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/zorcam_metadata.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadata.pc @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/zorcam_metadata_android.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadata_android.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadata.pc
  ${CMAKE_CURRENT_BINARY_DIR}/zorcam_metadata_android.pc DESTINATION ${ZORCAM_PKGCONFIG_DIR})

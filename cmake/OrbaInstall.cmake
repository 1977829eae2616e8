# What `cmake --install` writes, in four components:
#   runtime           the library as programs load it
#   development       headers, link, CMake package, pkg-config file
#   host              the host edition's libraries (with ORBA_PLATFORM=host)
#   host-development  their headers and links
# All of it is relocatable: paths are relative to the file that holds them.
include(CMakePackageConfigHelpers)

set(orba_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/${PROJECT_NAME}")

install(
    TARGETS orbaoauth2client
    EXPORT orbaoauth2client-targets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(
    DIRECTORY "${PROJECT_SOURCE_DIR}/include/"
    TYPE INCLUDE
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.h")

if(ORBA_PLATFORM STREQUAL "host")
    # In the same package, because whoever links the library links these through it.
    install(
        TARGETS klib orbatovra orbaudc orba_platform_headers
        EXPORT orbaoauth2client-targets
        LIBRARY COMPONENT host NAMELINK_COMPONENT host-development)
    install(
        DIRECTORY "${PROJECT_SOURCE_DIR}/platform/include/" "${PROJECT_SOURCE_DIR}/platform/host/include/"
        TYPE INCLUDE
        COMPONENT host-development
        FILES_MATCHING
        PATTERN "*.h")
endif()

# The package files stand in the build folder, too: find_package() takes either folder.
configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/${PROJECT_NAME}-config.cmake.in" "${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config.cmake"
    INSTALL_DESTINATION "${orba_cmake_dir}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config-version.cmake"
                                 COMPATIBILITY SameMajorVersion)
export(EXPORT orbaoauth2client-targets NAMESPACE ${PROJECT_NAME}::
       FILE "${PROJECT_BINARY_DIR}/${PROJECT_NAME}-targets.cmake")
install(
    EXPORT orbaoauth2client-targets
    NAMESPACE ${PROJECT_NAME}::
    DESTINATION "${orba_cmake_dir}"
    COMPONENT development)
install(
    FILES "${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config.cmake"
          "${PROJECT_BINARY_DIR}/${PROJECT_NAME}-config-version.cmake"
    DESTINATION "${orba_cmake_dir}"
    COMPONENT development)

# The pkg-config file names folders as seen from its own.
set(orba_pkgconfig_folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${orba_pkgconfig_folder}"
           OUTPUT_VARIABLE ORBA_PC_PREFIX)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY "${orba_pkgconfig_folder}"
           OUTPUT_VARIABLE ORBA_PC_INCLUDEDIR)
configure_file("${CMAKE_CURRENT_LIST_DIR}/${PROJECT_NAME}.pc.in" "${PROJECT_BINARY_DIR}/${PROJECT_NAME}.pc" @ONLY)
install(
    FILES "${PROJECT_BINARY_DIR}/${PROJECT_NAME}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT development)

# What `cmake --install` writes, in components:
#   runtime              the library that programs load
#   development          headers, link, CMake package, pkg-config file
#   session, session-development   the same of liborbaoauth2session (with ORBA_BUILD_SESSION)
#   tools                orba-token and its manual page
#   host                 the host edition's libraries (with ORBA_PLATFORM=host)
#   host-development     their headers and links
# All of it is relocatable: paths are relative to the file that contains them.
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

# The package files are in the build folder, too: find_package() accepts either folder.
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

# The pkg-config files name folders relative to their own.
set(orba_pkgconfig_folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${orba_pkgconfig_folder}"
           OUTPUT_VARIABLE ORBA_PC_PREFIX)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY "${orba_pkgconfig_folder}"
           OUTPUT_VARIABLE ORBA_PC_INCLUDEDIR)
function(orba_pkgconfig name component description requires)
    configure_file("${CMAKE_CURRENT_FUNCTION_LIST_DIR}/orba.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
    install(
        FILES "${PROJECT_BINARY_DIR}/${name}.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT ${component})
endfunction()
# Users do not need libcurl and libcrypto to link: no header names them, and there is no static library.
orba_pkgconfig(orbaoauth2client development "${PROJECT_DESCRIPTION}" jsoncpp)

if(ORBA_BUILD_SESSION)
    install(
        TARGETS orbaoauth2session
        EXPORT orbaoauth2session-targets
        LIBRARY COMPONENT session NAMELINK_COMPONENT session-development)
    install(
        DIRECTORY "${PROJECT_SOURCE_DIR}/session/include/"
        TYPE INCLUDE
        COMPONENT session-development
        FILES_MATCHING
        PATTERN "*.h")
    # find_package(orbaoauth2client COMPONENTS session) includes this file.
    export(EXPORT orbaoauth2session-targets NAMESPACE ${PROJECT_NAME}::
           FILE "${PROJECT_BINARY_DIR}/${PROJECT_NAME}-session-targets.cmake")
    install(
        EXPORT orbaoauth2session-targets
        NAMESPACE ${PROJECT_NAME}::
        FILE ${PROJECT_NAME}-session-targets.cmake
        DESTINATION "${orba_cmake_dir}"
        COMPONENT session-development)
    orba_pkgconfig(orbaoauth2session session-development "Keeps a service of the device signed in"
                   "orbaoauth2client = ${PROJECT_VERSION}")
endif()
if(TARGET orba-token)
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_FULL_BINDIR}"
               OUTPUT_VARIABLE orba_token_libraries)
    set_target_properties(orba-token PROPERTIES INSTALL_RPATH "$ORIGIN/${orba_token_libraries}")
    install(TARGETS orba-token RUNTIME COMPONENT tools)
    set(orba_manual "${PROJECT_SOURCE_DIR}/tools/orba-token.1")
    if(ORBA_PACKAGES) # Debian's are compressed
        find_program(ORBA_GZIP gzip REQUIRED)
        execute_process(COMMAND "${ORBA_GZIP}" -9nc "${orba_manual}" OUTPUT_FILE "${PROJECT_BINARY_DIR}/orba-token.1.gz"
                                COMMAND_ERROR_IS_FATAL ANY)
        set(orba_manual "${PROJECT_BINARY_DIR}/orba-token.1.gz")
    endif()
    install(
        FILES "${orba_manual}"
        DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
        COMPONENT tools)
endif()

# Debian packages, one for each component of cmake/OrbaInstall.cmake; scripts/package makes them.
if(NOT ORBA_PLATFORM STREQUAL "host")
    message(FATAL_ERROR "The packages are those of the host edition: ORBA_PACKAGES needs ORBA_PLATFORM=host")
endif()
if(NOT ORBA_BUILD_SESSION)
    message(FATAL_ERROR "The packages include the session: ORBA_PACKAGES needs ORBA_BUILD_SESSION")
endif()
find_program(ORBA_GZIP gzip REQUIRED)

set(orba_debian_files "${CMAKE_CURRENT_LIST_DIR}/debian")
file(STRINGS "${orba_debian_files}/changelog" orba_changelog LIMIT_COUNT 1)
if(NOT orba_changelog MATCHES "\\(${PROJECT_VERSION}\\)")
    message(FATAL_ERROR "cmake/debian/changelog does not begin with version ${PROJECT_VERSION}: ${orba_changelog}")
endif()
set(orba_changelog_gz "${PROJECT_BINARY_DIR}/changelog.gz")
execute_process(COMMAND "${ORBA_GZIP}" -9nc "${orba_debian_files}/changelog"
                OUTPUT_FILE "${orba_changelog_gz}" COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_CONTACT "The liborbaoauth2client maintainers <maintainers@liborbaoauth2client.example.org>")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development session session-development tools host host-development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/platform/host"
    "${PROJECT_BINARY_DIR}/src" "${PROJECT_BINARY_DIR}/session")

# dpkg's trigger runs ldconfig, as Debian requires. cpack would add scripts that call it again unless
# scripts of these names are given; names without a file prevent all scripts.
set(orba_ldconfig_trigger "${orba_debian_files}/triggers" no-script/postinst no-script/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${orba_ldconfig_trigger}")
set(CPACK_DEBIAN_SESSION_PACKAGE_CONTROL_EXTRA "${orba_ldconfig_trigger}")
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA "${orba_ldconfig_trigger}")

# One package: its component, name, section, its dependencies other than shared libraries, description.
function(orba_debian_package component name section depends summary text)
    string(TOUPPER "${component}" id)
    set(prefix CPACK_DEBIAN_${id}_PACKAGE)
    set(${prefix}_NAME "${name}" PARENT_SCOPE)
    set(${prefix}_SECTION "${section}" PARENT_SCOPE)
    set(${prefix}_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_DEBIAN_${id}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)
    set(doc "${CMAKE_INSTALL_DATAROOTDIR}/doc/${name}")
    install(FILES "${orba_debian_files}/copyright" "${orba_changelog_gz}" DESTINATION "${doc}" COMPONENT ${component})
    if(EXISTS "${orba_debian_files}/${name}.lintian-overrides")
        install(
            FILES "${orba_debian_files}/${name}.lintian-overrides"
            DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides"
            RENAME "${name}"
            COMPONENT ${component})
    endif()
endfunction()

orba_debian_package(
    runtime liborbaoauth2client${PROJECT_VERSION_MAJOR} libs "orba-host-platform (>= ${PROJECT_VERSION}), ca-certificates"
    "OAuth2 sign-in of network-attached storage devices"
    "Services of a network-attached storage device sign the device in to its
manufacturer's cloud account service with this library, without a browser, and
exchange and refresh their tokens with PKCE.")
orba_debian_package(
    development liborbaoauth2client-dev libdevel
    "liborbaoauth2client${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libjsoncpp-dev, pkg-config"
    "OAuth2 sign-in of network-attached storage devices (development files)"
    "Headers, CMake package and pkg-config file for services that sign in a
network-attached storage device with liborbaoauth2client.")
orba_debian_package(
    session liborbaoauth2session${PROJECT_VERSION_MAJOR} libs
    "liborbaoauth2client${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), ca-certificates"
    "keeps services of network-attached storage devices signed in"
    "Services of a network-attached storage device get an access token that is
good for a while from this library in one call. It signs in, refreshes and
shares the tokens among threads and processes.")
orba_debian_package(
    session-development liborbaoauth2session-dev libdevel
    "liborbaoauth2session${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), liborbaoauth2client-dev (= ${PROJECT_VERSION})"
    "keeps services of storage devices signed in (development files)"
    "Headers, CMake files and pkg-config file for services that stay signed in
with liborbaoauth2session.")
orba_debian_package(
    tools orba-token utils "liborbaoauth2session${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})"
    "prints access tokens of a network-attached storage device"
    "The command orba-token gives shell scripts and services that are not written
in C++ an access token of the device that is good for a while.")
orba_debian_package(
    host orba-host-platform libs "ca-certificates"
    "libraries of a network-attached storage device, for any machine"
    "The libraries klib, orbatovra and orbaudc of a network-attached storage
device, in an edition that reads a device profile in place of a device. With
it, services of the device run on workstations and build servers.")
orba_debian_package(
    host-development orba-host-platform-dev libdevel "orba-host-platform (= ${PROJECT_VERSION})"
    "libraries of a network-attached storage device (development files)"
    "Headers of the libraries klib, orbatovra and orbaudc, for services that call
them themselves.")
include(CPack)

# Packages for Debian 12, which scripts/package builds by cpack: one for each component of
# Install.cmake. The programs need exactly the libraries that they were built with.
if(NOT NAV_BUILD_AGENT)
    return()
endif()
file(STRINGS CHANGELOG changes LIMIT_COUNT 1 REGEX "^nav \\(")
if(NOT changes MATCHES "\\(${PROJECT_VERSION}\\)")
    message(FATAL_ERROR "CHANGELOG begins with \"${changes}\", the version is ${PROJECT_VERSION}")
endif()
file(STRINGS CHANGELOG maintainer LIMIT_COUNT 1 REGEX "^ -- ")
string(REGEX REPLACE "^ -- (.*>).*" "\\1" maintainer "${maintainer}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nav)
set(CPACK_PACKAGE_CONTACT "${maintainer}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/platform ${PROJECT_BINARY_DIR}/nav)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# scripts/package builds what is needed, which is less than everything.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

add_custom_command(OUTPUT ${pages}/changelog.gz DEPENDS CHANGELOG
                   COMMAND gzip -9n < ${PROJECT_SOURCE_DIR}/CHANGELOG > ${pages}/changelog.gz VERBATIM)
add_custom_target(changelog ALL DEPENDS ${pages}/changelog.gz)
add_custom_target(packaged DEPENDS Nav nav-agent navctl nav-forwarder pages changelog)

# nav_package(COMPONENT NAME PURPOSE [DEPENDS PACKAGES]): DEPENDS beyond what dpkg-shlibdeps finds.
macro(nav_package component name purpose)
    cmake_parse_arguments(ARG "" "DEPENDS" "" ${ARGN})
    string(TOUPPER ${component} key)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
    set(CPACK_COMPONENT_${key}_DESCRIPTION "${purpose}")
    set(CPACK_DEBIAN_${key}_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${ARG_DEPENDS}")
    file(GLOB scripts ${PROJECT_SOURCE_DIR}/packaging/${name}/*)
    set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA "${scripts}")
    install(FILES packaging/copyright ${pages}/changelog.gz COMPONENT ${component}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name})
endmacro()

set(libraries "libnav1 (= ${PROJECT_VERSION})")
nav_package(libraries libnav1
    "path selection of a wide-area overlay, libraries
Decides, for every pair of sites of an overlay, over which local interfaces
and remote addresses traffic can go: the reactors (libNav) over an entity
runtime (libVel).")
nav_package(development libnav-dev
    "path selection of a wide-area overlay, development files
Headers and a CMake package for a program that hosts the library, with an
example." DEPENDS "${libraries}")
nav_package(agent nav-agent
    "path selection of a wide-area overlay, the router's agent
Chooses the paths of this router's wide-area overlay and has the kernel
forward by them, as a service of systemd."
    DEPENDS "${libraries}, systemd | systemd-standalone-sysusers | systemd-sysusers")
nav_package(tools navctl
    "path selection of a wide-area overlay, command line
Shows what the agent has decided and why, changes its configuration, and
reads traffic counters; with completion for bash and zsh."
    DEPENDS "${libraries}")
nav_package(simulation nav-simulation
    "path selection of a wide-area overlay, simulation
A simulated forwarding side, an example of a branch, and demonstrations, one
of which runs three sites in network namespaces of this machine."
    DEPENDS "nav-agent (= ${PROJECT_VERSION}), navctl (= ${PROJECT_VERSION}), python3, iproute2, nftables")
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS navctl)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
include(CPack)

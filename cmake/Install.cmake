# The files that another program needs to host the library: the two shared libraries, their headers as they
# are included here, and a package for find_package(Nav) with the targets Nav::Nav and Nav::Vel.
# `cmake --install DIR --component examples` installs the examples, with the simulated
# forwarding side.
include(CMakePackageConfigHelpers)

install(TARGETS Vel Nav EXPORT NavTargets)
foreach(folder platform nav)
    install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libnav
            FILES_MATCHING PATTERN "*.h")
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Nav)
install(EXPORT NavTargets NAMESPACE Nav:: DESTINATION ${package_dir} FILE NavConfig.cmake)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/NavConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/NavConfigVersion.cmake DESTINATION ${package_dir})

install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/nav/examples
        COMPONENT examples EXCLUDE_FROM_ALL)

# The agent as a service of systemd.
if(NAV_BUILD_AGENT)
    configure_file(systemd/nav-agent.service.in nav-agent.service @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/nav-agent.service DESTINATION lib/systemd/system)
    install(FILES systemd/reflector.conf DESTINATION lib/systemd/system/nav-agent.service.d)
    install(FILES systemd/nav-agent.sysusers DESTINATION lib/sysusers.d RENAME nav-agent.conf)
    install(FILES systemd/nav-agent.default DESTINATION ${CMAKE_INSTALL_DATADIR}/nav)
    install(FILES docs/operating.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

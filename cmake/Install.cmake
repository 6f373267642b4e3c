# What is installed, by component: each becomes a package, see Package.cmake.
#
# libraries and development: what another program needs to host the library: the two shared libraries,
# their headers as they are included here, and a package for find_package(Nav) with the targets Nav::Nav and
# Nav::Vel. agent, tools and simulation: the programs, with what belongs to them.
include(CMakePackageConfigHelpers)

install(TARGETS Vel Nav EXPORT NavTargets
        LIBRARY COMPONENT libraries NAMELINK_COMPONENT development)
foreach(folder platform nav)
    install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/libnav
            COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Nav)
install(EXPORT NavTargets NAMESPACE Nav:: DESTINATION ${package_dir} FILE NavConfig.cmake
        COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/NavConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/NavConfigVersion.cmake DESTINATION ${package_dir}
        COMPONENT development)
install(DIRECTORY examples/host/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libnav-dev/examples
        COMPONENT development)
install(FILES docs/embedding.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libnav-dev
        COMPONENT development)
if(NOT NAV_BUILD_AGENT)
    return()
endif()

# The agent as a service of systemd. The unit names the program where it is installed, which is known
# only then.
install(CODE "set(bindir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
              configure_file(\"${PROJECT_SOURCE_DIR}/systemd/nav-agent.service.in\"
                             \"${PROJECT_BINARY_DIR}/nav-agent.service\" @ONLY)"
        COMPONENT agent)
install(FILES ${PROJECT_BINARY_DIR}/nav-agent.service DESTINATION lib/systemd/system
        COMPONENT agent)
install(FILES systemd/reflector.conf DESTINATION lib/systemd/system/nav-agent.service.d
        COMPONENT agent)
install(FILES systemd/nav-agent.sysusers DESTINATION lib/sysusers.d RENAME nav-agent.conf
        COMPONENT agent)
install(FILES systemd/nav-agent.default DESTINATION ${CMAKE_INSTALL_DATADIR}/nav COMPONENT agent)
install(PROGRAMS examples/hook DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/nav-agent/examples
        COMPONENT agent)
install(DIRECTORY examples/linux examples/monitoring
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/nav-agent/examples COMPONENT agent
        USE_SOURCE_PERMISSIONS)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/nav-agent COMPONENT agent
        FILES_MATCHING PATTERN "*.md" PATTERN "*.schema.json" PATTERN man EXCLUDE)

# The simulation, with the demonstrations.
install(DIRECTORY examples/branch examples/guest-vrf examples/hub examples/provider-and-mpls
                  examples/two-providers
        DESTINATION ${CMAKE_INSTALL_DATADIR}/nav/examples
        COMPONENT simulation)
install(FILES scripts/demo.py scripts/demo_linux.py scripts/netlab.py scripts/traffic.py
        DESTINATION ${CMAKE_INSTALL_DATADIR}/nav/demo COMPONENT simulation)
install(PROGRAMS scripts/nav-demo TYPE BIN COMPONENT simulation)

# Manual pages: of each program its help with docs/man/NAME.md, of the files their documents. And what the
# shells complete by. Built with everything.
set(pages ${PROJECT_BINARY_DIR}/pages)
file(MAKE_DIRECTORY ${pages})
function(manual_page name section component)
    cmake_parse_arguments(ARG "" "PROGRAM" "MORE" ${ARGN})
    set(documents ${PROJECT_SOURCE_DIR}/docs/man/${name}.md ${ARG_MORE})
    set(page ${pages}/${name}.${section}.gz)
    set(program)
    if(ARG_PROGRAM)
        set(program -- "$<TARGET_FILE:${ARG_PROGRAM}>")
    endif()
    add_custom_command(OUTPUT ${page}
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/manpage ${page} ${name} ${section} ${PROJECT_VERSION}
                ${documents} ${program}
        DEPENDS ${documents} scripts/manpage ${ARG_PROGRAM} VERBATIM)
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
    set_property(DIRECTORY APPEND PROPERTY pages ${page})
endfunction()
manual_page(nav-agent 8 agent PROGRAM nav-agent)
manual_page(navctl 1 tools PROGRAM navctl)
manual_page(nav-config 5 agent MORE ${PROJECT_SOURCE_DIR}/docs/reference.md
            ${PROJECT_SOURCE_DIR}/docs/configuration-forwarding.md)
manual_page(nav-forwarder 1 simulation PROGRAM nav-forwarder)
manual_page(nav-demo 1 simulation)
manual_page(nav-world 5 simulation MORE ${PROJECT_SOURCE_DIR}/docs/world-file.md)
foreach(shell bash zsh)
    add_custom_command(OUTPUT ${pages}/navctl.${shell} DEPENDS navctl
                       COMMAND navctl completion ${shell} > ${pages}/navctl.${shell} VERBATIM)
endforeach()
install(FILES ${pages}/navctl.bash COMPONENT tools RENAME navctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${pages}/navctl.zsh COMPONENT tools RENAME _navctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
get_property(all_pages DIRECTORY PROPERTY pages)
add_custom_target(pages ALL DEPENDS ${all_pages} ${pages}/navctl.bash ${pages}/navctl.zsh)

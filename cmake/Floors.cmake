# One folder, one target. `nav_floor(NAME SOURCES ... USES ...)` declares the object library of the
# current folder; the two shared libraries and the programs are linked from these.

add_library(nav_options INTERFACE)
target_compile_options(nav_options INTERFACE -Wall -Wextra -Wpedantic)
target_include_directories(nav_options INTERFACE ${PROJECT_SOURCE_DIR})
# Checks of the standard library in development; hardening of release builds, which
# tests/hardening_test.py reads off the binaries.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()
check_cxx_compiler_flag(-fcf-protection NAV_CF_PROTECTION)  # x86 has it
set(fortify 3)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
    set(fortify 2)
endif()
target_compile_definitions(nav_options INTERFACE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>
                                                 $<$<CONFIG:Release>:_FORTIFY_SOURCE=${fortify}>)
target_compile_options(nav_options INTERFACE
    "$<$<CONFIG:Release>:-fstack-protector-strong;-fstack-clash-protection>"
    $<$<AND:$<CONFIG:Release>,$<BOOL:${NAV_CF_PROTECTION}>>:-fcf-protection>)
# A library calls its own functions directly, and inlines them: nobody replaces them with others at
# load time.
target_compile_options(nav_options INTERFACE $<$<CONFIG:Release>:-fno-semantic-interposition>)
target_link_options(nav_options INTERFACE
    "$<$<CONFIG:Release>:-Wl,-z,relro,-z,now,-Bsymbolic-functions>")

if(NAV_SANITIZE)
    target_compile_options(nav_options INTERFACE -fsanitize=${NAV_SANITIZE} -fno-omit-frame-pointer
                                                 -fno-sanitize-recover=all)
    target_link_options(nav_options INTERFACE -fsanitize=${NAV_SANITIZE})
    # What the instrumentation adds makes g++ see uninitialised members in the standard library.
    target_compile_options(nav_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

# ccache keeps its files in the home directory; a builder's may be missing or read-only.
find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    file(WRITE ${PROJECT_BINARY_DIR}/ccache.cpp "")
    execute_process(COMMAND ${CCACHE} ${CMAKE_CXX_COMPILER} -c ccache.cpp
                    WORKING_DIRECTORY ${PROJECT_BINARY_DIR} RESULT_VARIABLE ccache_result
                    OUTPUT_QUIET ERROR_QUIET)
    if(ccache_result EQUAL 0)
        set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
    endif()
endif()

function(nav_floor name)
    cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
    add_library(${name} OBJECT ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE nav_options ${ARG_USES})
    set_target_properties(${name} PROPERTIES FOLDER ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()

# A shared library made of the objects of the given floors.
function(nav_shared_library name)
    cmake_parse_arguments(ARG "" "" "FLOORS;USES" ${ARGN})
    add_library(${name} SHARED)
    foreach(floor ${ARG_FLOORS})
        target_sources(${name} PRIVATE $<TARGET_OBJECTS:${floor}>)
    endforeach()
    target_link_libraries(${name} PUBLIC ${ARG_USES} PRIVATE nav_options)
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                             SOVERSION ${PROJECT_VERSION_MAJOR})
    target_compile_features(${name} PUBLIC cxx_std_20)
    target_include_directories(${name} INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/libnav>)
endfunction()

# Libraries made of units. A unit is a header and, where it has one, the source beside it.

include(CMakePackageConfigHelpers)
include(GNUInstallDirs)
include(PavoExports)

set(PAVO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Pavo")
set(CMAKE_INSTALL_RPATH "$ORIGIN")

set(PAVO_LIBRARY_TYPE SHARED)
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
    set(PAVO_LIBRARY_TYPE STATIC)
endif()

# pavo_library(<name> INCLUDE_ROOT <folder> INSTALL_INCLUDES <folder> [C_SYMBOLS <name>...])
# A library, shared unless BUILD_SHARED_LIBS is off, known as Pavo::<name> here and to those who find
# the package. Its headers are included with their path below INCLUDE_ROOT, and installed with that
# path below INSTALL_INCLUDES. Only what a header marks for export is visible outside a shared one;
# C_SYMBOLS names what of it is plain C.
function(pavo_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "INCLUDE_ROOT;INSTALL_INCLUDES" "C_SYMBOLS")
    add_library(${name} ${PAVO_LIBRARY_TYPE})
    add_library(Pavo::${name} ALIAS ${name})
    set_target_properties(
        ${name}
        PROPERTIES VERSION ${PROJECT_VERSION}
                   SOVERSION ${PROJECT_VERSION_MAJOR}
                   CXX_VISIBILITY_PRESET hidden
                   VISIBILITY_INLINES_HIDDEN ON
                   PAVO_INCLUDE_ROOT "${arg_INCLUDE_ROOT}"
    )
    # No program replaces a function of a library by one of the same name: calls inside go straight.
    target_compile_options(${name} PRIVATE -fno-semantic-interposition)
    if(PAVO_LIBRARY_TYPE STREQUAL SHARED)
        pavo_exports(${name} ${arg_C_SYMBOLS})
    endif()
    if(PAVO_ABI)
        target_compile_options(${name} PRIVATE -g)
    endif()
    if(NOT PAVO_SANITIZE)  # The sanitizers' own functions come with the program.
        target_link_options(${name} PRIVATE LINKER:--no-undefined)
    endif()
    pavo_compile(${name})
    pavo_abi(${name} PUBLIC)
    target_sources(
        ${name}
        PUBLIC FILE_SET HEADERS BASE_DIRS "${arg_INCLUDE_ROOT}"
        PUBLIC FILE_SET forwards TYPE HEADERS BASE_DIRS "${PROJECT_BINARY_DIR}/include"
    )
    if(PAVO_INSTALL)
        install(
            TARGETS ${name}
            EXPORT PavoTargets
            FILE_SET HEADERS DESTINATION "${arg_INSTALL_INCLUDES}"
            FILE_SET forwards DESTINATION "${arg_INSTALL_INCLUDES}"
        )
    endif()
endfunction()

# pavo_units(<library> [PRIVATE <unit>...])
# Adds the units of the current folder, which are its headers and sources, to <library>. Private ones
# are not installed. Each header is also compiled alone.
function(pavo_units library)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "PRIVATE")
    file(GLOB headers CONFIGURE_DEPENDS "*.h")
    file(GLOB sources CONFIGURE_DEPENDS "*.cpp")
    target_sources(${library} PRIVATE ${sources})
    foreach(header IN LISTS headers)
        pavo_check_header(${library} "${header}")
        cmake_path(GET header STEM unit)
        if(unit IN_LIST arg_PRIVATE)
            set_property(GLOBAL APPEND_STRING PROPERTY PAVO_PRIVATE_HEADERS "${unit}.h\n")
        else()
            target_sources(${library} PUBLIC FILE_SET HEADERS FILES "${header}")
            pavo_forward_header(${library} ${unit})
        endif()
    endforeach()
endfunction()

# Agents include <library/unit.h>, whatever folder of the library the unit is in: one line in the
# build tree, installed with the unit, leads there.
function(pavo_forward_header library unit)
    get_target_property(root ${library} PAVO_INCLUDE_ROOT)
    cmake_path(RELATIVE_PATH CMAKE_CURRENT_SOURCE_DIR BASE_DIRECTORY "${root}" OUTPUT_VARIABLE folder)
    if(folder STREQUAL library)
        return()
    endif()
    set(forward "${PROJECT_BINARY_DIR}/include/${library}/${unit}.h")
    file(CONFIGURE OUTPUT "${forward}" CONTENT "#include \"${folder}/${unit}.h\"\n" @ONLY)
    target_sources(${library} PUBLIC FILE_SET forwards FILES "${forward}")
endfunction()

# A header that compiles in a source of its own includes all that it uses.
if(PAVO_HEADER_CHECK)
    add_custom_target(header_check ALL)
endif()
function(pavo_check_header library header)
    if(NOT PAVO_HEADER_CHECK)
        return()
    endif()
    get_filename_component(name "${header}" NAME_WE)
    set(source "${PROJECT_BINARY_DIR}/header_check/${library}/${name}.cpp")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${header}\"\n" @ONLY)
    if(NOT TARGET ${library}_header_check)
        add_library(${library}_header_check OBJECT EXCLUDE_FROM_ALL)
        target_link_libraries(${library}_header_check PRIVATE ${library})
        target_compile_options(${library}_header_check PRIVATE -O0 -g0)
        pavo_compile(${library}_header_check)
        add_dependencies(header_check ${library}_header_check)
    endif()
    target_sources(${library}_header_check PRIVATE "${source}")
endfunction()

# pavo.pc, for projects built without CMake. It finds its own folder, so the installed tree can be
# moved.
function(pavo_install_pkgconfig)
    set(folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
               BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}/${folder}" OUTPUT_VARIABLE prefix
    )
    set(cflags -std=c++20 ${PAVO_ABI_OPTIONS})
    foreach(definition IN LISTS PAVO_ABI_DEFINITIONS)
        list(APPEND cflags "-D${definition}")
    endforeach()
    list(JOIN cflags " " cflags)
    # Headers use Mox and Keel, so programs link them too. Of what only sources use, shared libraries
    # know themselves.
    set(libs "-lPavo -lKeel -lMox")
    set(requires "")
    if(PAVO_LIBRARY_TYPE STREQUAL STATIC)
        string(APPEND libs " -lnetns -ltoggle")
        set(requires "libpcap libpcre2-8")
    endif()
    configure_file("${PROJECT_SOURCE_DIR}/cmake/pavo.pc.in" "${PROJECT_BINARY_DIR}/pavo.pc" @ONLY)
    install(FILES "${PROJECT_BINARY_DIR}/pavo.pc" DESTINATION "${folder}")
endfunction()

# pavo_install_package()
# Lets other projects say find_package(Pavo) and link Pavo::Pavo: with the installed package, and
# with the build tree as Pavo_DIR.
function(pavo_install_package)
    get_property(private GLOBAL PROPERTY PAVO_PRIVATE_HEADERS)
    file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/private-headers.txt" CONTENT "${private}" @ONLY)
    set(config "${PROJECT_BINARY_DIR}/PavoConfig.cmake")
    configure_package_config_file(
        "${PROJECT_SOURCE_DIR}/cmake/PavoConfig.cmake.in" "${config}"
        INSTALL_DESTINATION "${PAVO_INSTALL_CMAKEDIR}"
    )
    write_basic_package_version_file(
        "${PROJECT_BINARY_DIR}/PavoConfigVersion.cmake" COMPATIBILITY SameMinorVersion
    )
    install(FILES "${config}" "${PROJECT_BINARY_DIR}/PavoConfigVersion.cmake"
            DESTINATION "${PAVO_INSTALL_CMAKEDIR}"
    )
    install(EXPORT PavoTargets NAMESPACE Pavo:: DESTINATION "${PAVO_INSTALL_CMAKEDIR}")
    export(EXPORT PavoTargets NAMESPACE Pavo:: FILE "${PROJECT_BINARY_DIR}/PavoTargets.cmake")
    pavo_install_pkgconfig()
endfunction()

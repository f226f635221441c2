# Libraries made of units. A unit is a header and, where it has one, the source beside it.

include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

# Headers are installed below a folder of their own: "toggle" and "netns" are common names.
set(PAVO_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/pavo")
set(PAVO_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Pavo")
set(CMAKE_INSTALL_RPATH "$ORIGIN")

# pavo_library(<name> INCLUDE_ROOT <folder> [HEADER_ONLY])
# A shared library, known as Pavo::<name> here and to those who find the installed package. Its
# headers are included with their path below <folder>. Only what a header marks for export is
# visible outside.
function(pavo_library name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "HEADER_ONLY" "INCLUDE_ROOT" "")
    if(arg_HEADER_ONLY)
        set(scope INTERFACE)
        add_library(${name} INTERFACE)
    else()
        set(scope PUBLIC)
        add_library(${name} SHARED)
        set_target_properties(
            ${name}
            PROPERTIES VERSION ${PROJECT_VERSION}
                       SOVERSION ${PROJECT_VERSION_MAJOR}
                       CXX_VISIBILITY_PRESET hidden
                       VISIBILITY_INLINES_HIDDEN ON
        )
        if(NOT PAVO_SANITIZE)  # The sanitizers' own functions come with the program.
            target_link_options(${name} PRIVATE LINKER:--no-undefined)
        # Nobody replaces a function of ours by one of the same name: calls inside go straight.
        target_compile_options(${name} PRIVATE -fno-semantic-interposition)
        endif()
        pavo_compile(${name})
    endif()
    add_library(Pavo::${name} ALIAS ${name})
    pavo_abi(${name} ${scope})
    target_sources(${name} ${scope} FILE_SET HEADERS BASE_DIRS "${arg_INCLUDE_ROOT}")
    install(
        TARGETS ${name}
        EXPORT PavoTargets
        FILE_SET HEADERS DESTINATION "${PAVO_INSTALL_INCLUDEDIR}"
    )
endfunction()

# pavo_units(<library> <layer> <unit>...)
# Adds units of the current folder to <library>. The layer heads the list, and tools/check_layers.py
# reads it from there; each header is also compiled alone.
function(pavo_units library layer)
    get_target_property(type ${library} TYPE)
    set(scope PUBLIC)
    if(type STREQUAL "INTERFACE_LIBRARY")
        set(scope INTERFACE)
    endif()
    foreach(unit IN LISTS ARGN)
        set(stem "${CMAKE_CURRENT_SOURCE_DIR}/${unit}")
        if(NOT EXISTS "${stem}.h" AND NOT EXISTS "${stem}.cpp")
            message(FATAL_ERROR "${library}, ${layer}: unit ${unit} has neither header nor source")
        endif()
        if(EXISTS "${stem}.h")
            target_sources(${library} ${scope} FILE_SET HEADERS FILES "${stem}.h")
            pavo_check_header(${library} "${stem}.h")
        endif()
        if(EXISTS "${stem}.cpp")
            target_sources(${library} PRIVATE "${stem}.cpp")
        endif()
    endforeach()
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

# pavo_install_package()
# Lets other projects say find_package(Pavo) and link Pavo::Pavo.
function(pavo_install_package)
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
endfunction()

# What the tree brings for its examples, when they are a project of their own.

set(CMAKE_CXX_EXTENSIONS OFF)
find_package(Pavo 0.1 REQUIRED)

# pavo_compile(<target>): how the project's targets are compiled.
function(pavo_compile target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()

# pavo_example(<program> SOURCES <source>... [LIBS <library>...])
function(pavo_example program)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBS")
    add_executable(${program} ${arg_SOURCES})
    target_include_directories(${program} PRIVATE "${PROJECT_SOURCE_DIR}")
    target_link_libraries(${program} PRIVATE ${arg_LIBS})
    pavo_compile(${program})
endfunction()

add_subdirectory(sandbox)
add_subdirectory(interfaces)

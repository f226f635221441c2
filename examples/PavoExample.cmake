# pavo_example(<program> SOURCES <source>... [LIBS <library>...])
# An example, with the tree or by itself. Headers are included with their path below this folder.
function(pavo_example program)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBS")
    add_executable(${program} ${arg_SOURCES})
    target_include_directories(${program} PRIVATE "${CMAKE_CURRENT_FUNCTION_LIST_DIR}")
    target_link_libraries(${program} PRIVATE ${arg_LIBS})
    pavo_compile(${program})
endfunction()

# What the tree brings for its examples, when they are a project of their own.

set(CMAKE_CXX_EXTENSIONS OFF)
find_package(Pavo 0.1 REQUIRED)

# pavo_compile(<target>): how the project's targets are compiled.
function(pavo_compile target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
endfunction()

include(PavoExample.cmake)
add_subdirectory(sandbox)
add_subdirectory(interfaces)

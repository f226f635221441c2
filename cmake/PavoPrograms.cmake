# Test, benchmark and example programs.

if(PAVO_TESTS)
    find_package(GTest REQUIRED)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    include(GoogleTest)
endif()
if(PAVO_BENCHMARKS)
    find_package(benchmark REQUIRED)
endif()

# pavo_test(<program> SOURCES <source>... [LIBS <library>...] [ROOT])
# A GoogleTest program, one a layer. CTest knows each of its tests as <program>.<suite>.<test>, read
# from the program when ctest runs. ROOT is for programs that make namespaces and mounts: their main
# function enters a sandbox first, in which they are root.
function(pavo_test program)
    cmake_parse_arguments(PARSE_ARGV 1 arg "ROOT" "" "SOURCES;LIBS")
    add_executable(${program} ${arg_SOURCES})
    target_link_libraries(${program} PRIVATE ${arg_LIBS} pavo-test-support)
    if(arg_ROOT)
        target_sources(${program} PRIVATE "${PROJECT_SOURCE_DIR}/tests/support/SandboxMain.cpp")
    else()
        target_link_libraries(${program} PRIVATE GTest::gtest_main)
    endif()
    pavo_compile(${program})
    gtest_discover_tests(
        ${program}
        TEST_PREFIX "${program}."
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT 120 LABELS "${program}"
    )
endfunction()

# pavo_python_test(<name> <script> <argument>...)
# A script from the source tree as one test.
function(pavo_python_test name script)
    add_test(NAME ${name} COMMAND Python3::Interpreter "${PROJECT_SOURCE_DIR}/${script}" ${ARGN})
    set_tests_properties(${name} PROPERTIES LABELS tools ENVIRONMENT PYTHONDONTWRITEBYTECODE=1)
endfunction()

# pavo_benchmark(<program> SOURCES <source>... [LIBS <library>...])
# A Google Benchmark program; `./dev bench` runs all that are registered here.
function(pavo_benchmark program)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LIBS")
    add_executable(${program} ${arg_SOURCES})
    target_link_libraries(${program} PRIVATE ${arg_LIBS} benchmark::benchmark_main)
    pavo_compile(${program})
    set_property(GLOBAL APPEND PROPERTY PAVO_BENCHMARK_PROGRAMS "$<TARGET_FILE:${program}>")
endfunction()

include("${PROJECT_SOURCE_DIR}/examples/PavoExample.cmake")

# pavo_snippet(<source> <markdown> <name>)
# Makes <source> in the build tree of the C++ blocks of that name in a Markdown file.
function(pavo_snippet source markdown name)
    find_package(Python3 REQUIRED COMPONENTS Interpreter)
    add_custom_command(
        OUTPUT "${source}"
        COMMAND Python3::Interpreter "${PROJECT_SOURCE_DIR}/tools/readme_snippet.py"
                "${PROJECT_SOURCE_DIR}/${markdown}" ${name} "${source}"
        DEPENDS "${PROJECT_SOURCE_DIR}/${markdown}"
                "${PROJECT_SOURCE_DIR}/tools/readme_snippet.py"
        VERBATIM
    )
endfunction()

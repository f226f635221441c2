# How everything in this tree is compiled: language, warnings, sanitizers, ABI flags.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(PAVO_CCACHE ccache)
if(PAVO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${PAVO_CCACHE}")
endif()

# Warnings stay here: a consumer's are its own.
add_library(pavo_warnings INTERFACE)
target_compile_options(pavo_warnings INTERFACE -Wall -Wextra $<$<BOOL:${PAVO_WERROR}>:-Werror>)

add_library(pavo_sanitizers INTERFACE)
if(PAVO_SANITIZE)
    set(pavo_sanitize_flags "-fsanitize=${PAVO_SANITIZE}" -fno-sanitize-recover=all)
    target_compile_options(pavo_sanitizers INTERFACE ${pavo_sanitize_flags})
    target_link_options(pavo_sanitizers INTERFACE ${pavo_sanitize_flags})
endif()

# pavo_compile(<target>)
# Builds <target> the way this tree does, with nothing passed on to those who link it.
function(pavo_compile target)
    target_link_libraries(
        ${target} PRIVATE $<BUILD_INTERFACE:pavo_warnings> $<BUILD_INTERFACE:pavo_sanitizers>
    )
endfunction()

# What library and agent must agree on beside the language. On 32-bit x86, time_t and off_t are 64
# bits wide, and double is computed in SSE registers: in x87 registers the same sum made twice can
# compare unequal.
set(PAVO_ABI_DEFINITIONS "")
set(PAVO_ABI_OPTIONS "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(PAVO_ABI_DEFINITIONS _FILE_OFFSET_BITS=64 _TIME_BITS=64)
    set(PAVO_ABI_OPTIONS -msse2 -mfpmath=sse)
endif()

# pavo_abi(<target> PUBLIC|INTERFACE)
function(pavo_abi target scope)
    target_compile_features(${target} ${scope} cxx_std_20)
    target_compile_definitions(${target} ${scope} ${PAVO_ABI_DEFINITIONS})
    target_compile_options(${target} ${scope} ${PAVO_ABI_OPTIONS})
endfunction()

# How everything in this tree is compiled: language, warnings, sanitizers, ABI flags.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(PAVO_CCACHE ccache)
if(PAVO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${PAVO_CCACHE}")
endif()

# -Wshadow and -Wconversion keep the public headers clean for agents that compile with them; clang's
# -Wconversion includes changes of sign.
set(PAVO_WARNINGS -Wall -Wextra -Wshadow -Wconversion)
if(PAVO_WERROR)
    list(APPEND PAVO_WARNINGS -Werror)
endif()

set(PAVO_SANITIZERS "")
if(PAVO_SANITIZE)
    set(PAVO_SANITIZERS "-fsanitize=${PAVO_SANITIZE}" -fno-sanitize-recover=all)
    # clang compares the types of functions by address, and each library has its own copy of them.
    if(PAVO_SANITIZE MATCHES undefined AND CMAKE_CXX_COMPILER_ID STREQUAL Clang)
        list(APPEND PAVO_SANITIZERS -fno-sanitize=function)
    endif()
endif()

# pavo_compile(<target>)
# Builds <target> the way this tree does, with nothing passed on to those who link it. These are
# options and no interface targets, which a static library would pass on to be linked.
function(pavo_compile target)
    target_compile_options(${target} PRIVATE ${PAVO_WARNINGS} ${PAVO_SANITIZERS})
    target_link_options(${target} PRIVATE ${PAVO_SANITIZERS})
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

# Installs the build into an empty folder and moves that, then builds and runs consumers: by the
# installed CMake package, by pkg-config, by the build tree, and with the source tree taken in.
# Private headers are installed nowhere.
#
#   cmake -DBUILD=<build tree> -DSOURCE=<this folder> -DGENERATOR=<generator> -DCXX=<compiler>
#         -DCXX_FLAGS=<flags> -P check.cmake

set(work "${BUILD}/install-consumer")
file(REMOVE_RECURSE "${work}")

function(run)
    execute_process(
        COMMAND ${ARGN}
        RESULT_VARIABLE status
        OUTPUT_VARIABLE output
        ERROR_VARIABLE output
    )
    if(NOT status EQUAL 0)
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "${command}\nended with ${status}:\n${output}")
    endif()
    message("${output}")
endfunction()

# configure(<name> <folder> <definition>)
function(configure name folder definition)
    run("${CMAKE_COMMAND}" -G "${GENERATOR}" -S "${folder}" -B "${work}/${name}"
        "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "${definition}"
    )
endfunction()

# consume(<name> <definition>): the consumer finds the package by that definition.
function(consume name definition)
    configure(${name} "${SOURCE}" "${definition}")
    run("${CMAKE_COMMAND}" --build "${work}/${name}")
    run("${work}/${name}/consumer")
endfunction()

set(prefix "${work}/moved")
run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${work}/prefix")
file(RENAME "${work}/prefix" "${prefix}")
foreach(header IN ITEMS IpAddr.h value/IpAddr.h pam/PamFdSm.h platform/Mox/Ptr.h)
    if(NOT EXISTS "${prefix}/include/Pavo/${header}")
        message(FATAL_ERROR "include/Pavo/${header} is not installed")
    endif()
endforeach()
file(STRINGS "${BUILD}/private-headers.txt" private)
if(NOT private)
    message(FATAL_ERROR "no header is private")
endif()
foreach(header IN LISTS private)
    file(GLOB_RECURSE installed "${prefix}/include/${header}")
    if(installed)
        message(FATAL_ERROR "a private header is installed: ${installed}")
    endif()
endforeach()

consume(installed "-DCMAKE_PREFIX_PATH=${prefix}")
consume(build-tree "-DPavo_DIR=${BUILD}")

file(GLOB_RECURSE pc "${prefix}/pavo.pc")
cmake_path(GET pc PARENT_PATH folder)
file(COPY "${SOURCE}/Makefile" "${SOURCE}/main.cpp" DESTINATION "${work}/plain-make")
run("${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${folder}" "CXX=${CXX}" "CXXFLAGS=${CXX_FLAGS}"
    make -C "${work}/plain-make"
)
run("${work}/plain-make/consumer")

# The framework alone is built with the consumer here, without this build's sanitizers; `./dev package
# --check` builds all.
set(CXX_FLAGS "")
configure(tree "${SOURCE}/tree" "-DPAVO_SOURCE=${SOURCE}/../..")
run("${CMAKE_COMMAND}" --build "${work}/tree" --target entity-consumer)
run("${work}/tree/entity-consumer")

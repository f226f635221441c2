# Installs the build into an empty folder, then configures, builds and runs the consumer against what
# was installed, and against the build tree. Private headers are installed nowhere.
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

# consume(<name> <definition>): the consumer finds the package by that definition.
function(consume name definition)
    run("${CMAKE_COMMAND}" -G "${GENERATOR}" -S "${SOURCE}" -B "${work}/${name}"
        "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "${definition}"
    )
    run("${CMAKE_COMMAND}" --build "${work}/${name}")
    run("${work}/${name}/consumer")
endfunction()

run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${work}/prefix")
foreach(header IN ITEMS IpAddr.h value/IpAddr.h pam/PamFdSm.h platform/Mox/Ptr.h)
    if(NOT EXISTS "${work}/prefix/include/Pavo/${header}")
        message(FATAL_ERROR "include/Pavo/${header} is not installed")
    endif()
endforeach()
file(GLOB_RECURSE private "${work}/prefix/include/*/RawIpFamily.h"
     "${work}/prefix/include/*/TcpPduReader.h" "${work}/prefix/include/*/ServiceThread.h"
)
if(private)
    message(FATAL_ERROR "private headers are installed: ${private}")
endif()
consume(installed "-DCMAKE_PREFIX_PATH=${work}/prefix")
consume(build-tree "-DPavo_DIR=${BUILD}")

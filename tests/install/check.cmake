# Installs the build into an empty folder, then configures, builds and runs the consumer against it.
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

run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${work}/prefix")
run("${CMAKE_COMMAND}" -G "${GENERATOR}" -S "${SOURCE}" -B "${work}/build"
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_PREFIX_PATH=${work}/prefix"
)
run("${CMAKE_COMMAND}" --build "${work}/build")
run("${work}/build/consumer")

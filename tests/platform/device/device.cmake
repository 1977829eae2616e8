# Configures, builds and runs a consumer with ORBA_PLATFORM=device, against stand-ins:
#   cmake -DPLATFORM=... -DSOURCES=... -DSCRATCH=... -DCXX=... -DARCHITECTURE=... -P device.cmake
file(REMOVE_RECURSE "${SCRATCH}")
set(libraries libklib.so liborbatovra.so liborbaudc.so)

function(run)
    execute_process(COMMAND ${ARGN} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Configures the consumer; sets `result` and `output`.
macro(configure)
    execute_process(
        COMMAND "${CMAKE_COMMAND}" -S "${SOURCES}/consumer" -B "${SCRATCH}/consumer"
                "-DCMAKE_CXX_COMPILER=${CXX}" "-DPLATFORM=${PLATFORM}" ${ARGN}
        RESULT_VARIABLE result
        OUTPUT_VARIABLE output
        ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}") # messages come with line breaks
endmacro()

function(expect_found folder)
    file(REMOVE_RECURSE "${SCRATCH}/root")
    foreach(library IN LISTS libraries)
        file(COPY "${SCRATCH}/made/${library}" DESTINATION "${SCRATCH}/root/${folder}")
    endforeach()
    configure(-DORBA_PLATFORM=device "-DORBA_PLATFORM_ROOT=${SCRATCH}/root")
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "libraries in root/${folder}: ${output}")
    endif()
    foreach(library IN LISTS libraries)
        string(FIND "${output}" ": ${SCRATCH}/root/${folder}${library} " position)
        if(position EQUAL -1)
            message(FATAL_ERROR "${library} in root/${folder} was not taken: ${output}")
        endif()
    endforeach()
endfunction()

function(expect_refused text)
    configure(${ARGN})
    string(FIND "${output}" "${text}" position)
    if(result EQUAL 0 OR position EQUAL -1)
        message(FATAL_ERROR "expected a failure with \"${text}\", got ${result}: ${output}")
    endif()
endfunction()

run("${CMAKE_COMMAND}" -S "${SOURCES}/standins" -B "${SCRATCH}/standins"
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DPLATFORM_INCLUDE=${PLATFORM}/include"
    "-DOUTPUT=${SCRATCH}/made")
run("${CMAKE_COMMAND}" --build "${SCRATCH}/standins")

foreach(folder IN ITEMS "" lib/ lib/${ARCHITECTURE}/ usr/lib/${ARCHITECTURE}/ usr/lib/)
    expect_found("${folder}")
endforeach()

run("${CMAKE_COMMAND}" --build "${SCRATCH}/consumer")
execute_process(
    COMMAND "${SCRATCH}/consumer/consumer" OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
if(NOT output STREQUAL "0 stand-in 4711 42\n")
    message(FATAL_ERROR "the consumer ran with other libraries: ${output}")
endif()

# Libraries of these names elsewhere are not taken for those that the root lacks.
file(MAKE_DIRECTORY "${SCRATCH}/empty")
file(COPY "${SCRATCH}/made/" DESTINATION "${SCRATCH}/elsewhere/lib")
expect_refused(
    "libklib.so not found in ORBA_PLATFORM_ROOT (${SCRATCH}/empty)" -DORBA_PLATFORM=device
    "-DORBA_PLATFORM_ROOT=${SCRATCH}/empty" "-DCMAKE_PREFIX_PATH=${SCRATCH}/elsewhere")

set(device -DORBA_PLATFORM=device)
set(root "-DORBA_PLATFORM_ROOT=${SCRATCH}/root")
foreach(name IN ITEMS klib orbatovra orbaudc)
    file(RENAME "${SCRATCH}/root/usr/lib/lib${name}.so" "${SCRATCH}/away.so")
    expect_refused("lib${name}.so not found in ORBA_PLATFORM_ROOT (${SCRATCH}/root)" ${device} ${root})
    file(RENAME "${SCRATCH}/away.so" "${SCRATCH}/root/usr/lib/lib${name}.so")
endforeach()
expect_refused("ORBA_PLATFORM=device needs ORBA_PLATFORM_ROOT" ${device} -DORBA_PLATFORM_ROOT=)
expect_refused("ORBA_PLATFORM_ROOT (${SCRATCH}/none) is not a folder" ${device}
               "-DORBA_PLATFORM_ROOT=${SCRATCH}/none")
expect_refused("ORBA_PLATFORM is \"phone\"; it must be host or device" -DORBA_PLATFORM=phone ${root})
expect_refused("ORBA_PLATFORM is \"\"; it must be host or device" -DORBA_PLATFORM= ${root})

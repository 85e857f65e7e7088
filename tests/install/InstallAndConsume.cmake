# cmake -DBINARY_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... [-DSANITIZE=ON|-DTSAN=ON]
#       [-DCXX_COMPILER=...] -P InstallAndConsume.cmake
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

# A missing library, header or package file shows when the consumer is configured or built.
run("install" ${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})

set(flags "")
if(SANITIZE)
  # The library was built with the sanitizers; its host must load their runtime first.
  set(flags "-fsanitize=address,undefined")
elseif(TSAN)
  set(flags "-fsanitize=thread")
endif()
# The host is built by the library's own compiler, so a sanitizer runtime matches it.
set(compiler "")
if(CXX_COMPILER)
  set(compiler "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}")
endif()
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build ${compiler}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=${BUILD_TYPE} "-DCMAKE_CXX_FLAGS=${flags}")
run("build consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run("run consumer" ${WORK_DIR}/build/kavrel-consumer)
set(expected "{\"A\":1,\"B\":\"x\"},|Uninstall|Archive:Complete:com.x:100:1:1")
string(STRIP "${last_output}" got)
if(NOT got STREQUAL expected)
  message(FATAL_ERROR "consumer printed '${got}', expected '${expected}'")
endif()
message(STATUS "installed library found, linked and ran: ${got}")

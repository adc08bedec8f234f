# The installed client package, as a client sees it: install the build's
# "client" component into a fresh prefix, build examples/client against it
# with find_package, run it, and build and run a one-line program with the
# flags pkg-config gives.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DCXX=...
#         [-DEXTRA_FLAGS=...] -P InstallTest.cmake
# EXTRA_FLAGS carries the sanitizer flags of a sanitized build: its libraries
# need the sanitizer runtimes linked into the program.
foreach(_v BUILD_DIR SOURCE_DIR WORK_DIR CXX)
  if(NOT DEFINED ${_v})
    message(FATAL_ERROR "InstallTest.cmake needs -D${_v}=...")
  endif()
endforeach()
separate_arguments(_extra UNIX_COMMAND "${EXTRA_FLAGS}")

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE _rc OUTPUT_VARIABLE _out
                  ERROR_VARIABLE _out)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${_rc}):\n${ARGN}\n${_out}")
  endif()
  set(run_output "${_out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(_prefix ${WORK_DIR}/prefix)
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${_prefix}
    --component client)
foreach(_f include/cspf/Client.h lib/cmake/CspfClient/CspfClientConfig.cmake)
  if(NOT EXISTS ${_prefix}/${_f})
    message(FATAL_ERROR "the install lacks ${_f}")
  endif()
endforeach()

# find_package: the example with nothing but the prefix to go by.
run("configure the example" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/client
    -B ${WORK_DIR}/example -DCMAKE_PREFIX_PATH=${_prefix}
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${EXTRA_FLAGS}")
run("build the example" ${CMAKE_COMMAND} --build ${WORK_DIR}/example)
run("run the example" ${WORK_DIR}/example/cspf-example-client --help)
if(NOT run_output MATCHES "usage: cspf-example-client")
  message(FATAL_ERROR "the example's --help says:\n${run_output}")
endif()

# pkg-config: flags that let a program link and run where it was built.
find_program(_pkg_config pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${_prefix}/lib/pkgconfig)
run("pkg-config" ${_pkg_config} --cflags --libs cspfclient)
separate_arguments(_flags UNIX_COMMAND "${run_output}")
file(WRITE ${WORK_DIR}/one.cpp
  "#include <cspf/Client.h>\nint main() { return cspf::familyName( cspf::Family::ipv6 )[3] != '6'; }\n")
run("compile with pkg-config" ${CXX} -std=c++20 ${_extra} ${WORK_DIR}/one.cpp
    -o ${WORK_DIR}/one ${_flags})
run("run the pkg-config program" ${WORK_DIR}/one)

file(REMOVE_RECURSE ${WORK_DIR})

# cmake -P script behind the install_and_use_package test. Inputs: VORSIM_BUILD_DIR,
# WORK_DIR, CLIENT_SOURCE_DIR, CLIENT_CXX_COMPILER, CLIENT_BUILD_TYPE,
# CLIENT_CXX_FLAGS, CLIENT_LINK_FLAGS.
cmake_minimum_required(VERSION 3.25)

function(run_step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: ok")
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
set(client_build ${WORK_DIR}/client-build)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

run_step("install" ${CMAKE_COMMAND} --install ${VORSIM_BUILD_DIR} --prefix ${prefix})
foreach(required include/vorsim/World.hpp include/vorsim/math.hpp)
  if(NOT EXISTS ${prefix}/${required})
    message(FATAL_ERROR "install did not put ${required} into ${prefix}")
  endif()
endforeach()
file(GLOB_RECURSE config_files ${prefix}/*/vorsimConfig.cmake)
if(NOT config_files)
  message(FATAL_ERROR "install did not put vorsimConfig.cmake into ${prefix}")
endif()

set(configure_args
  -S ${CLIENT_SOURCE_DIR} -B ${client_build}
  -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_CXX_COMPILER=${CLIENT_CXX_COMPILER}
  -DCMAKE_BUILD_TYPE=${CLIENT_BUILD_TYPE})
if(CLIENT_CXX_FLAGS)
  list(APPEND configure_args "-DCMAKE_CXX_FLAGS=${CLIENT_CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CLIENT_LINK_FLAGS}")
endif()
run_step("configure client" ${CMAKE_COMMAND} ${configure_args})
string(FIND "${step_output}" "vorsim package config: ${prefix}/" found_at)
if(found_at EQUAL -1)
  message(FATAL_ERROR "the client did not find the package in ${prefix}:\n${step_output}")
endif()
run_step("build client" ${CMAKE_COMMAND} --build ${client_build})

# The library is found through the installed prefix only (the executable's
# RPATH points there, and so does the search path set here).
run_step("run client" ${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${prefix}/lib:${prefix}/lib64"
         ${client_build}/vorsim_client)
message(STATUS "${step_output}")
file(REMOVE_RECURSE ${WORK_DIR})

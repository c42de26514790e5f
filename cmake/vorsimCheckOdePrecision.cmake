# The collision layer hands double arrays straight to the collision library, so
# the installed ODE must be built with double precision. Ask the library itself.
include_guard(GLOBAL)
set(_probe_dir ${CMAKE_BINARY_DIR}/ode_precision_probe)
file(WRITE ${_probe_dir}/probe.cpp [=[
#include <ode/ode.h>
#include <cstdio>
int main() {
  static_assert(sizeof(dReal) == sizeof(double), "ode headers are not double precision");
  dInitODE2(0);
  int ok = dCheckConfiguration("ODE_double_precision");
  dCloseODE();
  std::printf("%d", ok);
  return ok ? 0 : 1;
}
]=])
try_run(_ode_run_result _ode_compile_result
  ${_probe_dir}/build ${_probe_dir}/probe.cpp
  CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${VORSIM_ODE_INCLUDE_DIR}"
  LINK_LIBRARIES ${VORSIM_ODE_LIBRARY}
  COMPILE_OUTPUT_VARIABLE _ode_compile_out
  RUN_OUTPUT_VARIABLE _ode_run_out)
if(NOT _ode_compile_result)
  message(FATAL_ERROR "Could not compile the ODE precision probe:\n${_ode_compile_out}")
endif()
if(NOT _ode_run_result EQUAL 0)
  message(FATAL_ERROR "The installed ODE is not built with double precision "
                      "(dCheckConfiguration(\"ODE_double_precision\") returned '${_ode_run_out}'). "
                      "vorsim needs a double-precision ODE (Debian's libode-dev is one).")
endif()
message(STATUS "ODE: double precision confirmed")

# Finds the Debian packages the library is built on and wraps them in imported
# targets. Used both by the build and by the installed package config, so that a
# client's find_package(vorsim) sees exactly the same dependencies.
include_guard(GLOBAL)

find_package(Eigen3 3.4 REQUIRED NO_MODULE)

if(NOT TARGET vorsim_deps::ode)
  find_path(VORSIM_ODE_INCLUDE_DIR ode/ode.h)
  find_library(VORSIM_ODE_LIBRARY NAMES ode)
  if(NOT VORSIM_ODE_INCLUDE_DIR OR NOT VORSIM_ODE_LIBRARY)
    message(FATAL_ERROR "ODE was not found: install the Debian package libode-dev.")
  endif()
  add_library(vorsim_deps::ode UNKNOWN IMPORTED)
  set_target_properties(vorsim_deps::ode PROPERTIES
    IMPORTED_LOCATION "${VORSIM_ODE_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${VORSIM_ODE_INCLUDE_DIR}"
    INTERFACE_COMPILE_DEFINITIONS "dIDEDOUBLE")
endif()

if(NOT TARGET vorsim_deps::tinyxml)
  find_path(VORSIM_TINYXML_INCLUDE_DIR tinyxml.h)
  find_library(VORSIM_TINYXML_LIBRARY NAMES tinyxml)
  if(NOT VORSIM_TINYXML_INCLUDE_DIR OR NOT VORSIM_TINYXML_LIBRARY)
    message(FATAL_ERROR "TinyXML was not found: install the Debian package libtinyxml-dev.")
  endif()
  add_library(vorsim_deps::tinyxml UNKNOWN IMPORTED)
  set_target_properties(vorsim_deps::tinyxml PROPERTIES
    IMPORTED_LOCATION "${VORSIM_TINYXML_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${VORSIM_TINYXML_INCLUDE_DIR}"
    INTERFACE_COMPILE_DEFINITIONS "TIXML_USE_STL")
endif()

if(NOT TARGET vorsim_deps::png)
  find_package(PNG REQUIRED)
  add_library(vorsim_deps::png INTERFACE IMPORTED)
  set_target_properties(vorsim_deps::png PROPERTIES INTERFACE_LINK_LIBRARIES PNG::PNG)
endif()

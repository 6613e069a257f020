# Configures and builds tests/sdk/project from scratch against an installed root.
# -DSOURCE=... -DBINARY=... -DPREFIX=... -DGENERATOR=... [-DCXX=...] [-DFLAGS=...]
file(REMOVE_RECURSE "${BINARY}")
execute_process(
  COMMAND "${CMAKE_COMMAND}" -S "${SOURCE}" -B "${BINARY}" -G "${GENERATOR}"
          "-DCMAKE_PREFIX_PATH=${PREFIX}" "-DCMAKE_CXX_COMPILER=${CXX}"
          "-DCMAKE_CXX_FLAGS=${FLAGS}" "-DCMAKE_MODULE_LINKER_FLAGS=${FLAGS}"
          -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  RESULT_VARIABLE configured)
if(NOT configured EQUAL 0)
  message(FATAL_ERROR "configuring the SDK example project failed")
endif()
execute_process(COMMAND "${CMAKE_COMMAND}" --build "${BINARY}" RESULT_VARIABLE built)
if(NOT built EQUAL 0)
  message(FATAL_ERROR "building the SDK example project failed")
endif()

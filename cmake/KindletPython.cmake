# KindletPython: the embedded interpreter, as the code that calls it links it.
#
# By default kindlet links it the way the distribution links its own
# python3.X: the static library in a non-PIE executable that exports the
# interpreter's symbols to extension modules. The shared library costs every
# start some 30,000 relocations and runs a slower build of the same code
# (docs/performance.md, "Start-up cost"). A target gets the static library
# when it sets the property KINDLET_STATIC_PYTHON (only kindlet does); tests,
# benchmarks and sanitizer builds link the shared library.
execute_process(
  COMMAND ${Python3_EXECUTABLE} -c
    "import os, sysconfig as s; print(os.path.join(s.get_config_var('LIBPL'), s.get_config_var('LIBRARY')))"
  OUTPUT_VARIABLE KINDLET_PYTHON_ARCHIVE OUTPUT_STRIP_TRAILING_WHITESPACE)
set(KINDLET_STATIC_PYTHON_DEFAULT OFF)
if(EXISTS "${KINDLET_PYTHON_ARCHIVE}" AND KINDLET_SANITIZER STREQUAL "")
  set(KINDLET_STATIC_PYTHON_DEFAULT ON)
endif()
option(KINDLET_STATIC_PYTHON "Link kindlet with the static interpreter library"
  ${KINDLET_STATIC_PYTHON_DEFAULT})

add_library(KindletPython INTERFACE)
if(KINDLET_STATIC_PYTHON)
  add_library(KindletStaticPython INTERFACE)
  target_include_directories(KindletStaticPython INTERFACE ${Python3_INCLUDE_DIRS})
  # What the archive itself needs (sysconfig's LIBS, SYSLIBS and the modules
  # built into it).
  target_link_libraries(KindletStaticPython INTERFACE
    ${KINDLET_PYTHON_ARCHIVE} ${CMAKE_DL_LIBS} expat z m Threads::Threads)
  target_link_options(KindletStaticPython INTERFACE
    -no-pie "LINKER:--export-dynamic-symbol=Py*" "LINKER:--export-dynamic-symbol=_Py*")
  target_link_libraries(KindletPython INTERFACE
    $<IF:$<BOOL:$<TARGET_PROPERTY:KINDLET_STATIC_PYTHON>>,KindletStaticPython,Python3::Python>)
else()
  target_link_libraries(KindletPython INTERFACE Python3::Python)
endif()

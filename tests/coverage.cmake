# What tests/coverage.py adds to the build: gcov's counters in the sources of src/ and platform/linux and in nothing
# else. Read by `cmake -DCMAKE_PROJECT_INCLUDE=`, behind the project's name and before its targets.

file(GLOB counted CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/src/*/*.cpp")
# Line by line as written, -O0. Without the ways that only an exception takes: the program catches nothing, so the code
# of these ways never runs, and gcov would list a branch or two for nearly every call.
set_source_files_properties(${counted} PROPERTIES
  COMPILE_OPTIONS "-O0;--coverage;-fprofile-update=atomic;-fno-exceptions")
# Those that throw: a number option that is no number, and what a missing library or a vector that is too long does.
file(GLOB throwing CONFIGURE_DEPENDS
  "${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/*/*.cpp")
set_source_files_properties("${CMAKE_CURRENT_SOURCE_DIR}/src/cli/options.cpp" ${throwing} PROPERTIES
  COMPILE_OPTIONS "-O0;--coverage;-fprofile-update=atomic")
add_link_options(--coverage)

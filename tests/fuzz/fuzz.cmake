# The fuzz targets: the program on the world of tests/fuzz/fuzz_world.h, under libFuzzer and the sanitizers. Each
# target's committed inputs are in tests/fuzz/seeds/<target>; new ones are collected in the build folder.
#
# As a test a target runs its seeds and then a fixed number of further inputs. `./check --long` runs them for longer,
# and a run by hand is  build/fuzz/tests/fuzz_image -max_total_time=3600 <folder for new inputs> tests/fuzz/seeds/image

set(VORNIX_FUZZ_RUNS 10000 CACHE STRING "Further inputs that a fuzz target tries as a test")

target_compile_options(vornix_program PRIVATE -fsanitize=fuzzer-no-link)

# No target is on the described machine; its sources are in the build for the linter, which finds the compiler's
# warnings.
set_target_properties(vornix_bench_objects vornix-bench PROPERTIES EXCLUDE_FROM_ALL ON)

add_library(fuzz_world OBJECT ${CMAKE_CURRENT_LIST_DIR}/fuzz_world.cpp)
target_compile_options(fuzz_world PRIVATE -fsanitize=fuzzer-no-link)
target_include_directories(fuzz_world PRIVATE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/platform")
target_link_libraries(fuzz_world PRIVATE vornix_sdk vornix_warnings vornix_hardening)

foreach(name image trailer options password tracker volumes)
  add_executable(fuzz_${name}
    ${CMAKE_CURRENT_LIST_DIR}/fuzz_${name}.cpp
    $<TARGET_OBJECTS:fuzz_world>
    # All of the program but its fatal report, which the world replaces by an exception.
    $<FILTER:$<TARGET_OBJECTS:vornix_program>,EXCLUDE,cli/fatal>)
  target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer-no-link)
  target_include_directories(fuzz_${name} PRIVATE "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/platform")
  target_link_libraries(fuzz_${name} PRIVATE
    vornix_platform vornix_sdk vornix_warnings vornix_hardening OpenSSL::Crypto)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  set(runs ${VORNIX_FUZZ_RUNS})
  if(name STREQUAL "password")
    math(EXPR runs "${runs} / 10") # inputs of a megabyte take their time
  endif()
  set(found "${PROJECT_BINARY_DIR}/found/${name}")
  file(MAKE_DIRECTORY "${found}")
  add_test(NAME fuzz/${name} COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/run_fuzz_target.py
    $<TARGET_FILE:fuzz_${name}> "${found}" "${CMAKE_CURRENT_LIST_DIR}/seeds/${name}" ${runs})
  set_tests_properties(fuzz/${name} PROPERTIES TIMEOUT 900)
endforeach()

# Those of the library, on real files and with the seeds of the program's own.
target_compile_options(vrnx_objects PRIVATE -fsanitize=fuzzer-no-link)
foreach(name reader_open reader_read)
  add_executable(fuzz_${name}
    ${CMAKE_CURRENT_LIST_DIR}/fuzz_${name}.cpp
    ${CMAKE_CURRENT_LIST_DIR}/fuzz_reader_files.cpp)
  target_compile_options(fuzz_${name} PRIVATE -fsanitize=fuzzer-no-link)
  target_link_libraries(fuzz_${name} PRIVATE vrnx_static vornix_warnings vornix_hardening)
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer -Wl,--wrap=PKCS5_PBKDF2_HMAC)
  set(found "${PROJECT_BINARY_DIR}/found/${name}")
  file(MAKE_DIRECTORY "${found}")
  math(EXPR runs "${VORNIX_FUZZ_RUNS} / 2") # each writes its files and opens them several times
  add_test(NAME fuzz/${name} COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/run_fuzz_target.py
    $<TARGET_FILE:fuzz_${name}> "${found}" "${CMAKE_CURRENT_LIST_DIR}/seeds/image" ${runs})
  set_tests_properties(fuzz/${name} PROPERTIES TIMEOUT 900)
endforeach()

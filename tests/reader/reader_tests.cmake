# The tests of reader/: programs on the library's objects, and suites that load the library as its users have it. The
# suites of the command, which run on every platform, are among the others.

vornix_glob(reader_tests tests/reader/*_test.cpp)
list(FILTER reader_tests EXCLUDE REGEX "/linux_[^/]*$")
vornix_add_gtest_program(vrnx-unit-tests ${reader_tests})
target_include_directories(vrnx-unit-tests PRIVATE "${PROJECT_SOURCE_DIR}/reader/lib")
target_compile_definitions(vrnx-unit-tests PRIVATE VRNX_VECTORS="${PROJECT_SOURCE_DIR}/tests/vectors")
target_link_libraries(vrnx-unit-tests PRIVATE vrnx_static vornix_json vornix_hardening)
if(WIN32)
  return()
endif()

vornix_add_gtest_program(vrnx-memory-tests "${CMAKE_CURRENT_LIST_DIR}/linux_memory_test.cpp"
  "${CMAKE_CURRENT_LIST_DIR}/fast_derivation.cpp")
target_include_directories(vrnx-memory-tests PRIVATE "${PROJECT_SOURCE_DIR}/reader/lib")
target_compile_definitions(vrnx-memory-tests PRIVATE VRNX_VECTORS="${PROJECT_SOURCE_DIR}/tests/vectors")
target_link_libraries(vrnx-memory-tests PRIVATE vrnx_static)
target_link_options(vrnx-memory-tests PRIVATE -Wl,--wrap=PKCS5_PBKDF2_HMAC)

add_executable(vrnx-many-reads "${CMAKE_CURRENT_LIST_DIR}/many_reads.cpp"
  "${CMAKE_CURRENT_LIST_DIR}/fast_derivation.cpp")
target_link_libraries(vrnx-many-reads PRIVATE vrnx_static vornix_warnings)
target_link_options(vrnx-many-reads PRIVATE -Wl,--wrap=PKCS5_PBKDF2_HMAC)

# The library once more under the thread sanitizer, which does not go with the others.
if(NOT VORNIX_SANITIZE)
  get_target_property(sources vrnx_objects SOURCES)
  add_executable(vrnx-parallel-reads "${CMAKE_CURRENT_LIST_DIR}/parallel_reads.cpp" ${sources})
  target_include_directories(vrnx-parallel-reads PRIVATE
    "${PROJECT_SOURCE_DIR}/reader/include" "${PROJECT_SOURCE_DIR}/reader/lib")
  target_compile_definitions(vrnx-parallel-reads PRIVATE VRNX_LIBRARY_VERSION="${PROJECT_VERSION}")
  target_compile_options(vrnx-parallel-reads PRIVATE -O1 -fsanitize=thread)
  target_link_options(vrnx-parallel-reads PRIVATE -fsanitize=thread)
  set_target_properties(vrnx-parallel-reads PROPERTIES UNITY_BUILD "${VORNIX_TOGETHER}")
  target_link_libraries(vrnx-parallel-reads PRIVATE OpenSSL::Crypto Threads::Threads vornix_warnings)
  set(vectors "${PROJECT_SOURCE_DIR}/tests/vectors")
  vornix_add_test(vrnx-parallel-reads $<TARGET_FILE:vrnx-parallel-reads> "correct horse" "${vectors}/thin.vrnx"
    "${vectors}/sealed.vrnx" "${vectors}/thin-sealed-over-sealed.vrnx" "${vectors}/chain/65.vrnx")
endif()

# A process that loads a sanitized library has to have the sanitizer's before. What Python leaves behind at its end is
# none of its business.
set(preload "")
if(VORNIX_SANITIZE)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
    OUTPUT_VARIABLE libasan OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(preload "LD_PRELOAD=${libasan}" "ASAN_OPTIONS=detect_leaks=0")
endif()
vornix_glob(suites tests/reader/native/test_*.py)
foreach(suite ${suites})
  get_filename_component(name ${suite} NAME_WE)
  string(REGEX REPLACE "^test_" "reader/" name ${name})
  vornix_add_test(${name} ${Python3_EXECUTABLE} ${suite})
  set_tests_properties(${name} PROPERTIES COST 10)
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT
    "VORNIX=$<TARGET_FILE:vornix>" "VRNX=$<TARGET_FILE:vrnx>" "VORNIX_BUILD=${PROJECT_BINARY_DIR}" "VORNIX_JOBS=1"
    ${preload})
endforeach()
# Loop devices that it attaches are disks to all that look meanwhile.
set_tests_properties(reader/plugin PROPERTIES RESOURCE_LOCK block_devices)

# zorvek_test(<source> [LIBS ...]): one GoogleTest binary per test file, named after the
# file, linked against the object libraries so that tests reach internals, and registered
# with ctest through gtest_discover_tests. The tests are listed when ctest runs, not right
# after linking: running a binary the moment it is linked can fail with "Text file busy"
# while a parallel build step still holds it open.
find_package(GTest REQUIRED)
include(GoogleTest)

function(zorvek_test source)
  cmake_parse_arguments(ARG "" "" "LIBS;LABELS" ${ARGN})
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  # Where tests find their data files (topologies, ...).
  target_compile_definitions(${name} PRIVATE ZORVEK_TEST_DATA="${PROJECT_SOURCE_DIR}/tests")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
endfunction()

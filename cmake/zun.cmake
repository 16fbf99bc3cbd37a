include(GoogleTest)

# One folder of src/ is one library. It may use only what it is linked to here, and
# scripts/check-layers holds its includes to the same order.
function(zun_library folder)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS *.cpp)
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  add_library(zun_${folder} STATIC ${sources})
  target_include_directories(zun_${folder} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(zun_${folder} PUBLIC ${ARGN})
  zun_count_lines(zun_${folder})
endfunction()

# Counts which lines of `target` run, for scripts/coverage.
function(zun_count_lines target)
  if(ZUN_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PUBLIC --coverage)
  endif()
endfunction()

# The unit tests of one folder, with the fakes and servers of tests/support. Those of folders
# in ZUN_CONCURRENT_FOLDERS have the label "concurrency".
function(zun_unit_tests folder)
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  string(REPLACE "/" "_" name ${folder})
  add_executable(${name}_tests ${sources})
  target_link_libraries(${name}_tests PRIVATE zun_test_support ${ARGN})
  if(folder IN_LIST ZUN_CONCURRENT_FOLDERS)
    set(label LABELS concurrency)
    add_dependencies(concurrency_tests ${name}_tests)
  endif()
  gtest_discover_tests(${name}_tests DISCOVERY_MODE PRE_TEST TEST_PREFIX "${folder}: "
                       PROPERTIES TIMEOUT 120 ${label})
endfunction()

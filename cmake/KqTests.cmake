# kq_add_tests(PROGRAM LABEL [ENVIRONMENT variable=value...])
#
# Registers the tests of a GoogleTest program, each by itself, so that ctest names the one that fails and
# none sees what another has left. Under a sanitizer the start of a process and its search for leaks cost
# more than most tests do: there each process runs a share of them, one after the other, which also shows
# what outlives a test.
function(kq_add_tests program label)
  cmake_parse_arguments(TESTS "" "" "ENVIRONMENT" ${ARGN})
  if(NOT KQ_SANITIZE)
    gtest_discover_tests(${program} DISCOVERY_TIMEOUT 120
                         PROPERTIES LABELS ${label} TIMEOUT 300 ENVIRONMENT "${TESTS_ENVIRONMENT}")
    return()
  endif()
  set(shares 4)
  math(EXPR last "${shares} - 1")
  foreach(share RANGE ${last})
    add_test(NAME ${program}.${share} COMMAND ${program} --gtest_brief=1)
    set_tests_properties(${program}.${share} PROPERTIES LABELS ${label} TIMEOUT 900
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${shares};GTEST_SHARD_INDEX=${share};${TESTS_ENVIRONMENT}")
  endforeach()
endfunction()

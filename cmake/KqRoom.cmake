# kq_room(NAME DEPENDS room...)
#
# Makes the static library kq_NAME of all sources in the current folder, and, where tests are built,
# the program NAME_test of all *_test.cpp beside them, whose tests carry the label NAME
# (ctest -L NAME). A room is a folder: whatever source lies in it belongs to it.
function(kq_room name)
  cmake_parse_arguments(ROOM "" "" "DEPENDS;EXCLUDE" ${ARGN})
  file(GLOB all CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(sources ${all})
  list(FILTER sources EXCLUDE REGEX "_(test|bench)\\.cpp$")
  foreach(excluded IN LISTS ROOM_EXCLUDE)
    list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
  endforeach()
  set(tests ${all})
  list(FILTER tests INCLUDE REGEX "_test\\.cpp$")

  add_library(kq_${name} STATIC ${sources})
  target_include_directories(kq_${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_link_libraries(kq_${name} PUBLIC ${ROOM_DEPENDS})
  target_compile_options(kq_${name} PRIVATE ${KQ_COVERAGE_OPTIONS})
  if(NOT name STREQUAL "enumeration")
    # Failures travel as status records; only the enumeration knows exceptions.
    target_compile_options(kq_${name} PRIVATE -fno-exceptions)
  endif()

  if(KQ_TESTS AND tests)
    add_executable(${name}_test ${tests})
    target_link_libraries(${name}_test PRIVATE kq_${name} kq_test_support)
    kq_add_tests(${name}_test ${name})
  endif()
endfunction()

# kq_find_optional(PACKAGE): find_package that is an error only under KQ_REQUIRE_ALL.
macro(kq_find_optional package)
  if(KQ_REQUIRE_ALL)
    find_package(${package} REQUIRED)
  else()
    find_package(${package} QUIET)
  endif()
endmacro()

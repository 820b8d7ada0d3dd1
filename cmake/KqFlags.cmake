# Compiler and linker settings that every target of the project shares.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1")

option(KQ_WERROR "Treat compiler warnings as errors" ON)
set(KQ_SANITIZE "" CACHE STRING "Sanitizers for everything that is built, as -fsanitize takes them")
if(KQ_SANITIZE)
  # More would cost four times the compile time.
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")
  set(CMAKE_C_FLAGS_RELWITHDEBINFO "-O1 -g1")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -fstack-protector-strong)
if(KQ_WERROR)
  add_compile_options(-Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # With a stack protector, g++ 12's late dead-store pass drops stores to a large local record that is
  # copied out as a whole afterwards (tests/sparse_document_test.cpp at -O1). What it would save, the
  # early pass saves as well.
  add_compile_options(-fno-dse)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(KQ_SANITIZE)
  add_compile_options(-fsanitize=${KQ_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KQ_SANITIZE})
  add_compile_definitions(KQ_SANITIZED=1)
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  # Fortified calls need optimisation, and the sanitizers check the same calls by themselves.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

option(KQ_COVERAGE "Count what runs of the library's lines and branches; for scripts/coverage" OFF)
if(KQ_COVERAGE)
  # Of the library alone: its targets are compiled with this.
  set(KQ_COVERAGE_OPTIONS --coverage -fprofile-update=prefer-atomic)
  add_link_options(--coverage)
endif()

add_link_options(LINKER:-z,relro LINKER:-z,now)

# What test sources are compiled with beyond the rest: they are many and run briefly, so compiling them
# is what costs.
set(KQ_TEST_OPTIONS -O0)
if(KQ_SANITIZE MATCHES "address")
  # The redzones around what tests hand to the library stay.
  list(APPEND KQ_TEST_OPTIONS -fno-sanitize=undefined)
elseif(NOT KQ_SANITIZE)
  list(APPEND KQ_TEST_OPTIONS -U_FORTIFY_SOURCE)
endif()
# For what calls no function of the library, and so has nothing that a sanitizer should look at.
if(KQ_SANITIZE)
  set(KQ_UNSANITIZED -fno-sanitize=all)
endif()

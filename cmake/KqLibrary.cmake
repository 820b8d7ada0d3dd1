# The shared library: all rooms, joined by the start-up, seen through the exported functions alone.

add_library(kqimageapi SHARED foundation/start_up.cpp)
set_target_properties(kqimageapi PROPERTIES
  VERSION 6 SOVERSION 6
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/kqimageapi.map)
target_include_directories(kqimageapi PRIVATE ${PROJECT_SOURCE_DIR}
  PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_options(kqimageapi PRIVATE -fno-exceptions ${KQ_COVERAGE_OPTIONS})
target_link_libraries(kqimageapi PRIVATE
  $<LINK_LIBRARY:WHOLE_ARCHIVE,kq_enumeration,kq_sparse,kq_image,kq_header,kq_crypto,kq_codec,kq_foundation>
  PkgConfig::UUID)
# The rooms link each other as well, and each must come in whole only once.
set_property(TARGET kqimageapi PROPERTY LINK_LIBRARY_OVERRIDE
  WHOLE_ARCHIVE,kq_enumeration,kq_sparse,kq_image,kq_header,kq_crypto,kq_codec,kq_foundation)
# The library's calls to its own exported functions stay inside it, also in a process that has a second
# copy of it loaded.
target_link_options(kqimageapi PRIVATE LINKER:-Bsymbolic
  LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/kqimageapi.map LINKER:--as-needed)
if(NOT KQ_SANITIZE)
  target_link_options(kqimageapi PRIVATE LINKER:-z,defs)
endif()

install(TARGETS kqimageapi EXPORT kqimageapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/kqimageapi.h include/kqimageformat.h include/kqsparseformat.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kqimageapiTargets NAMESPACE kqimageapi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kqimageapi)

include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kqimageapiConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
configure_file(cmake/kqimageapiConfig.cmake.in kqimageapiConfig.cmake @ONLY)
# Relative, so that an installation may be moved.
file(RELATIVE_PATH KQ_PREFIX_FROM_PKGCONFIG
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/kqimageapi.pc.in kqimageapi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kqimageapiConfig.cmake
              ${PROJECT_BINARY_DIR}/kqimageapiConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kqimageapi)
install(FILES ${PROJECT_BINARY_DIR}/kqimageapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

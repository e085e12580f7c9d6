# One small helper per kind of target, so every target gets the same warnings and include layout.

set(XPLPM_WARNINGS -Wall -Wextra)

# The library's sources are compiled as object libraries and linked into libxplpm.so.
function(xplpm_object_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XPLPM_WARNINGS})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/xplpm>)
  if(ARG_DEPS)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  endif()
endfunction()

# One GoogleTest binary per layer, registered test by test with CTest, with optional CTest labels.
function(xplpm_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XPLPM_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main GTest::gmock)
  target_compile_definitions(${name} PRIVATE XPLPM_DATA_DIR="${PROJECT_SOURCE_DIR}/data")
  if(ARG_LABELS)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${ARG_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()

function(xplpm_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XPLPM_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
  target_compile_definitions(${name} PRIVATE XPLPM_DATA_DIR="${PROJECT_SOURCE_DIR}/data")
endfunction()

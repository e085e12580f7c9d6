# One small helper per kind of target, so every target gets the same warnings and include layout.

set(XPLPM_WARNINGS -Wall -Wextra)

# What a layer may include. Each view is a folder under the build tree holding links to the source
# folders a layer may use, or, for the chip SDK's interface, to its headers one by one; a target
# compiles against its view alone, so an include across a layer boundary the design does not allow
# fails to build instead of quietly tying the layers together.
#   xplpm_view(<target> <PUBLIC|PRIVATE|INTERFACE> <view> FOLDERS <dir>... [SDK_HEADERS <file>...])
function(xplpm_view target scope view)
  cmake_parse_arguments(ARG "" "" "FOLDERS;SDK_HEADERS" ${ARGN})
  set(dir ${PROJECT_BINARY_DIR}/views/${view})
  file(MAKE_DIRECTORY ${dir})
  foreach(folder ${ARG_FOLDERS})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${dir}/${folder} SYMBOLIC)
  endforeach()
  if(ARG_SDK_HEADERS)
    file(MAKE_DIRECTORY ${dir}/xdk)
    foreach(header ${ARG_SDK_HEADERS})
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/xdk/${header} ${dir}/xdk/${header} SYMBOLIC)
    endforeach()
  endif()
  target_include_directories(${target} ${scope}
    $<BUILD_INTERFACE:${dir}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/xplpm>)
endfunction()

# The chip SDK as the library sees it: entry records, table contexts, the hash and the accessor.
# The simulated chip behind them (memory, lookup, profiles) is the agent's business.
set(XPLPM_SDK_INTERFACE XpBitVector.h xpTableContext.h xpLpmEntry.h xpHashFunction.h
  xpHashPolynomials.h xpIpRouteLpmMgr.h)

# The library's sources are compiled as object libraries and linked into libxplpm.so; each layer
# sees the folders it names, and the SDK's interface when it says SDK.
#   xplpm_object_library(<name> [SDK] SOURCES <file>... FOLDERS <dir>...)
function(xplpm_object_library name)
  cmake_parse_arguments(ARG "SDK" "" "SOURCES;FOLDERS" ${ARGN})
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XPLPM_WARNINGS})
  if(ARG_SDK)
    xplpm_view(${name} PRIVATE ${name} FOLDERS ${ARG_FOLDERS} SDK_HEADERS ${XPLPM_SDK_INTERFACE})
  else()
    xplpm_view(${name} PRIVATE ${name} FOLDERS ${ARG_FOLDERS})
  endif()
endfunction()

# One GoogleTest binary per layer, registered test by test with CTest, with optional CTest labels.
# Tests may reach any layer.
function(xplpm_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${XPLPM_WARNINGS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR})
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

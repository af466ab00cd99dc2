# nvo_subsystem(NAME SOURCES file... [USES target...])
# One folder below src/ as a static library `nvo_NAME`. USES states which other subsystems it may include.
function(nvo_subsystem name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_library(nvo_${name} STATIC ${ARG_SOURCES})
  target_include_directories(nvo_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
  target_link_libraries(nvo_${name} PUBLIC ${ARG_USES})
endfunction()

# nvo_test(NAME SOURCES file... USES target...)
# A GoogleTest program `nvo_NAME_tests`; each of its cases is a CTest case.
function(nvo_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES" ${ARGN})
  add_executable(nvo_${name}_tests ${ARG_SOURCES})
  target_include_directories(nvo_${name}_tests PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(nvo_${name}_tests PRIVATE ${ARG_USES} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(nvo_${name}_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600)
endfunction()

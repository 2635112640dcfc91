# orvane_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>])
# One GoogleTest executable; every test in it becomes a CTest test. Label "threaded" marks the
# tests that the ThreadSanitizer preset runs. Tests find their data through compile definitions
# (ORVANE_SOURCE_DIR, ORVANE_BINARY_DIR), never through the working directory.
function(orvane_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock_main Threads::Threads)
  target_compile_definitions(${name} PRIVATE ORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                             ORVANE_BINARY_DIR="${PROJECT_BINARY_DIR}")
  if(T_LABELS)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${T_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()

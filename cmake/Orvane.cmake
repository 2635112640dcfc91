# orvane_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>] [TIMEOUT <s>])
# One GoogleTest executable; every test in it becomes a CTest test. Label "threaded" marks the
# tests that the ThreadSanitizer preset runs. Tests find their data through compile definitions
# (ORVANE_SOURCE_DIR, ORVANE_BINARY_DIR), never through the working directory.
# Every test has a time limit (default 120 s), so that a hang fails with the test's name in
# minutes instead of eating the CI budget.
function(orvane_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock_main Threads::Threads)
  target_compile_definitions(${name} PRIVATE ORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                             ORVANE_BINARY_DIR="${PROJECT_BINARY_DIR}")
  if(T_LABELS)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                         PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${T_TIMEOUT})
  endif()
endfunction()

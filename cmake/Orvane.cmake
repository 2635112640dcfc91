# orvane_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>])
# One GoogleTest executable; every test in it becomes a CTest test. Label "threaded" marks the
# tests that the ThreadSanitizer preset runs.
function(orvane_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock_main Threads::Threads)
  set(props ENVIRONMENT
      "ORVANE_SOURCE_DIR=${PROJECT_SOURCE_DIR};ORVANE_BINARY_DIR=${PROJECT_BINARY_DIR}")
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${props})
endfunction()

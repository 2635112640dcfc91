# orvane_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>] [TIMEOUT <s>]
#             [HOST_ONLY <regex>])
# One GoogleTest executable; every test in it becomes a CTest test. Label "threaded" marks the
# tests that the ThreadSanitizer preset runs; "target-smoke" the fast subset that CI runs on the
# aarch64 build (wire formats, records, files, JSON, key manifests). Tests find their data through compile definitions
# (ORVANE_SOURCE_DIR, ORVANE_BINARY_DIR), never through the working directory.
# A cross build runs the tests under its emulator, and the tests start the build's own programs
# through it too (ORVANE_TEST_EMULATOR, src/minfw/testing/target_command.h).
# HOST_ONLY labels the tests whose names match <regex> "host-only": they start the SOME/IP
# runtime, whose multicast set-up (IP_MULTICAST_IF) qemu-user does not emulate, so the aarch64
# preset leaves them out (README, "Target build (aarch64)").
# Every test has a time limit (default 120 s), so that a hang fails with the test's name in
# minutes instead of eating the CI budget.
function(orvane_test name)
  cmake_parse_arguments(T "" "TIMEOUT;HOST_ONLY" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock_main Threads::Threads)
  string(JOIN " " emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
  target_compile_definitions(${name} PRIVATE ORVANE_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
                                             ORVANE_BINARY_DIR="${PROJECT_BINARY_DIR}"
                                             ORVANE_TEST_EMULATOR="${emulator}")
  if("threaded" IN_LIST T_LABELS)
    set_property(GLOBAL APPEND PROPERTY ORVANE_THREADED_TESTS ${name})
  endif()
  if(T_LABELS)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
                         PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${T_TIMEOUT})
  endif()
  if(T_HOST_ONLY)
    # Discovery names the tests only at build time; this file, read by ctest after discovery's
    # own, labels them then (set_tests_properties replaces LABELS, hence the whole list).
    set(marker ${CMAKE_CURRENT_BINARY_DIR}/${name}_host_only.cmake)
    file(WRITE ${marker} "foreach(test IN LISTS ${name}_TESTS)
  if(test MATCHES [==[${T_HOST_ONLY}]==])
    set_tests_properties(\"\${test}\" PROPERTIES LABELS \"${T_LABELS};host-only\")
  endif()
endforeach()
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${marker})
  endif()
endfunction()

# orvane_idl(<var> NAME <alias> IDL <description> INCLUDE_DIR <dir> [IMPORTS <descriptions...>])
# Generates the C++ of one service interface from its description (tools/idlgen) into
# ${CMAKE_BINARY_DIR}/generated/<dir>/<alias>_*.{h,cpp} at build time; editing the description,
# an imported one or the generator regenerates. Sets <var> to the generated files.
set(ORVANE_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
function(orvane_idl var)
  cmake_parse_arguments(I "" "NAME;IDL;INCLUDE_DIR" "IMPORTS" ${ARGN})
  set(outputs)
  foreach(part types.h interface.h ids.h ids.cpp names.h names.cpp proxy.h proxy.cpp skeleton.h
               skeleton.cpp)
    list(APPEND outputs ${ORVANE_GENERATED_DIR}/${I_INCLUDE_DIR}/${I_NAME}_${part})
  endforeach()
  set(generator ${PROJECT_SOURCE_DIR}/tools/idlgen/idlgen.py)
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND Python3::Interpreter ${generator} --out-dir ${ORVANE_GENERATED_DIR}
            --include-dir ${I_INCLUDE_DIR} --name ${I_NAME} ${I_IDL}
    DEPENDS ${I_IDL} ${I_IMPORTS} ${generator} ${PROJECT_SOURCE_DIR}/tools/idlgen/idlparse.py
    COMMENT "idlgen: ${I_NAME} from ${I_IDL}"
    VERBATIM)
  set(${var} ${outputs} PARENT_SCOPE)
endfunction()

# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# The compiler flags of the whole tree come with the preset.
option(CLOUD_ACTION_FUZZ "Build the fuzz targets for libFuzzer (needs clang)"
       OFF)

add_custom_target(fuzzers)

# fuzz_target(NAME LIBRARIES target...): the fuzz target in NAME_fuzz.cc. Every
# build makes a program of it that runs the committed inputs, in corpus/NAME, as
# the test NAME_fuzz_replay; a build for libFuzzer also makes the fuzzer
# NAME_fuzz, all of which belong to the target "fuzzers". As with unit_test()
# libraries that replace something come before the library under test.
function(fuzz_target name)
  cmake_parse_arguments(ARG "" "" "LIBRARIES" ${ARGN})
  set(fuzzer ${name}_fuzz)
  add_executable(${fuzzer}_replay ${fuzzer}.cc)
  target_link_libraries(${fuzzer}_replay PRIVATE
                        test_support fuzz_replay ${ARG_LIBRARIES})
  set(programs ${fuzzer}_replay)
  add_test(NAME ${fuzzer}_replay
           COMMAND ${fuzzer}_replay "${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name}")
  set_tests_properties(${fuzzer}_replay PROPERTIES LABELS fuzz TIMEOUT 120)
  if(CLOUD_ACTION_FUZZ)
    add_executable(${fuzzer} ${fuzzer}.cc)
    target_link_libraries(${fuzzer} PRIVATE test_support ${ARG_LIBRARIES})
    target_link_options(${fuzzer} PRIVATE -fsanitize=fuzzer)
    add_dependencies(fuzzers ${fuzzer})
    list(APPEND programs ${fuzzer})
  endif()
  set_target_properties(${programs} PROPERTIES RUNTIME_OUTPUT_DIRECTORY
                        "${PROJECT_BINARY_DIR}/fuzz")
endfunction()

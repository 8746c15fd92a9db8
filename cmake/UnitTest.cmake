# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# unit_test(NAME [LABEL label] SOURCES file... [LIBRARIES target...]): one
# GoogleTest program. It carries the label:
#   unit  no bus, no network (the default)
#   bus   a private message bus
#   net   the loopback network
# (The checks of class layouts, which run the compiler, are labelled layout.)
# The support library is linked first, so that what it replaces (the clock) wins
# over the libraries' own. For the same reason other test libraries come before
# the library under test.
function(unit_test name)
  cmake_parse_arguments(ARG "" "LABEL" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT ARG_LABEL)
    set(ARG_LABEL unit)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE test_support ${ARG_LIBRARIES}
                        GTest::gmock_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY
                        "${PROJECT_BINARY_DIR}/tests")
  # One entry a program: starting a process for each of hundreds of tests would
  # take longer than the tests.
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS ${ARG_LABEL} TIMEOUT 120)
endfunction()

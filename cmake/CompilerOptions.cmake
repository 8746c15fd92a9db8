# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors

# What every target of this tree is compiled with.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

include_directories("${PROJECT_SOURCE_DIR}")

# On 32-bit processors the C library has file numbers, offsets and times of 32
# bits for old programs. Reading a folder or a file's status would fail on a file
# system that numbers its files with more, and the time ends in 2038. None of
# the libraries that we call takes such a type from us.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# Errors are values here: nothing throws and nothing asks for a type at run
# time, which keeps the code small.
add_compile_options(-fno-exceptions -fno-rtti -Wall -Wextra -Wpedantic
                    -Wconversion -Wshadow -Wnon-virtual-dtor
                    -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough
                    -Wundef)
# Switched off by cmake --compile-no-warning-as-error, for other compilers.
set(CMAKE_COMPILE_WARNING_AS_ERROR ON)

if(CLOUD_ACTION_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
  # An access point has little memory and a small cache: all is compiled to be
  # small, but for what a target asks to have fast (see fast()). Nobody unwinds
  # the stack, since nothing throws; a debugger finds the way in the debug
  # symbols.
  add_compile_options(-Os -ffunction-sections -fdata-sections
                      -fno-asynchronous-unwind-tables -fno-unwind-tables
                      -fstack-protector-strong)
  # Large stack frames touch each page, indirect jumps land on marks: as far as
  # the processor knows of it.
  include(CheckCXXCompilerFlag)
  foreach(flag -fstack-clash-protection -fcf-protection
          -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "HAVE${flag}" have)
    check_cxx_compiler_flag("${flag}" ${have})
    if(${have})
      add_compile_options("${flag}")
    endif()
  endforeach()
  # A toolchain that fortifies by itself keeps its own level.
  if(NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  add_link_options(-Wl,--gc-sections -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)
endif()

option(CLOUD_ACTION_COVERAGE "Count the lines and branches that run" OFF)
if(CLOUD_ACTION_COVERAGE)
  # Files have to be found from wherever a program runs.
  add_compile_options(--coverage -fprofile-abs-path)
  add_link_options(--coverage)
endif()

# fast(FILE...): these take most of the time of a request; compiled for speed.
function(fast)
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS -O2)
  endif()
endfunction()

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

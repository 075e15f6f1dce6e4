# Build helpers shared by every directory.

function(zevd_set_warnings)
  add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -Wno-format-nonliteral)
  if(ZEVD_WERROR)
    add_compile_options(-Werror)
  endif()
endfunction()

function(zevd_set_sanitizer kind)
  if(kind STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    # g++ 12 reports false maybe-uninitialized warnings inside libstdc++ once
    # the sanitizer instruments it.
    add_compile_options(-Wno-maybe-uninitialized)
    add_link_options(-fsanitize=address,undefined)
  elseif(kind STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
  elseif(NOT kind STREQUAL "")
    message(FATAL_ERROR "ZEVD_SANITIZE must be address, thread or empty, not '${kind}'")
  endif()
endfunction()

# zevd_add_test(NAME SOURCES src... [LIBS lib...] [LABELS label...]
#               [ENVIRONMENT VAR=value...] [TIMEOUT seconds] [ONE_PROCESS])
# One GoogleTest binary. Each test case becomes its own ctest entry and runs
# in a fresh process, unless ONE_PROCESS asks for the whole binary to run as
# one entry (suites that share a process-wide server harness).
function(zevd_add_test name)
  cmake_parse_arguments(ARG "ONE_PROCESS" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE zevd_test_support ${ARG_LIBS})
  # The suites themselves are not optimised (the code under test is): their
  # many assertions and tables compile several times faster, and CI's time
  # is mostly compile time.
  target_compile_options(${name} PRIVATE -O0)
  # GoogleTest and the standard headers the suites use are parsed once per
  # build, into a precompiled header that every suite reuses: they are half
  # of a suite's compile time. Its host is built with the suites' flags.
  if(NOT TARGET zevd_test_pch)
    add_executable(zevd_test_pch ${PROJECT_SOURCE_DIR}/tests/support/pch_host.cpp)
    target_link_libraries(zevd_test_pch PRIVATE zevd_test_support)
    target_compile_options(zevd_test_pch PRIVATE -O0)
    target_precompile_headers(zevd_test_pch PRIVATE
      <gtest/gtest.h> <atomic> <chrono> <condition_variable> <fstream> <functional> <future>
      <memory> <mutex> <sstream> <string> <thread> <vector>)
  endif()
  target_precompile_headers(${name} REUSE_FROM zevd_test_pch)
  # zevd_concurrency_tests builds just the suites that the thread sanitizer
  # runs.
  if("concurrency" IN_LIST ARG_LABELS)
    if(NOT TARGET zevd_concurrency_tests)
      add_custom_target(zevd_concurrency_tests)
    endif()
    add_dependencies(zevd_concurrency_tests ${name})
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(ARG_ONE_PROCESS)
    add_test(NAME ${name} COMMAND ${name})
    # One property at a time: a list value (several labels or variables)
    # would otherwise read as further property names.
    set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
    if(ARG_LABELS)
      set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
    endif()
    if(ARG_ENVIRONMENT)
      set_tests_properties(${name} PROPERTIES ENVIRONMENT "${ARG_ENVIRONMENT}")
    endif()
  else()
    # The discovered tests take their properties through a generated script
    # that cannot carry a list value: one label and one variable at most.
    list(LENGTH ARG_LABELS labelCount)
    list(LENGTH ARG_ENVIRONMENT environmentCount)
    if(labelCount GREATER 1 OR environmentCount GREATER 1)
      message(FATAL_ERROR
        "zevd_add_test(${name}): several LABELS or ENVIRONMENT variables need ONE_PROCESS")
    endif()
    set(props TIMEOUT ${ARG_TIMEOUT})
    if(ARG_LABELS)
      list(APPEND props LABELS "${ARG_LABELS}")
    endif()
    if(ARG_ENVIRONMENT)
      list(APPEND props ENVIRONMENT "${ARG_ENVIRONMENT}")
    endif()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${props})
  endif()
endfunction()

# Fails the configuration when the ZEVD_VERSION_ macros of the public header
# do not name the project's version: a program compiled against the header
# must learn the version of the library it is built for.
function(zevd_check_header_version header)
  file(STRINGS ${header} lines REGEX "^#define ZEVD_VERSION_(MAJOR|MINOR|PATCH) ")
  set(found "")
  foreach(part MAJOR MINOR PATCH)
    set(value "")
    foreach(line ${lines})
      if(line MATCHES "^#define ZEVD_VERSION_${part} ([0-9]+)$")
        set(value ${CMAKE_MATCH_1})
      endif()
    endforeach()
    list(APPEND found "${value}")
  endforeach()
  list(JOIN found "." found)
  if(NOT found STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${header} gives version '${found}', the project ${PROJECT_VERSION}: "
      "update ZEVD_VERSION_MAJOR, _MINOR and _PATCH")
  endif()
endfunction()

# zevd_install_rpath(TARGET FROM_DIR)
# The installed target finds the libraries of its own prefix relative to
# where it is installed (FROM_DIR, a GNUInstallDirs directory), wherever the
# prefix is moved to.
function(zevd_install_rpath target fromDir)
  if(NOT ZEVD_INSTALL_RPATH)
    return()
  endif()
  file(RELATIVE_PATH toLib ${CMAKE_INSTALL_PREFIX}/${fromDir} ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
  if(toLib STREQUAL "")
    set(runpath "\$ORIGIN")
  else()
    set(runpath "\$ORIGIN/${toLib}")
  endif()
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${runpath}")
endfunction()

# The one way a test reaches CTest.
#
#   ald_add_test(NAME
#     SOURCES file...            test sources (GoogleTest unless COMMAND is given)
#     LIBS target...             what the test links
#     WRAP symbol...             libc calls routed through __wrap_<symbol> (-Wl,--wrap)
#     NO_GTEST_MAIN              the test brings its own entry point
#     COMMAND cmd...             run this instead of the built executable
#     LABELS label...            e.g. root, netns, slow
#     ENVIRONMENT VAR=value...
#     TIMEOUT seconds)
#
# Every test gets a private, empty ALD_ROOT under the build tree, so that no
# test can read or write the machine's real store or configuration.
function(ald_add_test name)
  cmake_parse_arguments(T "NO_GTEST_MAIN" "TIMEOUT" "SOURCES;LIBS;WRAP;COMMAND;LABELS;ENVIRONMENT" ${ARGN})
  set(root "${CMAKE_BINARY_DIR}/test-roots/${name}")
  if(T_SOURCES)
    add_executable(${name} ${T_SOURCES})
    target_link_libraries(${name} PRIVATE ${T_LIBS})
    if(T_NO_GTEST_MAIN)
      target_link_libraries(${name} PRIVATE GTest::gtest GTest::gmock Threads::Threads)
    else()
      target_link_libraries(${name} PRIVATE GTest::gtest_main GTest::gmock Threads::Threads)
    endif()
    foreach(sym IN LISTS T_WRAP)
      target_link_options(${name} PRIVATE "LINKER:--wrap=${sym}")
    endforeach()
  endif()
  if(T_COMMAND)
    add_test(NAME ${name} COMMAND ${T_COMMAND})
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES
    TIMEOUT ${T_TIMEOUT}
    ENVIRONMENT "ALD_ROOT=${root};ALD_TEST_ROOT=${root};${T_ENVIRONMENT}"
    FIXTURES_REQUIRED ald_roots)
  if(T_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()

# Sets `var` to one executable path that runs `target` here, for test scripts
# that are handed a program: the target itself, or in a cross build a
# launcher that starts it through CMAKE_CROSSCOMPILING_EMULATOR, since a
# script cannot exec a foreign binary unless binfmt_misc knows its format.
function(ald_runnable var target)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    set(launcher "${CMAKE_CURRENT_BINARY_DIR}/${target}-emulated")
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "\" \"" emulator)
    file(GENERATE OUTPUT "${launcher}"
      CONTENT "#!/bin/sh\nexec \"${emulator}\" \"$<TARGET_FILE:${target}>\" \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(${var} "${launcher}" PARENT_SCOPE)
  else()
    set(${var} "$<TARGET_FILE:${target}>" PARENT_SCOPE)
  endif()
endfunction()

# Fresh test roots for every ctest run.
if(NOT TEST ald_roots_setup)
  add_test(NAME ald_roots_setup COMMAND ${CMAKE_COMMAND} -E rm -rf "${CMAKE_BINARY_DIR}/test-roots")
  set_tests_properties(ald_roots_setup PROPERTIES FIXTURES_SETUP ald_roots)
endif()

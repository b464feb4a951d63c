# GoogleTest is built from Debian's source package, so that native and cross builds use the same one.
function(hoardex_load_googletest)
  if(TARGET gmock_main)
    return()
  endif()
  set(gtest_disable_pthreads ${WIN32} CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endfunction()

# hoardex_test(NAME name SOURCES a.cpp ... LIBRARIES lib ... [TIMEOUT seconds] [LABELS label ...])
# adds one GoogleTest executable and one ctest entry for it. Windows tests run under Wine, in the prefix that the
# fixture of tests/CMakeLists.txt makes.
function(hoardex_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBRARIES;LABELS;ENVIRONMENT" ${ARGN})
  hoardex_load_googletest()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE hoardex_options ${T_LIBRARIES} gmock_main)
  add_test(NAME ${T_NAME} COMMAND ${T_NAME})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS "${T_LABELS}")
  set(env ${T_ENVIRONMENT} HOARDEX_SAMPLES=${HOARDEX_SAMPLES})
  if(WIN32)
    set_property(TEST ${T_NAME} PROPERTY FIXTURES_REQUIRED wine)
    list(APPEND env ${HOARDEX_WINE_ENVIRONMENT})
  endif()
  set_property(TEST ${T_NAME} PROPERTY ENVIRONMENT "${env}")
endfunction()

# Real stores with what independent readers find in them; tests that need them skip, and say so, without.
set(HOARDEX_SAMPLES "${PROJECT_SOURCE_DIR}/../shared/samples" CACHE PATH "Folder of real sample stores")

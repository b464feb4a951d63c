# 64-bit Windows by clang, as a second opinion on the sources: headers, libraries and linker are those of mingw-w64.cmake.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=crtbegin.o OUTPUT_VARIABLE runtime
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET runtime PARENT_PATH runtime)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${triplet})
set(CMAKE_CXX_COMPILER_TARGET ${triplet})
# clang does not look below a folder that is named after the flavour of threads, and would take headers of Linux.
set(CMAKE_C_FLAGS_INIT "-nostdlibinc -isystem /usr/${triplet}/include")
set(CMAKE_CXX_FLAGS_INIT
  "-nostdlibinc -isystem ${runtime}/include/c++ -isystem ${runtime}/include/c++/${triplet} -isystem /usr/${triplet}/include")
foreach(kind EXE SHARED)
  string(APPEND CMAKE_${kind}_LINKER_FLAGS_INIT " -B${runtime} -L${runtime}")
endforeach()

# One place for what every target of ours is compiled with. Link to hoardex_options, privately.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# -O3 costs a third more time to build and gains nothing that can be measured here; what is shipped has no debug data.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O1 -g1")

add_library(hoardex_options INTERFACE)
target_include_directories(hoardex_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(hoardex_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wpedantic;-Werror>)
# GCC 12 sees an overlap in "text" + std::string() where there is none (its bug 105651), at -O3 only.
target_compile_options(hoardex_options INTERFACE
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
if(WIN32)
  # DWARF 4 is the newest that Wine's crash handler reads.
  target_compile_options(hoardex_options INTERFACE $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Debug>>:-gdwarf-4>)
  add_link_options($<$<CONFIG:Release>:-s> -Wl,--dynamicbase,--high-entropy-va,--nxcompat)
  target_compile_definitions(hoardex_options INTERFACE
    UNICODE _UNICODE WINVER=0x0601 _WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX STRICT
    # No interface of COM promises that it throws nothing, whether it was declared with the macros or not.
    COM_STDMETHOD_CAN_THROW)
endif()

option(HOARDEX_SANITIZE "AddressSanitizer and UBSan (native builds)" OFF)
if(HOARDEX_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Settings for every target of the project.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

find_program(ZELTA_CCACHE ccache)
if(ZELTA_CCACHE)
  # Otherwise its cache is not used for sources that are compiled with precompiled headers.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_ctime,include_file_mtime
      ${ZELTA_CCACHE})
endif()

set(ZELTA_SANITIZE "" CACHE STRING "Sanitizers, as the compiler's -fsanitize= takes them")
find_package(Threads REQUIRED)

add_library(zelta_options INTERFACE)
target_include_directories(zelta_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(zelta_options INTERFACE -Wall -Wextra -Werror -Wshadow -Wformat=2
                                               -Wnon-virtual-dtor -Wno-error=deprecated-declarations)
# The framework's interfaces must have no virtual destructor (it would add slots); theirs are
# protected, which -Wnon-virtual-dtor accepts.
target_link_libraries(zelta_options INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13 AND
   NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  # With optimisation, this version mistakes appending to a small std::vector for an overflow.
  target_compile_options(zelta_options INTERFACE -Wno-array-bounds -Wno-stringop-overflow)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(zelta_options INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(ZELTA_SANITIZE)
  target_compile_options(zelta_options INTERFACE -fsanitize=${ZELTA_SANITIZE}
                                                 -fno-omit-frame-pointer)
  target_link_options(zelta_options INTERFACE -fsanitize=${ZELTA_SANITIZE})
  if(ZELTA_SANITIZE MATCHES "undefined")
    target_compile_options(zelta_options INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()
if(WIN32)
  # Header-only libraries of the build machine, without the rest of its headers.
  set(ZELTA_HEADERS ${CMAKE_BINARY_DIR}/header-only)
  file(MAKE_DIRECTORY ${ZELTA_HEADERS})
  foreach(library fmt CLI nlohmann)
    if(NOT EXISTS /usr/include/${library})
      message(FATAL_ERROR "The headers of ${library} are not installed")
    endif()
    file(CREATE_LINK /usr/include/${library} ${ZELTA_HEADERS}/${library} SYMBOLIC)
  endforeach()
  target_include_directories(zelta_options SYSTEM INTERFACE ${ZELTA_HEADERS})
  target_compile_definitions(zelta_options INTERFACE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN
                                                     _WIN32_WINNT=0x0A00 FMT_HEADER_ONLY
                                                     __USE_MINGW_ANSI_STDIO=1)
  # Control-flow guard, if the compiler and its run-time have it.
  include(CheckCXXCompilerFlag)
  set(CMAKE_REQUIRED_LINK_OPTIONS -mguard=cf)
  check_cxx_compiler_flag(-mguard=cf ZELTA_CONTROL_FLOW_GUARD)
  unset(CMAKE_REQUIRED_LINK_OPTIONS)
  if(ZELTA_CONTROL_FLOW_GUARD)
    target_compile_options(zelta_options INTERFACE -mguard=cf)
    target_link_options(zelta_options INTERFACE -mguard=cf)
  endif()
endif()

# zelta_add_library(NAME SOURCES... LIBRARIES...): a static library of one folder.
function(zelta_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC zelta_options ${ARG_LIBRARIES})
endfunction()

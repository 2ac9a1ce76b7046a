# The build options, and the flags of every target of this project.
include_guard(GLOBAL)

option(VELD_WERROR "Treat warnings as errors" OFF)
option(VELD_HOST "Build the host kit; without it there is only the module" ON)
set(veldWhole ${PROJECT_IS_TOP_LEVEL})
if(NOT VELD_HOST)
  set(veldWhole OFF)
endif()
# Inside another project only the libraries are built, and nothing is installed unless it asks for that.
option(VELD_PROGRAM "Build veldrep, for which CLI11 is needed, and with VELD_SERVE what the report server needs" ${veldWhole})
# The report server needs POSIX.
set(veldServe ON)
if(WIN32)
  set(veldServe OFF)
endif()
option(VELD_SERVE "Build the report server, with veldrep's commands serve and drain" ${veldServe})
option(VELD_TESTS "Build the tests; they need VELD_PROGRAM" ${veldWhole})
option(VELD_INSTALL "Install the package" ${veldWhole})
option(VELD_FUZZ "Build the fuzz targets; needs clang" OFF)
if(NOT VELD_HOST AND (VELD_PROGRAM OR VELD_INSTALL))
  message(FATAL_ERROR "VELD_PROGRAM and VELD_INSTALL need VELD_HOST")
endif()
if(VELD_TESTS AND NOT VELD_PROGRAM)
  message(FATAL_ERROR "VELD_TESTS needs VELD_PROGRAM: set both, or neither")
endif()
set(VELD_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")

# The benchmarks count allocations by replacing malloc, as the sanitizers do too.
if(PROJECT_IS_TOP_LEVEL)
  find_package(benchmark QUIET)
  find_path(VELD_RAPIDJSON_INCLUDE rapidjson/writer.h)
endif()
include(CMakeDependentOption)
cmake_dependent_option(VELD_BENCH "Build the benchmarks" ON
  "PROJECT_IS_TOP_LEVEL;VELD_PROGRAM;benchmark_FOUND;VELD_RAPIDJSON_INCLUDE;NOT VELD_SANITIZE" OFF)

# Another project chooses its flags itself.
if(PROJECT_IS_TOP_LEVEL)
  find_program(VELD_CCACHE ccache)
  if(VELD_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER ${VELD_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${VELD_CCACHE})
  endif()
  if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
  endif()
  set(CMAKE_CXX_FLAGS_RELEASE "-O2")
  set(CMAKE_C_FLAGS_RELEASE "-O2")
endif()

# The warnings and the sanitizer; linked privately.
add_library(veld_flags INTERFACE)
target_compile_options(veld_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<BOOL:${VELD_WERROR}>:-Werror>)
# The include roots. Tests, bench and fuzz add the top folder.
set(VELD_INCLUDES ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/src/module)
if(WIN32)
  # There <io.h> is the runtime library's, not the contract's.
  add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:SHELL:-idirafter ${PROJECT_SOURCE_DIR}/src/contract>")
else()
  list(APPEND VELD_INCLUDES ${PROJECT_SOURCE_DIR}/src/contract)
endif()
target_include_directories(veld_flags INTERFACE ${VELD_INCLUDES})
if(VELD_SANITIZE)
  # -O1 and -g1 halve the time of a sanitizer build and find the same faults.
  target_compile_options(veld_flags INTERFACE
    -fsanitize=${VELD_SANITIZE} -fno-omit-frame-pointer -O1 -g1)
  # With sanitizers g++ reports values as uninitialised that aren't.
  target_compile_options(veld_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(veld_flags INTERFACE -fsanitize=${VELD_SANITIZE})
  if(VELD_SANITIZE MATCHES "undefined")
    target_compile_options(veld_flags INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()

# How zstd's own files name the library.
set(VELD_ZSTD zstd::libzstd_shared)
if(WIN32)
  set(VELD_ZSTD zstd::libzstd_static)
endif()

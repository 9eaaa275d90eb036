# How our own code is compiled. Targets that hold our code link kyr_warnings and kyr_sanitizers.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

add_library(kyr_warnings INTERFACE)
target_compile_options(kyr_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  # GCC 12 reports -Wrestrict wrongly for std::string's operator+.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

# A variable, because the install test builds its consumer with the same flags. Without the last two
# options a failed check would only print, and backtraces would have gaps.
set(KYR_SANITIZER_FLAGS)
if(KYR_SANITIZE STREQUAL "address")
  set(KYR_SANITIZER_FLAGS -fsanitize=address,undefined)
elseif(KYR_SANITIZE STREQUAL "thread")
  set(KYR_SANITIZER_FLAGS -fsanitize=thread)
elseif(KYR_SANITIZE)
  message(FATAL_ERROR "KYR_SANITIZE is \"${KYR_SANITIZE}\": give address, thread or nothing")
endif()
# clang can watch which code an input reaches, which the fuzzers build on.
set(KYR_CAN_FUZZ OFF)
if(KYR_SANITIZE STREQUAL "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(KYR_CAN_FUZZ ON)
  list(APPEND KYR_SANITIZER_FLAGS -fsanitize=fuzzer-no-link)
endif()
if(KYR_SANITIZER_FLAGS)
  list(APPEND KYR_SANITIZER_FLAGS -fno-sanitize-recover=all -fno-omit-frame-pointer)
endif()

add_library(kyr_sanitizers INTERFACE)
target_compile_options(kyr_sanitizers INTERFACE ${KYR_SANITIZER_FLAGS})
target_link_options(kyr_sanitizers INTERFACE ${KYR_SANITIZER_FLAGS})
if(KYR_SANITIZER_FLAGS)
  target_compile_definitions(kyr_sanitizers INTERFACE _GLIBCXX_ASSERTIONS)
  # The instrumentation hides initialisations from this warning.
  target_compile_options(kyr_sanitizers INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

# For targets that take longer to compile than to run with a sanitizer: tests and the tool. To
# optimise what the sanitizers add takes more than half of the time of a compilation.
add_library(kyr_unoptimised_if_sanitized INTERFACE)
if(KYR_SANITIZER_FLAGS)
  target_compile_options(kyr_unoptimised_if_sanitized INTERFACE -O0)
endif()

# Arrow's headers dominate the compile time of nearly every file.
function(kyr_precompile_headers target)
  if(KYR_PCH)
    target_precompile_headers(${target} PRIVATE
      <memory> <string> <vector>
      <arrow/api.h> <parquet/arrow/reader.h> <parquet/arrow/writer.h>
      ${ARGN})
  endif()
endfunction()

find_program(KYR_CCACHE ccache)
mark_as_advanced(KYR_CCACHE)
if(KYR_CCACHE AND PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  # ccache only caches files with a precompiled header when it may ignore these.
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros "${KYR_CCACHE}")
endif()

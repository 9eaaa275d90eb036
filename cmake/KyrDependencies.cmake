# Arrow and Parquet: an installed version 15, else the libraries of the Python wheel, because
# Debian has no package of them. Other major versions have another binary interface.
find_package(Arrow 15...<16 CONFIG QUIET)
if(Arrow_FOUND)
  find_package(Parquet 15...<16 CONFIG REQUIRED)
  set(KYR_ARROW_BUNDLED OFF)
  message(STATUS "Arrow ${Arrow_VERSION}: ${Arrow_DIR}")
else()
  set(KYR_ARROW_BUNDLED ON)
  set(KYR_ARROW_ROOT "${PROJECT_SOURCE_DIR}/build/arrow-15.0.1")
  if(NOT EXISTS "${KYR_ARROW_ROOT}")
    execute_process(COMMAND "${PROJECT_SOURCE_DIR}/scripts/fetch-arrow" "${KYR_ARROW_ROOT}"
                    RESULT_VARIABLE fetch_result)
    if(NOT fetch_result EQUAL 0)
      message(FATAL_ERROR "Arrow could not be fetched. Run scripts/setup.")
    endif()
  endif()
  include(KyrArrowTargets)
  kyr_add_arrow_targets("${KYR_ARROW_ROOT}")
  message(STATUS "Arrow 15.0.1: ${KYR_ARROW_ROOT}")
endif()

if(SKBUILD)
  include(KyrPrivateArrow)
endif()

find_package(fmt CONFIG REQUIRED)
# fmt as headers only: what is installed then needs nothing but Arrow. A build with a sanitizer is
# not installed, and files compile in less time without the bodies of fmt's functions.
add_library(kyr_fmt INTERFACE)
if(KYR_SANITIZE)
  target_link_libraries(kyr_fmt INTERFACE fmt::fmt)
else()
  target_link_libraries(kyr_fmt INTERFACE fmt::fmt-header-only)
endif()
find_package(nlohmann_json CONFIG REQUIRED)

# Used as a header only, so that the installed library does not need the xxHash library.
find_path(KYR_XXHASH_INCLUDE_DIR xxhash.h REQUIRED)
mark_as_advanced(KYR_XXHASH_INCLUDE_DIR)
add_library(kyr_xxhash INTERFACE)
target_include_directories(kyr_xxhash SYSTEM INTERFACE "${KYR_XXHASH_INCLUDE_DIR}")
target_compile_definitions(kyr_xxhash INTERFACE XXH_INLINE_ALL)

if(KYR_BUILD_TOOLS)
  find_package(CLI11 CONFIG REQUIRED)
endif()
if(KYR_BUILD_TESTS)
  find_package(GTest CONFIG REQUIRED)
endif()
if(KYR_BUILD_BENCHMARKS)
  find_package(benchmark CONFIG REQUIRED)
endif()

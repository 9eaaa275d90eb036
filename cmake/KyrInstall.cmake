# The installed tree finds everything relative to itself, so it may be moved.
include(CMakePackageConfigHelpers)

set(KYR_CMAKE_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/kyr")
set(KYR_ARROW_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/kyr/arrow-15.0.1")

install(TARGETS kyr_parquet_serialization EXPORT kyr-targets)
install(DIRECTORY include/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" FILES_MATCHING PATTERN "*.h")
install(EXPORT kyr-targets NAMESPACE kyr:: DESTINATION "${KYR_CMAKE_INSTALL_DIR}")

configure_package_config_file(cmake/kyr-config.cmake.in kyr-config.cmake
  INSTALL_DESTINATION "${KYR_CMAKE_INSTALL_DIR}"
  PATH_VARS KYR_ARROW_INSTALL_DIR)
# Before 1.0, a new minor version may break the interface.
write_basic_package_version_file(kyr-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/kyr-config.cmake"
  "${PROJECT_BINARY_DIR}/kyr-config-version.cmake"
  DESTINATION "${KYR_CMAKE_INSTALL_DIR}")

file(RELATIVE_PATH bin_to_lib
  "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(tool_rpath "$ORIGIN/${bin_to_lib}")

if(KYR_ARROW_BUNDLED)
  install(FILES cmake/KyrArrowTargets.cmake DESTINATION "${KYR_CMAKE_INSTALL_DIR}")
  install(DIRECTORY "${KYR_ARROW_ROOT}/lib" "${KYR_ARROW_ROOT}/include"
          DESTINATION "${KYR_ARROW_INSTALL_DIR}")
  set_target_properties(kyr_parquet_serialization PROPERTIES
    INSTALL_RPATH "$ORIGIN/kyr/arrow-15.0.1/lib")
  list(APPEND tool_rpath "$ORIGIN/${bin_to_lib}/kyr/arrow-15.0.1/lib")
endif()

if(TARGET kyr)
  install(TARGETS kyr)
  set_target_properties(kyr PROPERTIES INSTALL_RPATH "${tool_rpath}")
endif()

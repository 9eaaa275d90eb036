# For the Python package: Arrow::arrow_shared and Parquet::parquet_shared become copies that live
# beside any other Arrow in a process. python/private_arrow.py says how.

set(KYR_PRIVATE_ARROW_DIR "${PROJECT_BINARY_DIR}/private-arrow")
get_target_property(kyr_arrow_library Arrow::arrow_shared IMPORTED_LOCATION)
get_target_property(kyr_parquet_library Parquet::parquet_shared IMPORTED_LOCATION)
execute_process(
  COMMAND "${Python_EXECUTABLE}" "${PROJECT_SOURCE_DIR}/python/private_arrow.py"
    "${kyr_arrow_library}" "${kyr_parquet_library}" "${KYR_PRIVATE_ARROW_DIR}"
  COMMAND_ERROR_IS_FATAL ANY)
foreach(namespace Arrow Parquet)
  string(TOLOWER "${namespace}" name)
  set_target_properties(${namespace}::${name}_shared PROPERTIES
    IMPORTED_LOCATION "${KYR_PRIVATE_ARROW_DIR}/libkyr_${name}.so.1500"
    IMPORTED_SONAME "libkyr_${name}.so.1500")
endforeach()

# What a wheel holds beside the Python files: the extension module, the tool, and the libraries of
# both.

install(TARGETS kyr_python DESTINATION kyr COMPONENT python)
install(DIRECTORY "${KYR_PRIVATE_ARROW_DIR}/" DESTINATION kyr/lib COMPONENT python
        USE_SOURCE_PERMISSIONS)
foreach(name LICENSE NOTICE)
  install(FILES "${KYR_ARROW_ROOT}/${name}.txt" DESTINATION kyr/lib RENAME "Arrow-${name}.txt"
          COMPONENT python)
endforeach()

# A wheel has no symbolic links, so the library has one name only.
set_property(TARGET kyr_parquet_serialization PROPERTY VERSION)
set_property(TARGET kyr_parquet_serialization PROPERTY SOVERSION)
set_target_properties(kyr_parquet_serialization PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(kyr PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")
install(TARGETS kyr_parquet_serialization LIBRARY DESTINATION kyr/lib COMPONENT python)
install(TARGETS kyr RUNTIME DESTINATION kyr/bin COMPONENT python)

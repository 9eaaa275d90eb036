# Defines Arrow::arrow_shared and Parquet::parquet_shared for the Arrow 15.0.1 files below `root`,
# unless the project has them already. Used by the build and by the installed package.
function(kyr_add_arrow_targets root)
  if(NOT TARGET Arrow::arrow_shared)
    add_library(Arrow::arrow_shared SHARED IMPORTED GLOBAL)
    set_target_properties(Arrow::arrow_shared PROPERTIES
      IMPORTED_LOCATION "${root}/lib/libarrow.so.1500"
      IMPORTED_SONAME libarrow.so.1500
      INTERFACE_INCLUDE_DIRECTORIES "${root}/include")
  endif()
  if(NOT TARGET Parquet::parquet_shared)
    add_library(Parquet::parquet_shared SHARED IMPORTED GLOBAL)
    set_target_properties(Parquet::parquet_shared PROPERTIES
      IMPORTED_LOCATION "${root}/lib/libparquet.so.1500"
      IMPORTED_SONAME libparquet.so.1500
      INTERFACE_INCLUDE_DIRECTORIES "${root}/include"
      INTERFACE_LINK_LIBRARIES Arrow::arrow_shared)
  endif()
endfunction()

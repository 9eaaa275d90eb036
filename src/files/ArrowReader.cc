#include "files/ArrowReader.h"

namespace kyr::parquet {

::arrow::Result<std::unique_ptr<::parquet::arrow::FileReader>> openArrowReader(
    const std::shared_ptr<::arrow::io::RandomAccessFile>& file,
    const ::parquet::ReaderProperties& properties,
    const std::shared_ptr<::parquet::FileMetaData>& metadata) {
  ::parquet::ArrowReaderProperties local;
  local.set_pre_buffer(false);
  ::parquet::arrow::FileReaderBuilder builder;
  ARROW_RETURN_NOT_OK(builder.Open(file, properties, metadata));
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  ARROW_RETURN_NOT_OK(
      builder.memory_pool(::arrow::default_memory_pool())->properties(local)->Build(&reader));
  return reader;
}

}  // namespace kyr::parquet

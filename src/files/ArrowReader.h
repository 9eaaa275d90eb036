#pragma once

#include <arrow/io/type_fwd.h>
#include <arrow/result.h>
#include <parquet/arrow/reader.h>
#include <parquet/properties.h>

#include <memory>

namespace kyr::parquet {

/// Opens Arrow's reader of a Parquet file as our files are best read: they are local, and reading
/// ahead pays off for remote ones only.
/// \param metadata  of the row groups that are read; read from the end of the file if null
::arrow::Result<std::unique_ptr<::parquet::arrow::FileReader>> openArrowReader(
    const std::shared_ptr<::arrow::io::RandomAccessFile>& file,
    const ::parquet::ReaderProperties& properties = ::parquet::default_reader_properties(),
    const std::shared_ptr<::parquet::FileMetaData>& metadata = nullptr);

}  // namespace kyr::parquet

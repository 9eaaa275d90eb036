#include "files/TableWriter.h"

#include <arrow/api.h>
#include <parquet/exception.h>
#include <parquet/file_writer.h>

#include <algorithm>

namespace kyr::parquet {

::arrow::Result<std::unique_ptr<TableWriter>> TableWriter::open(
    std::shared_ptr<const FileFormat> format, std::shared_ptr<::arrow::io::OutputStream> stream) {
  std::unique_ptr<TableWriter> writer(new TableWriter(std::move(format)));
  const FileFormat& like = *writer->format_;
  ARROW_ASSIGN_OR_RAISE(const std::int64_t position, stream->Tell());
  if (!like.numberColumns() || position != 0) {
    ARROW_ASSIGN_OR_RAISE(writer->arrow_,
                          ::parquet::arrow::FileWriter::Open(
                              *like.schema(), ::arrow::default_memory_pool(), std::move(stream),
                              like.properties(), ::parquet::default_arrow_writer_properties()));
    return writer;
  }
  writer->sink_ = std::make_shared<FileSink>(std::move(stream));
  const PageSize pages{like.properties()->write_batch_size(), like.properties()->data_pagesize()};
  BEGIN_PARQUET_CATCH_EXCEPTIONS
  writer->numbers_ = std::make_unique<NumberFile>(writer->sink_, *like.numberColumns(),
                                                  like.properties(), NumberFile::Options{pages});
  END_PARQUET_CATCH_EXCEPTIONS
  return writer;
}

::arrow::Status TableWriter::write(const ::arrow::Table& table, std::int64_t groupRows) {
  ARROW_RETURN_NOT_OK(format_->check());
  if (arrow_) return arrow_->WriteTable(table, groupRows);
  if (!takesMore_) return ::arrow::Status::Invalid("Operation on closed file");
  ARROW_RETURN_NOT_OK(table.Validate());
  groupRows = std::min(groupRows, format_->properties()->max_row_group_length());
  if (groupRows <= 0 && table.num_rows() > 0) {
    return ::arrow::Status::Invalid("chunk size per row_group must be greater than 0");
  }
  if (!table.schema()->Equals(schema(), /*check_metadata=*/false)) {
    return ::arrow::Status::Invalid("table schema does not match this writer's");
  }
  ::arrow::Status status = writeNumbers(table, groupRows);
  takesMore_ = status.ok();
  return status;
}

::arrow::Status TableWriter::writeNumbers(const ::arrow::Table& table, std::int64_t groupRows) {
  const ::parquet::SchemaDescriptor& columns = *format_->numberColumns();
  for (int i = 0; i < columns.num_columns(); ++i) {
    if (columns.Column(i)->max_definition_level() == 0 && table.column(i)->null_count() > 0) {
      return ::arrow::Status::Invalid("Column '", columns.Column(i)->name(),
                                      "' declared non-nullable contains nulls");
    }
  }
  BEGIN_PARQUET_CATCH_EXCEPTIONS
  std::int64_t at = 0;
  do {
    numbers_->writeRowGroup(table.num_rows() <= groupRows ? table.columns()
                                                          : table.Slice(at, groupRows)->columns());
    at += groupRows;
  } while (at < table.num_rows());
  return ::arrow::Status::OK();
  END_PARQUET_CATCH_EXCEPTIONS
}

::arrow::Status TableWriter::flush() { return sink_ ? sink_->Flush() : ::arrow::Status::OK(); }

::arrow::Status TableWriter::close() {
  if (arrow_) return arrow_->Close();
  if (!takesMore_) return ::arrow::Status::OK();
  takesMore_ = false;
  BEGIN_PARQUET_CATCH_EXCEPTIONS
  numbers_->finish();
  return flush();
  END_PARQUET_CATCH_EXCEPTIONS
}

std::unique_ptr<::parquet::arrow::FileWriter> arrowWriter(
    const std::shared_ptr<::arrow::io::OutputStream>& sink,
    const std::shared_ptr<::arrow::Schema>& schema, const ::parquet::SchemaDescriptor& columns,
    const std::shared_ptr<::parquet::WriterProperties>& properties,
    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  const auto root = std::static_pointer_cast<::parquet::schema::GroupNode>(columns.schema_root());
  std::unique_ptr<::parquet::arrow::FileWriter> writer;
  PARQUET_THROW_NOT_OK(::parquet::arrow::FileWriter::Make(
      ::arrow::default_memory_pool(),
      ::parquet::ParquetFileWriter::Open(sink, root, properties, keyValues), schema,
      ::parquet::default_arrow_writer_properties(), &writer));
  return writer;
}

}  // namespace kyr::parquet

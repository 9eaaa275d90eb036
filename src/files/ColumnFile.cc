#include "files/ColumnFile.h"

#include <arrow/api.h>
#include <arrow/io/interfaces.h>
#include <parquet/column_writer.h>
#include <parquet/exception.h>
#include <parquet/file_writer.h>

#include <utility>

#include "files/ColumnChunk.h"
#include "files/ParquetTail.h"

namespace kyr::parquet {

ColumnFile::ColumnFile(std::shared_ptr<::arrow::io::OutputStream> sink,
                       const ::parquet::SchemaDescriptor& columns,
                       const std::shared_ptr<::parquet::WriterProperties>& properties)
    : sink_(std::move(sink)),
      metadata_(::parquet::FileMetaDataBuilder::Make(&columns, properties)) {
  PARQUET_THROW_NOT_OK(sink_->Write(kParquetMagic.data(), kParquetMagic.size()));
}

void ColumnFile::writeRowGroup(const std::vector<std::shared_ptr<::arrow::Array>>& values,
                               const std::vector<ColumnEncoding>& encodings) {
  auto* group = metadata_->AppendRowGroup();
  group->set_num_rows(values.front()->length());
  std::int64_t bytes = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto pages =
        ::parquet::PageWriter::Open(sink_, encodings[i].codec, group->NextColumnChunk(), rowGroups_,
                                    static_cast<std::int16_t>(i));
    bytes += writeColumnChunk(*pages, *values[i], encodings[i]);
  }
  group->Finish(bytes, rowGroups_);
  ++rowGroups_;
}

void ColumnFile::finish(const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues) {
  ::parquet::WriteFileMetaData(*metadata_->Finish(keyValues), sink_.get());
}

}  // namespace kyr::parquet

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <parquet/arrow/reader.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>

#include <algorithm>
#include <numeric>

#include "ParquetColumns.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SerializationOptions.h"

namespace kyr::compare {

namespace {

using Properties = std::shared_ptr<::parquet::WriterProperties>;
using Encoding = ParquetOptions::Encoding;

std::shared_ptr<::arrow::DataType> elementType(const ColumnType& type) {
  return type.isInt16 ? ::arrow::int16() : ::arrow::float64();
}

std::shared_ptr<::arrow::Schema> schemaOf(const ParquetOptions& options, const ColumnType& type) {
  if (options.kyrTables) {
    return parquet::schemaBuilder::getSchema(type.elements > 1 ? FixedDim : Scalar,
                                             type.isInt16 ? Int16 : Double, /*includeTime=*/false,
                                             parquet::columnNames::data);
  }
  auto dataType = elementType(type);
  if (type.elements > 1) {
    dataType = ::arrow::list(::arrow::field("item", std::move(dataType), /*nullable=*/false));
  }
  return ::arrow::schema({::arrow::field("data", std::move(dataType), /*nullable=*/false)});
}

Properties propertiesOf(const ParquetOptions& options, const ColumnType& type) {
  if (options.kyrTables) {
    parquet::serialization_options::bDictionary = false;
    return parquet::ParquetWriterOptions().buildWriterProperties(
        ::arrow::Compression::UNCOMPRESSED);
  }
  ::parquet::WriterProperties::Builder builder;
  builder.version(::parquet::ParquetVersion::PARQUET_2_6)
      ->data_page_version(::parquet::ParquetDataPageVersion::V2)
      ->disable_statistics()
      ->disable_dictionary()
      ->compression(options.zstd ? ::arrow::Compression::ZSTD : ::arrow::Compression::UNCOMPRESSED);
  if (options.encoding == Encoding::dictionary) builder.enable_dictionary();
  if (options.encoding == Encoding::byteStreamSplit && !type.isInt16) {
    builder.encoding(::parquet::Encoding::BYTE_STREAM_SPLIT);
  }
  if (options.encoding == Encoding::delta && type.isInt16) {
    builder.encoding(::parquet::Encoding::DELTA_BINARY_PACKED);
  }
  return builder.build();
}

std::shared_ptr<::arrow::Buffer> bufferOver(const void* data, std::size_t size) {
  return std::make_shared<::arrow::Buffer>(static_cast<const std::uint8_t*>(data),
                                           static_cast<std::int64_t>(size));
}

class TableWriter : public ColumnWriter {
 public:
  TableWriter(const ParquetOptions& options, const ColumnType& type, const fs::path& file)
      : type_(type), schema_(schemaOf(options, type)) {
    PARQUET_ASSIGN_OR_THROW(stream_, ::arrow::io::FileOutputStream::Open(file.string()));
    PARQUET_ASSIGN_OR_THROW(
        writer_, ::parquet::arrow::FileWriter::Open(*schema_, ::arrow::default_memory_pool(),
                                                    stream_, propertiesOf(options, type),
                                                    ::parquet::default_arrow_writer_properties()));
  }

  void write(const char* rows, std::size_t count) override {
    const std::size_t elements = count * type_.elements;
    const auto values = ::arrow::MakeArray(::arrow::ArrayData::Make(
        elementType(type_), static_cast<std::int64_t>(elements),
        {nullptr, bufferOver(rows, elements * type_.elementSize())}, /*null_count=*/0));
    const auto column = type_.elements > 1 ? listsOver(values, count) : values;
    const auto table = ::arrow::Table::Make(schema_, {column});
    PARQUET_THROW_NOT_OK(writer_->WriteTable(*table, table->num_rows()));
  }

  void close() override {
    PARQUET_THROW_NOT_OK(writer_->Close());
    PARQUET_THROW_NOT_OK(stream_->Close());
  }

 private:
  std::shared_ptr<::arrow::Array> listsOver(const std::shared_ptr<::arrow::Array>& values,
                                            std::size_t count) {
    offsets_.resize(count + 1);
    for (std::size_t i = 0; i <= count; ++i) {
      offsets_[i] = static_cast<std::int32_t>(i * type_.elements);
    }
    return std::make_shared<::arrow::ListArray>(
        schema_->field(0)->type(), static_cast<std::int64_t>(count),
        bufferOver(offsets_.data(), offsets_.size() * sizeof(std::int32_t)), values);
  }

  ColumnType type_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::vector<std::int32_t> offsets_;
  std::shared_ptr<::arrow::io::FileOutputStream> stream_;
  std::unique_ptr<::parquet::arrow::FileWriter> writer_;
};

class TableReader : public ColumnReader {
 public:
  TableReader(const ColumnType& type, const fs::path& file) : type_(type) {
    PARQUET_ASSIGN_OR_THROW(const auto stream, ::arrow::io::ReadableFile::Open(file.string()));
    ::parquet::arrow::FileReaderBuilder builder;
    PARQUET_THROW_NOT_OK(builder.Open(stream));
    ::parquet::ArrowReaderProperties properties;
    properties.set_pre_buffer(false);
    PARQUET_THROW_NOT_OK(builder.properties(properties)->Build(&reader_));
  }

  void readAll(Bytes& values) override {
    std::shared_ptr<::arrow::Table> table;
    PARQUET_THROW_NOT_OK(reader_->ReadTable(&table));
    copyRows(*table, values);
  }

  void readRows(std::size_t from, std::size_t count, Bytes& values) override {
    const auto first = static_cast<std::int64_t>(from);
    const auto end = static_cast<std::int64_t>(from + count);
    const auto metadata = reader_->parquet_reader()->metadata();
    std::vector<int> groups;
    std::int64_t begin = 0;
    std::int64_t firstRead = 0;
    for (int group = 0; group < metadata->num_row_groups() && begin < end; ++group) {
      const std::int64_t groupEnd = begin + metadata->RowGroup(group)->num_rows();
      if (groupEnd > first) {
        if (groups.empty()) firstRead = begin;
        groups.push_back(group);
      }
      begin = groupEnd;
    }
    std::shared_ptr<::arrow::Table> table;
    PARQUET_THROW_NOT_OK(reader_->ReadRowGroups(groups, &table));
    copyRows(*table->Slice(first - firstRead, end - first), values);
  }

 private:
  void copyRows(const ::arrow::Table& table, Bytes& values) const {
    char* out = values.allocate(static_cast<std::size_t>(table.num_rows()) * type_.rowSize());
    for (auto chunk : table.column(0)->chunks()) {
      const auto size = static_cast<std::size_t>(chunk->length()) * type_.rowSize();
      auto first = chunk->offset();
      if (type_.elements > 1) {
        const auto& lists = static_cast<const ::arrow::ListArray&>(*chunk);
        first = lists.values()->offset() + lists.value_offset(0);
        chunk = lists.values();
      }
      std::memcpy(
          out,
          chunk->data()->buffers[1]->data() + static_cast<std::size_t>(first) * type_.elementSize(),
          size);
      out += size;
    }
  }

  ColumnType type_;
  std::unique_ptr<::parquet::arrow::FileReader> reader_;
};

}  // namespace

std::unique_ptr<ColumnWriter> makeTableWriter(const ParquetOptions& options, const ColumnType& type,
                                              const fs::path& file) {
  return std::make_unique<TableWriter>(options, type, file);
}

std::unique_ptr<ColumnReader> makeTableReader(const ColumnType& type, const fs::path& file) {
  return std::make_unique<TableReader>(type, file);
}

}  // namespace kyr::compare

#include <arrow/io/file.h>
#include <parquet/api/reader.h>
#include <parquet/api/writer.h>
#include <parquet/exception.h>

#include <algorithm>
#include <cstdint>

#include "ParquetColumns.h"

namespace kyr::compare {

namespace {

// Parquet has no narrower integers than those of 32 bits.
std::shared_ptr<::parquet::schema::GroupNode> schemaOf(const ColumnType& type) {
  using ::parquet::Repetition;
  using ::parquet::schema::GroupNode;
  using ::parquet::schema::PrimitiveNode;
  const auto column =
      type.isInt16 ? PrimitiveNode::Make("data", Repetition::REQUIRED,
                                         ::parquet::LogicalType::Int(16, /*is_signed=*/true),
                                         ::parquet::Type::INT32)
                   : PrimitiveNode::Make("data", Repetition::REQUIRED, ::parquet::Type::DOUBLE);
  return std::static_pointer_cast<GroupNode>(
      GroupNode::Make("schema", Repetition::REQUIRED, {column}));
}

class LowLevelWriter : public ColumnWriter {
 public:
  LowLevelWriter(const ColumnType& type, const fs::path& file) : type_(type) {
    ::parquet::WriterProperties::Builder builder;
    builder.version(::parquet::ParquetVersion::PARQUET_2_6)
        ->data_page_version(::parquet::ParquetDataPageVersion::V2)
        ->disable_statistics()
        ->disable_dictionary();
    PARQUET_ASSIGN_OR_THROW(stream_, ::arrow::io::FileOutputStream::Open(file.string()));
    writer_ = ::parquet::ParquetFileWriter::Open(stream_, schemaOf(type), builder.build());
  }

  void write(const char* rows, std::size_t count) override {
    const std::size_t elements = count * type_.elements;
    ::parquet::RowGroupWriter* group = writer_->AppendRowGroup();
    ::parquet::ColumnWriter* column = group->NextColumn();
    if (type_.isInt16) {
      std::vector<std::int32_t> wide(elements);
      std::copy_n(reinterpret_cast<const std::int16_t*>(rows), elements, wide.data());
      static_cast<::parquet::Int32Writer*>(column)->WriteBatch(static_cast<std::int64_t>(elements),
                                                               nullptr, nullptr, wide.data());
    } else {
      static_cast<::parquet::DoubleWriter*>(column)->WriteBatch(
          static_cast<std::int64_t>(elements), nullptr, nullptr,
          reinterpret_cast<const double*>(rows));
    }
    group->Close();
  }

  void close() override {
    writer_->Close();
    PARQUET_THROW_NOT_OK(stream_->Close());
  }

 private:
  ColumnType type_;
  std::shared_ptr<::arrow::io::FileOutputStream> stream_;
  std::unique_ptr<::parquet::ParquetFileWriter> writer_;
};

template <typename Reader, typename T>
void readInto(::parquet::ColumnReader& column, T* out, std::int64_t count) {
  auto& reader = static_cast<Reader&>(column);
  while (count > 0) {
    std::int64_t done = 0;
    reader.ReadBatch(count, nullptr, nullptr, out, &done);
    if (done == 0) throw std::runtime_error("a column ends too early");
    out += done;
    count -= done;
  }
}

class LowLevelReader : public ColumnReader {
 public:
  LowLevelReader(const ColumnType& type, const fs::path& file)
      : type_(type), reader_(::parquet::ParquetFileReader::OpenFile(file.string(), false)) {}

  void readAll(Bytes& values) override { readElements(0, reader_->metadata()->num_rows(), values); }

  void readRows(std::size_t from, std::size_t count, Bytes& values) override {
    const std::size_t elements = type_.elements;
    readElements(static_cast<std::int64_t>(from * elements),
                 static_cast<std::int64_t>((from + count) * elements), values);
  }

 private:
  void readElements(std::int64_t from, std::int64_t to, Bytes& values) {
    char* out = values.allocate(static_cast<std::size_t>(to - from) * type_.elementSize());
    const auto metadata = reader_->metadata();
    std::int64_t begin = 0;
    for (int i = 0; i < metadata->num_row_groups() && begin < to; ++i) {
      const std::int64_t end = begin + metadata->RowGroup(i)->num_rows();
      if (end > from) {
        const std::int64_t first = std::max(from, begin);
        const std::int64_t count = std::min(to, end) - first;
        readGroup(i, first - begin, count, out);
        out += static_cast<std::size_t>(count) * type_.elementSize();
      }
      begin = end;
    }
  }

  void readGroup(int index, std::int64_t skip, std::int64_t count, char* out) {
    const auto column = reader_->RowGroup(index)->Column(0);
    if (!type_.isInt16) {
      auto& reader = static_cast<::parquet::DoubleReader&>(*column);
      if (skip > 0) reader.Skip(skip);
      readInto<::parquet::DoubleReader>(reader, reinterpret_cast<double*>(out), count);
      return;
    }
    auto& reader = static_cast<::parquet::Int32Reader&>(*column);
    if (skip > 0) reader.Skip(skip);
    std::vector<std::int32_t> wide(static_cast<std::size_t>(count));
    readInto<::parquet::Int32Reader>(reader, wide.data(), count);
    auto* narrow = reinterpret_cast<std::int16_t*>(out);
    for (const std::int32_t value : wide) *narrow++ = static_cast<std::int16_t>(value);
  }

  ColumnType type_;
  std::unique_ptr<::parquet::ParquetFileReader> reader_;
};

}  // namespace

std::unique_ptr<ColumnWriter> makeLowLevelWriter(const ColumnType& type, const fs::path& file) {
  return std::make_unique<LowLevelWriter>(type, file);
}

std::unique_ptr<ColumnReader> makeLowLevelReader(const ColumnType& type, const fs::path& file) {
  return std::make_unique<LowLevelReader>(type, file);
}

}  // namespace kyr::compare

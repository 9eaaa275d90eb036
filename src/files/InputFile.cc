#include "files/InputFile.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>
#include <parquet/arrow/schema.h>
#include <parquet/exception.h>
#include <parquet/statistics.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "files/ArrowReader.h"
#include "files/ArrowSource.h"
#include "files/CheckedFile.h"
#include "files/ColumnDecoder.h"
#include "files/KeptFile.h"
#include "files/ParquetTail.h"
#include "files/PhysicalTypes.h"
#include "files/PlainColumn.h"
#include "kyr/parquet/ColumnNames.h"
#include "platform/DiskFile.h"
#include "schema/ArrayMemory.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

// \param file  becomes a file in memory if it is small
std::shared_ptr<GrowingRecords> completeFile(std::shared_ptr<const ByteSource>& file) {
  std::optional<std::string> whole;
  const auto metadata = readSerializedMetadata(*file, whole);
  if (!metadata) {
    throw std::runtime_error(file->path().string() + ": is no complete Parquet file");
  }
  if (whole) file = std::make_shared<const KeptFile>(file, *std::move(whole));
  try {
    auto records = std::make_shared<GrowingRecords>(GrowingRecords{BatchIndex(*metadata)});
    records->isPublished = true;
    return records;
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(fmt::format("{}: cannot be read as a Parquet file: {}",
                                         file->path().string(), error.what()));
  }
}

// The range of a row group of one float64 column, if it is marked as ascending.
std::optional<NumberRange> ascendingRange(const ::parquet::RowGroupMetaData& group) {
  const auto sorting = group.sorting_columns();
  if (sorting.empty() || sorting[0].column_idx != 0 || sorting[0].descending) return std::nullopt;
  const auto chunk = group.ColumnChunk(0);
  if (chunk->type() != ::parquet::Type::DOUBLE || !chunk->is_stats_set()) return std::nullopt;
  const auto statistics =
      std::dynamic_pointer_cast<::parquet::DoubleStatistics>(chunk->statistics());
  if (!statistics || !statistics->HasMinMax()) return std::nullopt;
  const NumberRange range{statistics->min(), statistics->max()};
  if (!(range.min <= range.max)) return std::nullopt;
  return range;
}

// Whether a column chunk is too long to be read at once: one page after the other is, then.
bool hasLongChunks(const ::parquet::FileMetaData& metadata) {
  constexpr std::int64_t kLong = std::int64_t{1} << 20;
  for (int i = 0; i < metadata.num_row_groups(); ++i) {
    const auto group = metadata.RowGroup(i);
    for (int column = 0; column < group->num_columns(); ++column) {
      if (group->ColumnChunk(column)->total_compressed_size() > kLong) return true;
    }
  }
  return false;
}

// The columns as Arrow has them. Those of numbers are told quickly: Arrow takes as long as opening
// a small file.
std::shared_ptr<::arrow::Schema> schemaOf(const ::parquet::FileMetaData& metadata) {
  const ::parquet::SchemaDescriptor& columns = *metadata.schema();
  const auto& keyValues = metadata.key_value_metadata();
  const bool isPlain = columns.num_columns() == columns.group_node()->field_count() &&
                       !(keyValues && keyValues->Contains("ARROW:schema"));
  ::arrow::FieldVector fields;
  for (int i = 0; isPlain && i < columns.num_columns(); ++i) {
    const ::parquet::ColumnDescriptor& column = *columns.Column(i);
    auto type = numberTypeOf(column);
    if (!type || column.path()->ToDotVector().size() != 1) break;
    fields.push_back(
        ::arrow::field(column.name(), std::move(type), column.max_definition_level() > 0));
  }
  if (isPlain && static_cast<int>(fields.size()) == columns.num_columns()) {
    return ::arrow::schema(std::move(fields), keyValues);
  }
  std::shared_ptr<::arrow::Schema> schema;
  PARQUET_THROW_NOT_OK(::parquet::arrow::FromParquetSchema(
      &columns, ::parquet::ArrowReaderProperties(), keyValues, &schema));
  return schema;
}

}  // namespace

struct InputFile::Window {
  explicit Window(const std::shared_ptr<const ByteSource>& file)
      : source(std::make_shared<ArrowSource>(file)) {}

  ::parquet::ReaderProperties properties() const {
    ::parquet::ReaderProperties properties;
    if (hasLongChunks(*metadata)) {
      constexpr std::int64_t kBufferBytes = std::int64_t{1} << 18;
      properties.enable_buffered_stream();
      properties.set_buffer_size(kBufferBytes);
    }
    return properties;
  }
  ColumnDecoder& decoder() {
    if (!decoder_) {
      decoder_ = std::make_unique<ColumnDecoder>(
          ::parquet::ParquetFileReader::Open(source, properties(), metadata));
    }
    return *decoder_;
  }
  ::parquet::arrow::FileReader& tables() {
    if (!tables_) {
      PARQUET_ASSIGN_OR_THROW(tables_, openArrowReader(source, properties(), metadata));
    }
    return *tables_;
  }
  bool contains(std::size_t from, std::size_t groups) const {
    return from >= first && from + groups <= first + count;
  }

  std::shared_ptr<ArrowSource> source;
  std::size_t first = 0;
  std::size_t count = 0;
  std::shared_ptr<::parquet::FileMetaData> metadata;  // of these row groups only
  std::unique_ptr<PlainColumn> plain;                 // if the first column is one of numbers
  std::unique_ptr<PlainLists> lists;                  // or of lists of them

 private:
  std::unique_ptr<ColumnDecoder> decoder_;
  std::unique_ptr<::parquet::arrow::FileReader> tables_;
};

InputFile::InputFile(std::shared_ptr<const ByteSource> file)
    : file_(std::move(file)), records_(completeFile(file_)) {}

InputFile::InputFile(std::shared_ptr<const ByteSource> file,
                     std::shared_ptr<GrowingRecords> records, BatchChecks checks)
    : file_(std::move(file)), records_(std::move(records)) {
  if (checks == BatchChecks::yes) checked_.emplace(rowGroups(), false);
}

InputFile::~InputFile() = default;

void InputFile::fail(const std::string& what) const {
  throw std::runtime_error(fmt::format("{}: {}", path().string(), what));
}

template <typename Work>
auto InputFile::naming(Work&& work) const {
  try {
    return work();
  } catch (const ::parquet::ParquetException& error) {
    if (window_) window_->source->rethrow();
    fail(error.what());
  }
}

InputFile::Window& InputFile::openGroups(std::size_t first, std::size_t count) const {
  auto window = std::make_unique<Window>(file_);
  window->first = first;
  window->count = count;
  window->metadata = parseMetadata(records_->index.metadata(first, count));
  window->plain = PlainColumn::make(*window->metadata, file_->size());
  if (!window->plain) window->lists = PlainLists::make(*window->metadata, file_->size());
  window_ = std::move(window);
  return *window_;
}

InputFile::Window& InputFile::openRows(std::uint64_t first, std::uint64_t count) const {
  constexpr std::size_t kAhead = 16;
  if (count == 0) return openAny();
  const std::size_t group = groupOfRow(first);
  const std::size_t needed = groupOfRow(first + count - 1) + 1 - group;
  if (window_ && window_->contains(group, needed)) return *window_;
  // Whoever reads batch after batch needs the next ones soon.
  const bool goesOn = window_ && window_->count > 0 && window_->contains(group, 0);
  return openGroups(group,
                    std::min(goesOn ? std::max(needed, kAhead) : needed, rowGroups() - group));
}

// Where any row group or none will do: all of a small file, which probably will be read.
InputFile::Window& InputFile::openAny() const {
  constexpr std::size_t kFew = 4;
  return window_ ? *window_ : openGroups(0, rowGroups() <= kFew ? rowGroups() : 0);
}

const std::shared_ptr<::arrow::Schema>& InputFile::schema() const {
  if (!schema_) {
    ::arrow::FieldVector fields;
    for (const auto& field : storedSchema().fields()) {
      fields.push_back(::arrow::field(field->name(), field->type()));
    }
    schema_ = ::arrow::schema(std::move(fields));
  }
  return schema_;
}

const ::arrow::Schema& InputFile::storedSchema() const {
  if (!stored_) readSchema();
  return *stored_;
}

void InputFile::readSchema() const {
  std::shared_ptr<::arrow::Schema> found;
  std::vector<Leaves> leaves;
  naming([&] {
    const ::parquet::FileMetaData& metadata = *openAny().metadata;
    const ::parquet::SchemaDescriptor& columns = *metadata.schema();
    found = schemaOf(metadata);
    leaves.resize(static_cast<std::size_t>(found->num_fields()));
    for (int leaf = columns.num_columns() - 1; leaf >= 0; --leaf) {
      const int field = columns.group_node()->FieldIndex(*columns.GetColumnRoot(leaf));
      if (static_cast<std::size_t>(field) >= leaves.size()) fail("its columns make no sense");
      leaves[static_cast<std::size_t>(field)].first = leaf;
      ++leaves[static_cast<std::size_t>(field)].count;
    }
  });
  for (int i = 0; i < found->num_fields(); ++i) {
    const ::arrow::DataType& type = *found->field(i)->type();
    Leaves& of = leaves[static_cast<std::size_t>(i)];
    if (isNumber(type)) of.width = valueWidth(type);
    if (type.id() == ::arrow::Type::BINARY) of.itemWidth = 1;
    if (type.id() == ::arrow::Type::LIST && isNumber(*type.field(0)->type())) {
      of.itemWidth = valueWidth(*type.field(0)->type());
    }
  }
  leaves_ = std::move(leaves);
  stored_ = std::move(found);
}

bool InputFile::hasColumn(const std::string& name) const {
  return storedSchema().GetFieldIndex(name) >= 0;
}

bool InputFile::holdsOnlyNumbers(const ::arrow::DataType* type) const {
  if (storedSchema().num_fields() != 1 || leaves_[0].width == 0) return false;
  const ::arrow::Field& field = *stored_->field(0);
  return field.name() == columnNames::data && (!type || field.type()->Equals(*type));
}

bool InputFile::holdsOnlyLists(const ::arrow::DataType& itemType) const {
  if (storedSchema().num_fields() != 1 || leaves_[0].itemWidth == 0) return false;
  const ::arrow::Field& field = *stored_->field(0);
  return field.name() == columnNames::data && field.type()->id() == ::arrow::Type::LIST &&
         field.type()->field(0)->type()->Equals(itemType);
}

const InputFile::Leaves& InputFile::leavesOf(const std::string& column) const {
  const int field = storedSchema().GetFieldIndex(column);
  if (field < 0) fail(fmt::format("has no column \"{}\"", column));
  return leaves_[static_cast<std::size_t>(field)];
}

::arrow::Compression::type InputFile::codec(const std::string& column) const {
  if (rowGroups() == 0 || !hasColumn(column)) return ::arrow::Compression::UNCOMPRESSED;
  return naming([&] {
    const auto metadata = parseMetadata(records_->index.metadata(0, 1));
    return metadata->RowGroup(0)->ColumnChunk(leavesOf(column).first)->compression();
  });
}

std::shared_ptr<::parquet::FileMetaData> InputFile::metadata() {
  return naming([&] {
    const bool isOpen = window_ && window_->contains(0, rowGroups());
    return (isOpen ? *window_ : openGroups(0, rowGroups())).metadata;
  });
}

std::shared_ptr<const ::arrow::KeyValueMetadata> InputFile::keyValueMetadata() const {
  return naming([&] { return openAny().metadata->key_value_metadata(); });
}

std::vector<std::optional<NumberRange>> InputFile::ascendingGroups(std::size_t first) const {
  std::vector<std::optional<NumberRange>> ranges(rowGroups() - first);
  naming([&] {
    const auto metadata = parseMetadata(records_->index.metadata(first, ranges.size()));
    if (metadata->num_columns() != 1) return;
    int group = 0;
    for (auto& range : ranges) range = ascendingRange(*metadata->RowGroup(group++));
  });
  return ranges;
}

void InputFile::requireRows(std::uint64_t first, std::uint64_t count) const {
  if (first <= rows() && count <= rows() - first) return;
  throw std::out_of_range(fmt::format("{}: rows {} and the {} behind are asked for, there are {}",
                                      path().string(), first, count, rows()));
}

std::shared_ptr<::arrow::Table> InputFile::read(std::uint64_t first, std::uint64_t count,
                                                const std::vector<std::string>& columns) {
  requireRows(first, count);
  if (columns.empty() && count > 0 && holdsOnlyNumbers(nullptr)) {
    return tableOfNumbers(first, count);
  }
  checkBatches(first, count);
  return naming([&] { return readTable(first, count, columns); });
}

std::shared_ptr<::arrow::Table> InputFile::tableOfNumbers(std::uint64_t first,
                                                          std::uint64_t count) {
  auto values = ::arrow::AllocateBuffer(static_cast<std::int64_t>(count * leaves_[0].width));
  if (!values.ok()) fail(values.status().ToString());
  std::shared_ptr<::arrow::Buffer> buffer = *std::move(values);
  readNumbers(columnNames::data, first, count, reinterpret_cast<char*>(buffer->mutable_data()));
  return ::arrow::Table::Make(stored_,
                              {::arrow::MakeArray(::arrow::ArrayData::Make(
                                  stored_->field(0)->type(), static_cast<std::int64_t>(count),
                                  {nullptr, std::move(buffer)}, /*null_count=*/0))});
}

std::shared_ptr<::arrow::Table> InputFile::readTable(std::uint64_t first, std::uint64_t count,
                                                     const std::vector<std::string>& columns) {
  std::vector<int> leaves;
  for (const std::string& column : columns) {
    const Leaves& of = leavesOf(column);
    for (int leaf = of.first; leaf < of.first + of.count; ++leaf) leaves.push_back(leaf);
  }
  Window& window = openRows(first, count);
  const std::size_t group = count == 0 ? 0 : groupOfRow(first);
  const std::size_t end = count == 0 ? 0 : groupOfRow(first + count - 1) + 1;
  std::vector<int> groups(end - group);
  std::iota(groups.begin(), groups.end(), static_cast<int>(group - window.first));
  std::shared_ptr<::arrow::Table> table;
  PARQUET_THROW_NOT_OK(columns.empty() ? window.tables().ReadRowGroups(groups, &table)
                                       : window.tables().ReadRowGroups(groups, leaves, &table));
  if (count == 0) return table;
  // A row group may claim more rows than its columns have values.
  const std::uint64_t rows = rowStart(end) - rowStart(group);
  for (const auto& column : table->columns()) {
    if (static_cast<std::uint64_t>(column->length()) == rows) continue;
    throw ::parquet::ParquetException("a column has ", column->length(), " values, expected ",
                                      rows);
  }
  return table->Slice(static_cast<std::int64_t>(first - rowStart(group)),
                      static_cast<std::int64_t>(count));
}

void InputFile::readNumbers(const std::string& column, std::uint64_t first, std::uint64_t count,
                            char* out) {
  const Leaves& leaves = leavesOf(column);
  if (leaves.width == 0) fail(fmt::format("its column \"{}\" does not hold numbers", column));
  requireRows(first, count);
  checkBatches(first, count);
  naming([&] {
    Window& window = openRows(first, count);
    while (count > 0) {
      const std::size_t group = groupOfRow(first);
      const std::size_t opened = group - window.first;
      const std::uint64_t from = first - rowStart(group);
      const std::uint64_t rows = std::min(count, rowStart(group + 1) - first);
      const bool isPlain = window.plain && leaves.first == 0 &&
                           window.plain->width() == leaves.width &&
                           window.plain->readGroup(*file_, opened, from, rows, out);
      if (!isPlain) {
        window.decoder().read(static_cast<int>(opened), leaves.first, leaves.width, from, rows,
                              out);
      }
      first += rows;
      count -= rows;
      out += rows * leaves.width;
    }
  });
}

void InputFile::readGroup(const std::string& column, std::size_t group, const ItemMemory& items,
                          std::vector<std::uint64_t>& ends) {
  const Leaves& leaves = leavesOf(column);
  if (leaves.itemWidth == 0) {
    fail(fmt::format("its column \"{}\" holds neither lists of numbers nor blobs", column));
  }
  const std::uint64_t rows = rowStart(group + 1) - rowStart(group);
  if (rows == 0) return;
  checkBatches(rowStart(group), rows);
  naming([&] {
    Window& window = openRows(rowStart(group), rows);
    const std::size_t opened = group - window.first;
    if (window.lists && leaves.first == 0 &&
        window.lists->readGroup(*file_, opened, leaves.itemWidth, items, ends)) {
      return;
    }
    ByteBuffer decoded;
    window.decoder().readRows(static_cast<int>(opened), leaves.first, leaves.itemWidth, decoded,
                              ends);
    if (decoded.size() == 0) return;
    std::memcpy(items(decoded.size(), /*rest=*/0), decoded.data(), decoded.size());
  });
}

RowSpan InputFile::rowsIn(std::uint64_t from, std::uint64_t to) const {
  RowSpan span{rows(), 0};
  try {
    const auto metadata = parseMetadata(records_->index.metadata());
    for (std::size_t group = 0; group < rowGroups(); ++group) {
      const ByteSpan bytes = bytesOf(*metadata->RowGroup(static_cast<int>(group)));
      if (bytes.from >= to || bytes.to <= from) continue;
      span.from = std::min(span.from, rowStart(group));
      span.to = rowStart(group + 1);
    }
  } catch (const ::parquet::ParquetException&) {
    return {0, rows()};
  }
  return span.from < span.to ? span : RowSpan{0, rows()};
}

void InputFile::readOn(const RecordLimits& limits) {
  kyr::parquet::readOn(*records_, *file_, limits);
  if (checked_) checked_->resize(rowGroups(), false);
}

std::uint64_t InputFile::soundRows() {
  if (!checked_) return rows();
  for (std::size_t batch = 0; batch < rowGroups(); ++batch) {
    try {
      checkBatch(batch);
    } catch (const std::system_error&) {
      throw;
    } catch (const std::runtime_error&) {
      return rowStart(batch);
    }
  }
  return rows();
}

void InputFile::checkBatches(std::uint64_t first, std::uint64_t count) {
  if (!checked_ || count == 0 || first >= rows()) return;
  const std::size_t last = groupOfRow(std::min(first + count, rows()) - 1);
  for (std::size_t batch = groupOfRow(first); batch <= last; ++batch) {
    if (!(*checked_)[batch]) checkBatch(batch);
  }
}

void InputFile::checkBatch(std::size_t batch) {
  ByteSpan bytes;
  bool fits = false;
  naming([&] {
    bytes = bytesOf(*parseMetadata(records_->index.metadata(batch, 1))->RowGroup(0));
    bytes.from -= std::min<std::uint64_t>(bytes.from, kBatchHeaderBytes);
    const auto record = readRecord(*file_, RecordKind::batch, bytes.from, file_->size());
    fits = record && record->header.fileId == records_->fileId &&
           record->header.index == batch + 1 &&
           record->header.rows == rowStart(batch + 1) - rowStart(batch) &&
           BatchIndex(record->metadata).groupBytes(0) == records_->index.groupBytes(batch);
  });
  if (!fits) {
    throw DamagedBytes(path(), bytes.from, bytes.to,
                       fmt::format("the checksum of batch {} does not fit them", batch));
  }
  (*checked_)[batch] = true;
}

}  // namespace kyr::parquet

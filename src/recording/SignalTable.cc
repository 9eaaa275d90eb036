#include "recording/SignalTable.h"

#include <arrow/api.h>
#include <arrow/io/memory.h>
#include <fmt/format.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>
#include <parquet/properties.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "recording/Checksum.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/RecordingFormat.h"
#include "schema/TypeNames.h"

namespace kyr::recording {

namespace {

// Columns of the table, filled row by row.
class Columns {
 public:
  template <typename Builder, typename Value>
  void add(const char* name, const std::optional<Value>& value) {
    auto& builder = next<Builder>(name);
    PARQUET_THROW_NOT_OK(value ? builder.Append(*value) : builder.AppendNull());
  }
  void add(const char* name, const std::string& text) {
    PARQUET_THROW_NOT_OK(next<::arrow::StringBuilder>(name).Append(text));
  }
  void add(const char* name, const std::vector<std::size_t>& dimensions) {
    auto& lists = next<::arrow::ListBuilder>(name);
    PARQUET_THROW_NOT_OK(lists.Append());
    auto& values = static_cast<::arrow::Int64Builder&>(*lists.value_builder());
    for (const std::size_t extent : dimensions) {
      PARQUET_THROW_NOT_OK(values.Append(static_cast<std::int64_t>(extent)));
    }
  }

  void finishRow() { at_ = 0; }

  std::shared_ptr<::arrow::Table> finish() {
    ::arrow::FieldVector fields;
    ::arrow::ArrayVector arrays;
    for (const auto& [name, builder] : builders_) {
      arrays.push_back(builder->Finish().ValueOrDie());
      fields.push_back(::arrow::field(name, arrays.back()->type()));
    }
    return ::arrow::Table::Make(::arrow::schema(std::move(fields)), arrays);
  }

 private:
  template <typename Builder>
  Builder& next(const char* name) {
    if (at_ == builders_.size()) builders_.emplace_back(name, make<Builder>());
    return static_cast<Builder&>(*builders_[at_++].second);
  }
  template <typename Builder>
  static std::unique_ptr<::arrow::ArrayBuilder> make() {
    if constexpr (std::is_same_v<Builder, ::arrow::ListBuilder>) {
      return std::make_unique<Builder>(::arrow::default_memory_pool(),
                                       std::make_shared<::arrow::Int64Builder>());
    } else {
      return std::make_unique<Builder>();
    }
  }

  std::vector<std::pair<std::string, std::unique_ptr<::arrow::ArrayBuilder>>> builders_;
  std::size_t at_ = 0;  // the column of the row that is next
};

// Where the rows of a part are.
struct Place {
  const FileInfo* content = nullptr;  // null if the part has none
  std::string path;
};

// Fills the rows of the table. Signals mostly have the times of the signal before.
class Rows {
 public:
  Rows(Columns& columns, const RecordingInfo& info) : columns_(columns), info_(info) {}

  void add(const SignalInfo& signal) {
    using Int64 = ::arrow::Int64Builder;
    using Double = ::arrow::DoubleBuilder;
    std::optional<double> from;
    std::optional<double> to;
    if (signal.timeSpan) {
      from = signal.timeSpan->from;
      to = signal.timeSpan->to;
    }
    find(signal.dataStorageId, data_);
    find(signal.timeStorageId, time_);
    const FileInfo* const data = data_.content;
    columns_.add<::arrow::Int32Builder>("id", std::optional(signal.signalId));
    columns_.add("name", signal.name);
    columns_.add("unit", signal.unit);
    columns_.add("description", signal.description);
    columns_.add("data_type", dataTypeName(signal.dataType));
    columns_.add("category", categoryName(signal.category));
    columns_.add("dimensions", signal.dimensions);
    columns_.add<Int64>("rows", std::optional(static_cast<std::int64_t>(signal.rowCount)));
    columns_.add<Double>("from", from);
    columns_.add<Double>("to", to);
    columns_.add<Double>("min", data != nullptr ? data->minimum : std::nullopt);
    columns_.add<Double>("max", data != nullptr ? data->maximum : std::nullopt);
    addPlace(data_, "digest", "file", "first_row", "storage");
    addPlace(time_, "time_digest", "time_file", "time_first_row", "time_storage");
    columns_.finishRow();
  }

 private:
  void find(const std::optional<int>& storageId, Place& place) const {
    if (!storageId) {
      place = Place();
      return;
    }
    if (place.content != nullptr && place.content->storageId == *storageId) return;
    place.content =
        &*std::lower_bound(info_.files.begin(), info_.files.end(), *storageId,
                           [](const FileInfo& file, int id) { return file.storageId < id; });
    place.path = pathOf(info_, *place.content);
  }

  void addPlace(const Place& place, const char* digest, const char* file, const char* firstRow,
                const char* storage) {
    using Text = ::arrow::StringBuilder;
    const FileInfo* const content = place.content;
    std::optional<std::string_view> digits;
    std::optional<std::string_view> path;
    std::optional<std::int64_t> first;
    std::optional<int> storageId;
    if (content != nullptr) {
      if (!content->contentDigest.empty()) digits = content->contentDigest;
      path = place.path;
      first = static_cast<std::int64_t>(content->firstRow);
      storageId = content->storageId;
    }
    columns_.add<Text>(digest, digits);
    columns_.add<Text>(file, path);
    columns_.add<::arrow::Int64Builder>(firstRow, first);
    columns_.add<::arrow::Int32Builder>(storage, storageId);
  }

  Columns& columns_;
  const RecordingInfo& info_;
  Place data_;
  Place time_;
};

// The columns must be there if there is no signal, too.
std::shared_ptr<::arrow::Table> tableOf(const RecordingInfo& info) {
  Columns columns;
  Rows rows(columns, info);
  for (const SignalInfo& signal : info.signals) rows.add(signal);
  if (!info.signals.empty()) return columns.finish();
  rows.add(SignalInfo());
  return columns.finish()->Slice(0, 0);
}

bool hasSignalTable(const RecordingInfo& info) { return info.formatVersion > 2; }

}  // namespace

std::string signalTable(const RecordingInfo& info) {
  const auto table = tableOf(info);
  ::parquet::WriterProperties::Builder properties;
  properties.compression(::arrow::Compression::SNAPPY)->disable_dictionary()->disable_statistics();
  for (const char* name : {"unit", "data_type", "category", "file", "time_digest", "time_file"}) {
    properties.enable_dictionary(name);
  }
  const auto out = ::arrow::io::BufferOutputStream::Create().ValueOrDie();
  PARQUET_THROW_NOT_OK(::parquet::arrow::WriteTable(*table, ::arrow::default_memory_pool(), out,
                                                    1 << 20, properties.build()));
  return out->Finish().ValueOrDie()->ToString();
}

void writeDescription(const Folder& folder, RecordingInfo info, bool syncs) {
  if (hasSignalTable(info)) {
    const std::string table = signalTable(info);
    info.signalsChecksum = checksumOf(table);
    const std::string text = writeRecordingJson(info);  // may refuse the signals
    replaceTextFile(folder, kSignalsFile, table, syncs);
    replaceTextFile(folder, kDescriptionFile, text, syncs);
    return;
  }
  replaceTextFile(folder, kDescriptionFile, writeRecordingJson(info), syncs);
}

std::string signalTableFault(const OpenFolder& folder, const RecordingInfo& info) {
  if (!hasSignalTable(info)) return "";
  if (!folder.has(kSignalsFile)) return "missing, or no regular file";
  const std::string checksum = digestOf(*folder.open(kSignalsFile)).checksum;
  if (checksum == info.signalsChecksum) return "";
  return fmt::format("damaged, or older or newer than {}: its checksum is {}, expected {}",
                     kDescriptionFile, checksum, info.signalsChecksum);
}

}  // namespace kyr::recording

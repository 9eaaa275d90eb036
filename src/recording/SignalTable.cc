#include "recording/SignalTable.h"

#include <arrow/api.h>
#include <arrow/io/memory.h>
#include <arrow/util/bit_util.h>
#include <fmt/format.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>
#include <parquet/properties.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
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

void check(const ::arrow::Status& status) { PARQUET_THROW_NOT_OK(status); }

// Texts of which few differ. Neighbours mostly are the same.
class RepeatedTexts {
 public:
  explicit RepeatedTexts(std::size_t rows) { indices_.reserve(rows); }

  void add(std::string_view text) {
    if (last_ < 0 || text != lastText_) {
      const auto [known, isNew] =
          places_.try_emplace(std::string(text), static_cast<std::int32_t>(places_.size()));
      if (isNew) check(texts_.Append(text));
      last_ = known->second;
      lastText_ = known->first;
    }
    indices_.push_back(last_);
  }
  void addNull() {
    indices_.push_back(0);
    missing_.push_back(indices_.size() - 1);
  }

  std::shared_ptr<::arrow::Array> finish() {
    const auto count = static_cast<std::int64_t>(indices_.size());
    std::shared_ptr<::arrow::Buffer> valid;
    if (!missing_.empty()) {
      valid = ::arrow::AllocateBitmap(count).ValueOrDie();
      std::memset(valid->mutable_data(), 0xFF, static_cast<std::size_t>(valid->size()));
      for (const std::size_t row : missing_) {
        ::arrow::bit_util::ClearBit(valid->mutable_data(), static_cast<std::int64_t>(row));
      }
    }
    const auto indices = std::make_shared<::arrow::Int32Array>(
        count, ::arrow::Buffer::FromVector(std::move(indices_)), std::move(valid));
    return std::make_shared<::arrow::DictionaryArray>(
        ::arrow::dictionary(::arrow::int32(), ::arrow::utf8()), indices,
        texts_.Finish().ValueOrDie());
  }

 private:
  std::map<std::string, std::int32_t> places_;
  ::arrow::StringBuilder texts_;
  std::vector<std::int32_t> indices_;
  std::vector<std::size_t> missing_;
  std::int32_t last_ = -1;  // the place of the text that was added last
  std::string_view lastText_;
};

// Makes the columns of the table one by one.
class Columns {
 public:
  explicit Columns(const RecordingInfo& info) : info_(info) {
    data_.reserve(info.signals.size());
    times_.reserve(info.signals.size());
    for (const SignalInfo& signal : info.signals) {
      data_.push_back(find(signal.dataStorageId, data_));
      times_.push_back(find(signal.timeStorageId, times_));
    }
  }

  std::shared_ptr<::arrow::Table> table() {
    using Int32 = ::arrow::Int32Builder;
    using Int64 = ::arrow::Int64Builder;
    using Double = ::arrow::DoubleBuilder;
    addNumbers<Int32>("id", [&](std::size_t i) { return std::optional(signal(i).signalId); });
    addTexts("name", [&](std::size_t i) { return std::string_view(signal(i).name); });
    addRepeated("unit", [&](std::size_t i) { return std::string_view(signal(i).unit); });
    addTexts("description", [&](std::size_t i) { return std::string_view(signal(i).description); });
    addRepeated("data_type", [&](std::size_t i) { return dataTypeName(signal(i).dataType); });
    addRepeated("category", [&](std::size_t i) { return categoryName(signal(i).category); });
    addDimensions();
    addNumbers<Int64>("rows", [&](std::size_t i) { return optionalCount(signal(i).rowCount); });
    addNumbers<Double>("from", [&](std::size_t i) { return fromOf(signal(i)); });
    addNumbers<Double>("to", [&](std::size_t i) { return toOf(signal(i)); });
    addNumbers<Double>("min", [&](std::size_t i) {
      return data_[i] != nullptr ? data_[i]->minimum : std::nullopt;
    });
    addNumbers<Double>("max", [&](std::size_t i) {
      return data_[i] != nullptr ? data_[i]->maximum : std::nullopt;
    });
    addTexts("digest", [&](std::size_t i) { return digestOf(data_[i]); });
    addPlaces(data_, "file", "first_row", "storage");
    addRepeated("time_digest", [&](std::size_t i) { return digestOf(times_[i]); });
    addPlaces(times_, "time_file", "time_first_row", "time_storage");
    return ::arrow::Table::Make(::arrow::schema(std::move(fields_)), arrays_);
  }

 private:
  using Contents = std::vector<const FileInfo*>;  // null for a signal without one

  static std::optional<std::int64_t> optionalCount(std::uint64_t count) {
    return static_cast<std::int64_t>(count);
  }
  static std::optional<double> fromOf(const SignalInfo& signal) {
    return signal.timeSpan ? std::optional(signal.timeSpan->from) : std::nullopt;
  }
  static std::optional<double> toOf(const SignalInfo& signal) {
    return signal.timeSpan ? std::optional(signal.timeSpan->to) : std::nullopt;
  }
  static std::optional<std::string_view> digestOf(const FileInfo* content) {
    if (content == nullptr || content->contentDigest.empty()) return std::nullopt;
    return content->contentDigest;
  }

  const SignalInfo& signal(std::size_t i) const { return info_.signals[i]; }
  std::int64_t count() const { return static_cast<std::int64_t>(info_.signals.size()); }

  // Signals mostly have the times of the signal before, or the content behind its samples.
  const FileInfo* find(const std::optional<int>& storageId, const Contents& before) const {
    if (!storageId) return nullptr;
    const std::vector<FileInfo>& files = info_.files;
    const FileInfo* const last = before.empty() ? nullptr : before.back();
    if (last != nullptr) {
      if (last->storageId == *storageId) return last;
      const FileInfo* const next = last + 1;
      if (next != files.data() + files.size() && next->storageId == *storageId) return next;
    }
    return &*std::lower_bound(files.begin(), files.end(), *storageId,
                              [](const FileInfo& file, int id) { return file.storageId < id; });
  }

  void add(const char* name, std::shared_ptr<::arrow::Array> array) {
    fields_.push_back(::arrow::field(name, array->type()));
    arrays_.push_back(std::move(array));
  }

  // \param value  of a row; empty for null
  template <typename Builder, typename ValueOf>
  void addNumbers(const char* name, ValueOf&& valueOf) {
    Builder builder;
    check(builder.Reserve(count()));
    for (std::size_t i = 0; i < info_.signals.size(); ++i) {
      if (const auto value = valueOf(i)) {
        builder.UnsafeAppend(*value);
      } else {
        builder.UnsafeAppendNull();
      }
    }
    add(name, builder.Finish().ValueOrDie());
  }

  // \param textOf  the text of a row, which may be empty for null
  template <typename TextOf>
  void addTexts(const char* name, TextOf&& textOf) {
    ::arrow::StringBuilder builder;
    check(builder.Reserve(count()));
    for (std::size_t i = 0; i < info_.signals.size(); ++i) {
      const auto& value = textOf(i);
      const std::optional<std::string_view> text = value;
      check(text ? builder.Append(*text) : builder.AppendNull());
    }
    add(name, builder.Finish().ValueOrDie());
  }

  template <typename TextOf>
  void addRepeated(const char* name, TextOf&& textOf) {
    RepeatedTexts texts(info_.signals.size());
    for (std::size_t i = 0; i < info_.signals.size(); ++i) {
      const auto& value = textOf(i);
      const std::optional<std::string_view> text = value;
      text ? texts.add(*text) : texts.addNull();
    }
    add(name, texts.finish());
  }

  void addDimensions() {
    const auto values = std::make_shared<::arrow::Int64Builder>();
    ::arrow::ListBuilder lists(::arrow::default_memory_pool(), values);
    check(lists.Reserve(count()));
    for (const SignalInfo& signal : info_.signals) {
      check(lists.Append());
      for (const std::size_t extent : signal.dimensions) {
        check(values->Append(static_cast<std::int64_t>(extent)));
      }
    }
    add("dimensions", lists.Finish().ValueOrDie());
  }

  void addPlaces(const Contents& contents, const char* file, const char* firstRow,
                 const char* storage) {
    RepeatedTexts paths(contents.size());
    std::string path;
    const FileInfo* last = nullptr;  // whose path that is
    for (const FileInfo* const content : contents) {
      if (content == nullptr) {
        paths.addNull();
        continue;
      }
      const bool isSame =
          last != nullptr && (content == last || (content->pack && content->pack == last->pack));
      if (!isSame) path = pathOf(info_, *content);
      last = content;
      paths.add(path);
    }
    add(file, paths.finish());
    addNumbers<::arrow::Int64Builder>(firstRow, [&](std::size_t i) {
      return contents[i] != nullptr ? optionalCount(contents[i]->firstRow) : std::nullopt;
    });
    addNumbers<::arrow::Int32Builder>(storage, [&](std::size_t i) {
      return contents[i] != nullptr ? std::optional(contents[i]->storageId) : std::nullopt;
    });
  }

  const RecordingInfo& info_;
  Contents data_;
  Contents times_;
  ::arrow::FieldVector fields_;
  ::arrow::ArrayVector arrays_;
};

bool hasSignalTable(const RecordingInfo& info) { return info.formatVersion > 2; }

}  // namespace

std::string signalTable(const RecordingInfo& info) {
  const auto table = Columns(info).table();
  ::parquet::WriterProperties::Builder properties;
  properties.compression(::arrow::Compression::SNAPPY)->disable_dictionary()->disable_statistics();
  for (const char* name : {"unit", "data_type", "category", "file", "time_digest", "time_file"}) {
    properties.enable_dictionary(name);
  }
  // Random digits, of which only a codec that counts how often each byte comes saves anything.
  properties.compression("digest", ::arrow::Compression::ZSTD)->compression_level("digest", 1);
  const auto out = ::arrow::io::BufferOutputStream::Create().ValueOrDie();
  PARQUET_THROW_NOT_OK(::parquet::arrow::WriteTable(*table, ::arrow::default_memory_pool(), out,
                                                    1 << 20, properties.build()));
  return out->Finish().ValueOrDie()->ToString();
}

void writeDescription(const Folder& folder, RecordingInfo& info, bool syncs,
                      const std::function<void()>& wait) {
  std::string table;
  if (hasSignalTable(info)) {
    table = signalTable(info);
    info.signalsChecksum = checksumOf(table);
  }
  const std::string text = writeRecordingJson(info);  // may refuse the signals
  if (hasSignalTable(info)) replaceTextFile(folder, kSignalsFile, table, syncs);
  wait();
  replaceTextFile(folder, kDescriptionFile, text, syncs);
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

#include <arrow/api.h>
#include <arrow/c/bridge.h>
#include <arrow/compute/cast.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Capsules.h"
#include "Define.h"
#include "kyr/recording/RecordingReader.h"
#include "schema/ElementTypes.h"

namespace kyr::python {

namespace {

using recording::RecordingReader;
using recording::RowRange;
using recording::SignalInfo;

constexpr std::uint64_t kBatchRows = 65'536;

// Texts of which many rows in a row are equal.
class TextColumn {
 public:
  static std::shared_ptr<::arrow::DataType> type() {
    return ::arrow::dictionary(::arrow::int32(), ::arrow::utf8());
  }

  ::arrow::Status append(const std::string& text, std::uint64_t rows) {
    if (dictionary_.length() == 0 || text != last_) {
      ARROW_RETURN_NOT_OK(dictionary_.Append(text));
      last_ = text;
    }
    const auto index = static_cast<std::int32_t>(dictionary_.length() - 1);
    const std::vector<std::int32_t> indices(rows, index);
    return indices_.AppendValues(indices);
  }

  ::arrow::Result<std::shared_ptr<::arrow::Array>> finish() {
    ARROW_ASSIGN_OR_RAISE(const auto indices, indices_.Finish());
    ARROW_ASSIGN_OR_RAISE(const auto dictionary, dictionary_.Finish());
    return ::arrow::DictionaryArray::FromArrays(type(), indices, dictionary);
  }

 private:
  ::arrow::Int32Builder indices_;
  ::arrow::StringBuilder dictionary_;
  std::string last_;
};

// The rows of a batch that is being filled.
class Rows {
 public:
  static std::shared_ptr<::arrow::Schema> schema() {
    return ::arrow::schema({::arrow::field("run", TextColumn::type(), false),
                            ::arrow::field("id", ::arrow::int32(), false),
                            ::arrow::field("signal", TextColumn::type(), false),
                            ::arrow::field("time", ::arrow::float64()),
                            ::arrow::field("value", ::arrow::float64(), false)});
  }

  std::uint64_t count() const { return count_; }

  ::arrow::Status append(const std::string& run, const RecordingReader& reader,
                         const SignalInfo& signal, const RowRange& range) {
    const std::uint64_t rows = range.to - range.from;
    ARROW_RETURN_NOT_OK(runs_.append(run, rows));
    ARROW_RETURN_NOT_OK(ids_.AppendValues(std::vector<std::int32_t>(rows, signal.signalId)));
    ARROW_RETURN_NOT_OK(signals_.append(signal.name, rows));
    ARROW_RETURN_NOT_OK(appendTimes(reader, signal.signalId, range));
    ARROW_RETURN_NOT_OK(appendValues(reader, signal, range));
    count_ += rows;
    return ::arrow::Status::OK();
  }

  ::arrow::Result<std::shared_ptr<::arrow::RecordBatch>> finish() {
    ARROW_ASSIGN_OR_RAISE(const auto runs, runs_.finish());
    ARROW_ASSIGN_OR_RAISE(const auto ids, ids_.Finish());
    ARROW_ASSIGN_OR_RAISE(const auto signals, signals_.finish());
    ARROW_ASSIGN_OR_RAISE(const auto times, times_.Finish());
    ARROW_ASSIGN_OR_RAISE(const auto values, values_.Finish());
    return ::arrow::RecordBatch::Make(schema(), static_cast<std::int64_t>(count_),
                                      {runs, ids, signals, times, values});
  }

 private:
  ::arrow::Status appendTimes(const RecordingReader& reader, int id, const RowRange& range) {
    const auto rows = static_cast<std::int64_t>(range.to - range.from);
    if (reader.timeCount(id) == 0) return times_.AppendNulls(rows);
    std::vector<double> times(range.to - range.from);
    requireAll(range, reader.readTimes(id, range, times.data()));
    return times_.AppendValues(times);
  }

  ::arrow::Status appendValues(const RecordingReader& reader, const SignalInfo& signal,
                               const RowRange& range) {
    const auto rows = static_cast<std::int64_t>(range.to - range.from);
    const auto bytes = rows * static_cast<std::int64_t>(reader.elementBytes(signal.signalId));
    ARROW_ASSIGN_OR_RAISE(const std::shared_ptr<::arrow::Buffer> buffer,
                          ::arrow::AllocateBuffer(bytes));
    requireAll(range, reader.readElements(signal.signalId, range, buffer->mutable_data(),
                                          static_cast<std::size_t>(bytes)));
    const auto numbers = ::arrow::MakeArray(::arrow::ArrayData::Make(
        parquet::elementArrowType(signal.dataType), rows, {nullptr, buffer}, 0));
    // Integers of 64 bits are rounded.
    ARROW_ASSIGN_OR_RAISE(const auto doubles,
                          ::arrow::compute::Cast(*numbers, ::arrow::float64(),
                                                 ::arrow::compute::CastOptions::Unsafe()));
    const auto& array = static_cast<const ::arrow::DoubleArray&>(*doubles);
    return values_.AppendValues(array.raw_values(), rows);
  }

  static void requireAll(const RowRange& range, std::uint64_t found) {
    if (found != range.to - range.from) throw std::runtime_error("rows are missing");
  }

  TextColumn runs_;
  ::arrow::Int32Builder ids_;
  TextColumn signals_;
  ::arrow::DoubleBuilder times_;
  ::arrow::DoubleBuilder values_;
  std::uint64_t count_ = 0;
};

struct Run {
  std::string name;
  std::string folder;
};

// The scalar numbers of recordings, one recording after the other. One of them is open at a time.
class Scan final : public ::arrow::RecordBatchReader {
 public:
  Scan(std::vector<Run> runs, std::optional<std::vector<std::string>> names)
      : runs_(std::move(runs)), names_(std::move(names)) {}

  std::shared_ptr<::arrow::Schema> schema() const override { return Rows::schema(); }

  ::arrow::Status ReadNext(std::shared_ptr<::arrow::RecordBatch>* batch) override {
    batch->reset();
    try {
      Rows rows;
      ARROW_RETURN_NOT_OK(fill(rows));
      return rows.count() == 0 ? ::arrow::Status::OK() : rows.finish().Value(batch);
    } catch (const std::bad_alloc&) {
      return ::arrow::Status::OutOfMemory("a record batch");
    } catch (const std::exception& error) {
      return ::arrow::Status::IOError(error.what());
    }
  }

 private:
  ::arrow::Status fill(Rows& rows) {
    while (rows.count() < kBatchRows && (reader_ || openNext())) {
      if (signal_ == ids_.size()) {
        reader_.reset();
        ++run_;
        continue;
      }
      const int id = ids_[signal_];
      const std::uint64_t all = reader_->pairCount(id);
      const std::uint64_t end = std::min(all, row_ + kBatchRows - rows.count());
      if (row_ < end) {
        ARROW_RETURN_NOT_OK(
            rows.append(runs_[run_].name, *reader_, reader_->signal(id), {row_, end}));
      }
      row_ = end;
      if (row_ < all) continue;
      row_ = 0;
      ++signal_;
    }
    return ::arrow::Status::OK();
  }

  bool openNext() {
    if (run_ == runs_.size()) return false;
    reader_.emplace(Path::fromNarrow(runs_[run_].folder));
    signal_ = 0;
    row_ = 0;
    ids_.clear();
    for (const SignalInfo& signal : reader_->signals()) {
      const auto type = parquet::elementArrowType(signal.dataType);
      const bool isNumber =
          signal.category == Scalar && signal.dataType != Null && type && parquet::isNumber(*type);
      if (isNumber && reader_->sampleCount(signal.signalId) > 0) ids_.push_back(signal.signalId);
    }
    if (!names_) return true;
    const std::set<int> named = namedIds(*reader_, *names_);
    const auto isOther = [&named](int id) { return named.count(id) == 0; };
    ids_.erase(std::remove_if(ids_.begin(), ids_.end(), isOther), ids_.end());
    return true;
  }

  // A text is a pattern only if it is no name.
  static std::set<int> namedIds(const RecordingReader& reader,
                                const std::vector<std::string>& names) {
    std::set<int> ids;
    for (const std::string& name : names) {
      bool isName = false;
      for (const SignalInfo& signal : reader.signals()) {
        if (signal.name != name) continue;
        ids.insert(signal.signalId);
        isName = true;
      }
      if (isName) continue;
      const std::vector<int> matching = reader.matching(name);
      ids.insert(matching.begin(), matching.end());
    }
    return ids;
  }

  std::vector<Run> runs_;
  std::optional<std::vector<std::string>> names_;
  std::size_t run_ = 0;
  std::optional<RecordingReader> reader_;
  std::vector<int> ids_;    // of the signals that are read
  std::size_t signal_ = 0;  // in ids_
  std::uint64_t row_ = 0;   // of that signal
};

nb::capsule scanStream(const std::vector<std::pair<std::string, nb::bytes>>& runs,
                       std::optional<std::vector<std::string>> names) {
  std::vector<Run> found;
  found.reserve(runs.size());
  for (const auto& [name, folder] : runs) {
    found.push_back({name, std::string(folder.c_str(), folder.size())});
  }
  auto stream = std::make_unique<ArrowArrayStream>();
  const auto status = ::arrow::ExportRecordBatchReader(
      std::make_shared<Scan>(std::move(found), std::move(names)), stream.get());
  if (!status.ok()) throw std::runtime_error(status.ToString());
  return streamCapsule(std::move(stream));
}

bool isRecording(const nb::bytes& folder) {
  const Path path = Path::fromNarrow(std::string(folder.c_str(), folder.size()));
  const nb::gil_scoped_release release;
  return std::filesystem::exists(path.toFilesystem() / "recording.json") ||
         recording::isLiveRecording(path);
}

}  // namespace

void defineScan(nb::module_& module) {
  using namespace nb::literals;
  module.def("scan", scanStream, "runs"_a, "names"_a,
             "The scalar numbers of recordings as a capsule of Arrow's C stream interface. A\n"
             "recording is a name and a folder; names are those of signals, or patterns, or None.");
  module.def("is_recording", isRecording, "folder"_a,
             "Whether a folder holds a recording, finished or not.");
}

}  // namespace kyr::python

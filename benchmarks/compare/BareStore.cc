#include <fstream>
#include <unordered_map>

#include "ParquetColumns.h"
#include "kyr/parquet/RedundancyChecker.h"
#include "storage/ContentHash.h"

/// Parquet without kyr: a file for each vector.
namespace kyr::compare {

namespace {

constexpr std::size_t kBatchRows = 65536;

std::uint64_t hashOf(const ColumnType& type, const char* values, std::size_t rows) {
  std::vector<std::vector<std::size_t>> dimensions;
  if (type.elements == 9) dimensions = {{3, 3}};
  const std::size_t count = rows * type.elements;
  return type.isInt16 ? parquet::contentHash<short>(values, count, dimensions)
                      : parquet::contentHash<double>(values, count, dimensions);
}

// A column that is appended: rows gather, and each full batch is a row group.
struct Appended {
  Appended(const ColumnType& columnType, std::unique_ptr<ColumnWriter> columnWriter)
      : type(columnType), writer(std::move(columnWriter)) {
    rows.reserve(kBatchRows * type.rowSize());
  }

  void append(const char* values, std::size_t count) {
    while (count > 0) {
      const std::size_t width = type.rowSize();
      const std::size_t taken = std::min(count, kBatchRows - rows.size() / width);
      rows.insert(rows.end(), values, values + taken * width);
      if (rows.size() == kBatchRows * width) write();
      values += taken * width;
      count -= taken;
    }
  }

  void write() {
    writer->write(rows.data(), rows.size() / type.rowSize());
    rows.clear();
  }

  void finish() {
    if (!rows.empty()) write();
    writer->close();
  }

  ColumnType type;
  std::unique_ptr<ColumnWriter> writer;
  std::vector<char> rows;
};

}  // namespace

class BareStore : public Store {
 public:
  BareStore(const fs::path& folder, const ParquetOptions& options)
      : Store(folder), options_(options) {}

  bool supports(const Workload& workload) const override {
    switch (options_.encoding) {
      case ParquetOptions::Encoding::plain:
        return true;
      case ParquetOptions::Encoding::delta:
        return workload.values == Values::counts;
      default:
        return workload.name == "W1" || workload.name == "W1q";
    }
  }

  void write(const Workload& workload, const Data& data) override {
    if (!workload.isWhole()) {
      append(workload, data);
      return;
    }
    if (!options_.hashes) {
      for (std::size_t i = 0; i < data.columns(); ++i) {
        writeFile(i, ColumnType(workload, i == 0), data.column(i), workload.rows);
      }
      return;
    }
    for (std::size_t i = 1; i < data.columns(); ++i) {
      store(ColumnType(workload, true), data.column(0), workload.rows);
      files_.push_back(store(ColumnType(workload, false), data.column(i), workload.rows));
    }
  }

  void leave() override {
    std::ofstream list(notes("files"));
    for (const std::size_t file : files_) list << file << '\n';
  }

  void read(const Workload& workload, ReadBack& values) override {
    openWindows(workload);
    makeReader(true, 0)->readAll(values.time);
    for (std::size_t i = 0; i < workload.signals; ++i) {
      makeReader(false, fileOf(i))->readAll(values.signals[i]);
    }
  }

  void openWindows(const Workload& workload) override {
    workload_ = workload;
    std::ifstream list(notes("files"));
    for (std::size_t file = 0; list >> file;) files_.push_back(file);
  }

  void closeWindow() override { window_.reset(); }
  void readWindow(std::size_t signal, std::size_t from, std::size_t count, Bytes& values) override {
    if (!window_) window_ = makeReader(false, fileOf(signal));
    window_->readRows(from, count, values);
  }

 private:
  std::size_t fileOf(std::size_t signal) const {
    return files_.empty() ? signal + 1 : files_[signal];
  }

  std::unique_ptr<ColumnWriter> makeWriter(std::size_t file, const ColumnType& type) const {
    const fs::path path = stored(std::to_string(file));
    return options_.lowLevel ? makeLowLevelWriter(type, path)
                             : makeTableWriter(options_, type, path);
  }

  std::unique_ptr<ColumnReader> makeReader(bool isTime, std::size_t file) const {
    const ColumnType type(workload_, isTime);
    const fs::path path = stored(std::to_string(file));
    return options_.lowLevel ? makeLowLevelReader(type, path) : makeTableReader(type, path);
  }

  void writeFile(std::size_t file, const ColumnType& type, const char* values,
                 std::size_t rows) const {
    const auto writer = makeWriter(file, type);
    writer->write(values, rows);
    writer->close();
  }

  // The file of this content, which is written if it is new.
  std::size_t store(const ColumnType& type, const char* values, std::size_t rows) {
    const auto [known, isNew] = known_.emplace(hashOf(type, values, rows), known_.size());
    if (isNew) writeFile(known->second, type, values, rows);
    return known->second;
  }

  void append(const Workload& workload, const Data& data) {
    std::vector<Appended> columns;
    for (std::size_t i = 0; i < data.columns(); ++i) {
      const ColumnType type(workload, i == 0);
      columns.emplace_back(type, makeWriter(i, type));
    }
    const bool hashes = options_.hashes;
    forEachChunk(workload, data, [&](std::size_t i, const char* rows, std::size_t count) {
      Appended& column = columns[i];
      if (hashes) {
        const auto hash =
            parquet::RedundancyChecker::_defaultHasher(rows, count * column.type.rowSize(), Double);
        known_.emplace(hash, known_.size());
      }
      column.append(rows, count);
    });
    for (Appended& column : columns) column.finish();
  }

  ParquetOptions options_;
  Workload workload_{};
  std::unordered_map<std::uint64_t, std::size_t> known_;
  std::vector<std::size_t> files_;  // of the signals; empty: one after the other
  std::unique_ptr<ColumnReader> window_;
};

namespace {

bool addBare(const std::string& name, bool lowLevel, bool kyrTables, bool hashes,
             ParquetOptions::Encoding encoding = ParquetOptions::Encoding::plain,
             bool zstd = false) {
  return addStore<BareStore>(name, ParquetOptions{lowLevel, kyrTables, hashes, encoding, zstd});
}

using Encoding = ParquetOptions::Encoding;
[[maybe_unused]] const bool kAdded[] = {
    addBare("bare:arrow", false, false, false),
    addBare("bare:lowlevel", true, false, false),
    addBare("bare:arrow+hash", false, false, true),
    addBare("bare:dedup", false, true, true),
    addBare("bare:dict+zstd", false, false, false, Encoding::dictionary, true),
    addBare("bare:bss+zstd", false, false, false, Encoding::byteStreamSplit, true),
    addBare("bare:delta", false, false, false, Encoding::delta),
};

}  // namespace

}  // namespace kyr::compare

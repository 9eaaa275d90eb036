#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/Losses.h"
#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/TableWriter.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// A table with a row for each sample: one signal after the other, each in order of time.
///
/// Samples are read and written slice by slice. A signal whose times do not ascend is sorted in
/// memory as a whole.
class LongTable {
 public:
  using Progress = std::function<void(double part)>;

  LongTable(const recording::RecordingReader& reader, const std::vector<ExportSignal>& signals,
            const Window& window, Progress progress);

  /// Adds the integers that the table cannot hold exactly to \p losses. To be called before
  /// writing, because standard output cannot be taken back. Reads all 64-bit integers.
  void checkExact(Losses& losses);

  /// Writes the columns time, signal and value.
  void writeTable(const TableWriter::Target& target);

  /// Writes a file `signal=<name>/part-0.parquet` for each signal, with the columns time and value.
  void writePartitions(const std::filesystem::path& folder, const TableWriter::Target& target);

 private:
  using ArrayPtr = std::shared_ptr<::arrow::Array>;
  using Take = std::function<void(const ArrayPtr& times, const ArrayPtr& values)>;

  void forEachSlice(const ExportSignal& signal, const Take& take);
  void stream(const ExportSignal& signal, const Take& take);
  void streamSorted(const ExportSignal& signal, const Take& take);
  bool isAscending(int times);
  recording::RowRange rowsOf(const ExportSignal& signal) const;

  const recording::RecordingReader& reader_;
  const std::vector<ExportSignal>& signals_;
  Window window_;
  Progress progress_;
  std::map<int, bool> ascending_;
  std::uint64_t rows_ = 0;
  std::uint64_t allRows_ = 0;
};

}  // namespace kyr::tool

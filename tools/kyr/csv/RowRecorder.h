#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CellParser.h"
#include "csv/CsvHeader.h"
#include "csv/CsvRecords.h"
#include "kyr/recording/LiveRecording.h"

namespace kyr::tool {

/// Appends CSV rows to a live recording, sample by sample.
class RowRecorder {
 public:
  /// \param source  for messages
  /// \param header  of which columns without a given type get it from the first row
  /// \param skipsBad  whether what is no number is left out and counted
  RowRecorder(recording::LiveRecording& live, std::string source, CsvHeader header, bool skipsBad);

  /// Appends a row, or nothing of it.
  /// \throws std::runtime_error naming line and column of a cell that is no number, unless such
  ///         are skipped
  void add(const CsvRecord& record);

  /// Makes the signals, if no row has come so far.
  void begin();

  std::uint64_t rows() const { return rows_; }

  /// One sentence on what was left out; empty if nothing was.
  std::string skipped() const;

 private:
  struct Column {
    CsvColumn described;
    CellParser parse = nullptr;
    std::shared_ptr<parquet::StreamableSignal> signal;
    std::size_t width = 0;
    bool hasSample = false;
    std::vector<char> sample;
  };

  void makeSignals();
  bool takeTime(const CsvRecord& record);
  void takeCell(const CsvRecord& record, Column& column);
  // Counts it, or throws.
  void refuse(const CsvRecord& record, const std::string& what, std::uint64_t& count);

  recording::LiveRecording& live_;
  std::string source_;
  CsvHeader header_;
  bool skipsBad_;
  std::vector<Column> columns_;
  std::vector<std::string> cells_;
  double time_ = 0;
  std::vector<char> timeBytes_;
  std::uint64_t rows_ = 0;
  std::uint64_t skippedRows_ = 0;
  std::uint64_t skippedCells_ = 0;
  std::string firstSkipped_;
};

}  // namespace kyr::tool

#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CsvHeader.h"
#include "CsvReader.h"
#include "CsvText.h"
#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// The samples of one signal, in memory order. A signal has none where its cell is empty.
struct Samples {
  std::vector<double> time;
  std::vector<char> bytes;
};

/// A CSV file as signals over a time column.
///
/// Every failure is a std::runtime_error that names the file, the line and the column.
class CsvTable {
 public:
  CsvTable(const std::string& path, const CsvOptions& options, const Progress& progress);

  const std::vector<double>& time() const { return time_; }
  std::vector<CsvColumn>& columns() { return columns_; }
  const std::vector<CsvColumn>& columns() const { return columns_; }

  /// What the signals will not hold, one sentence each: columns that are no numbers, roundings.
  const std::vector<std::string>& losses() const { return losses_; }

  /// The unit that the header gives to the time column.
  const std::string& timeUnit() const { return timeUnit_; }

  Samples samplesOf(const CsvColumn& column) const;

 private:
  using Cells = std::shared_ptr<::arrow::ChunkedArray>;

  void readCells(const Progress& progress);
  void readTime(const Cells& cells);
  void checkTime();
  bool acceptCells(CsvColumn& column, const Cells& texts);
  void reviewLargeNumbers(CsvColumn& column, const Cells& texts);
  void appendParsed(const CsvColumn& column, Samples& samples) const;

  /// "FILE, line 3: column "x"", of a body row.
  std::string where(std::int64_t row, const std::string& column) const;

  CsvText text_;
  std::size_t timePlace_ = 0;
  std::string timeName_;
  std::string timeUnit_;
  std::vector<double> time_;
  std::vector<CsvColumn> columns_;
  std::vector<std::string> losses_;
};

}  // namespace kyr::tool

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "csv/BlockReader.h"
#include "csv/CsvHeader.h"
#include "csv/CsvText.h"
#include "csv/CsvTokenizer.h"

namespace kyr::tool {

/// The times of a CSV file, block by block.
class CsvTimes {
 public:
  /// \param text  must outlive the object, as must the header
  CsvTimes(const CsvText& text, const CsvHeader& header) : text_(text), header_(header) {}

  /// Puts the plan for the column of the times, if there is one, among those of all columns.
  void addTo(std::vector<CellPlan>& plans) const;

  /// Starts again from the first row.
  void restart();

  /// Takes the times of the next block.
  /// \param line  number of the line at which the block begins
  /// \return false if the block shows that earlier blocks were read as the wrong kind
  /// \throws std::runtime_error naming the line of a wrong time
  bool take(const BlockValues& block, std::int64_t line);

  /// The times of the last block without those of some rows.
  /// \param missing  rows of the block, ascending
  const std::vector<double>& timesWithout(const std::vector<std::uint32_t>& missing);

  /// One sentence on the first time that is rounded; empty if there is none.
  const std::string& loss() const { return loss_; }

 private:
  void countRows(std::size_t rows);
  std::optional<std::uint32_t> convert(const CellValues& cells);
  std::optional<std::uint32_t> convertNanoseconds(const CellValues& cells);
  void checkOrder(const BlockValues& block, std::int64_t line, std::size_t rows) const;
  void noteLoss(const BlockValues& block, std::int64_t line, std::optional<std::uint32_t> rounded);
  CsvPlace placed(const BlockValues& block, std::int64_t line, std::size_t row) const;
  std::string describe(const CsvPlace& place, const std::string& what) const;

  const CsvText& text_;
  const CsvHeader& header_;
  CellKind kind_ = CellKind::empty;
  std::vector<double> times_;
  std::vector<double> present_;
  bool hasRows_ = false;
  std::uint64_t counted_ = 0;  ///< rows of the blocks before, if they are numbered
  double last_ = 0;            ///< time in the last row of the blocks before
  std::string lastCell_;       ///< its cell
  std::string loss_;
};

}  // namespace kyr::tool

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "csv/BlockReader.h"
#include "csv/CsvText.h"

namespace kyr::tool {

/// The times of a CSV file, block by block.
class CsvTimes {
 public:
  /// \param text  must outlive the object
  /// \param place  of the column in a row
  CsvTimes(const CsvText& text, std::size_t place, std::string name)
      : text_(text), place_(place), name_(std::move(name)) {}

  std::size_t place() const { return place_; }
  CellPlan plan() const { return {true, true, kind_, std::nullopt}; }

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
  std::optional<std::uint32_t> convert(const CellValues& cells);
  void checkOrder(const BlockValues& block, std::int64_t line, std::size_t rows) const;
  void noteLoss(const BlockValues& block, std::int64_t line, std::optional<std::uint32_t> rounded);
  CsvPlace placed(const BlockValues& block, std::int64_t line, std::size_t row) const;
  std::string describe(const CsvPlace& place, const std::string& what) const;

  const CsvText& text_;
  std::size_t place_;
  std::string name_;
  CellKind kind_ = CellKind::empty;
  std::vector<double> times_;
  std::vector<double> present_;
  bool hasRows_ = false;
  double last_ = 0;       ///< time in the last row of the blocks before
  std::string lastCell_;  ///< its cell
  std::string loss_;
};

}  // namespace kyr::tool

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "csv/CsvCells.h"
#include "csv/CsvText.h"

namespace kyr::tool {

/// The times of a CSV file, block by block, and what is wrong with them.
class CsvTimes {
 public:
  /// \param place  of the column in a row
  CsvTimes(std::size_t place, std::string name) : place_(place), name_(std::move(name)) {}

  std::size_t place() const { return place_; }
  CellKind kind() const { return kind_; }

  /// From the first row again.
  void restart();

  /// \param line  of the file, at which the block begins
  /// \return false if the times of earlier blocks were read as what this one shows they are not
  bool take(const CsvText& text, const BlockValues& block, std::int64_t line);

  /// Of the rows of the last block; of no meaning while isBroken().
  const std::vector<double>& times() const { return times_; }

  /// Whether something was found that check() will throw.
  bool isBroken() const;

  /// To be called after the last block.
  /// \throws std::runtime_error naming the line and what is wrong
  void check(const CsvText& text) const;

  /// The sentence on times that were rounded; empty if there are none.
  const std::string& loss() const { return loss_; }

  /// The times of all rows but some.
  /// \param missing  rows of the block, ascending
  const std::vector<double>& timesWithout(const std::vector<std::uint32_t>& missing);

 private:
  bool isNumeric() const;
  void checkValues(const CsvText& text, const BlockValues& block, std::int64_t line);
  std::string where(const CsvText& text, std::int64_t line) const;

  std::size_t place_;
  std::string name_;
  CellKind kind_ = CellKind::empty;
  std::vector<double> times_;
  std::vector<double> present_;
  bool hasRows_ = false;
  double last_ = 0;
  std::optional<std::int64_t> gap_;  ///< first line without a time
  std::string fault_;                ///< first time that is out of order, or not finite
  std::string loss_;
};

}  // namespace kyr::tool

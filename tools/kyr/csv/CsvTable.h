#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "csv/CsvCells.h"
#include "csv/CsvHeader.h"
#include "csv/CsvReview.h"
#include "csv/CsvText.h"
#include "csv/CsvTimes.h"

namespace kyr::tool {

/// Called with the part that is done, from 0 to 1.
using Progress = std::function<void(double)>;

/// Takes the samples of a CSV file's columns, block by block in the order of its rows.
class SampleSink {
 public:
  virtual ~SampleSink() = default;

  /// \param bytes  as many values of the column's type, in memory order
  virtual void append(const CsvColumn& column, const double* times, const char* bytes,
                      std::size_t count) = 0;

  /// Forget the samples of a column so far: they come again as another type, or never.
  virtual void drop(const CsvColumn& column) = 0;
};

/// A CSV file as signals over a time column. A signal has no sample where its cell is empty.
///
/// Of the file a few blocks are in memory at a time. Types follow from all cells of a column, so
/// samples are given away as what the blocks so far say; where a later block says otherwise, the
/// column is dropped and the file read again for it.
///
/// Every failure is a std::runtime_error that names the file, the line and the column.
class CsvTable {
 public:
  CsvTable(const std::string& path, const CsvOptions& options);

  /// How many columns the header names.
  std::size_t width() const { return text_.header().size(); }

  /// Gives all samples to \p sink. To be called once.
  void read(SampleSink& sink, const Progress& progress);

  /// After read(): those that can be stored. One without samples may not have come to the sink.
  const std::vector<CsvColumn>& columns() const { return columns_; }

  /// What the signals will not hold, one sentence each: columns that are no numbers, roundings.
  const std::vector<std::string>& losses() const { return losses_; }

  /// The unit that the header gives to the time column.
  const std::string& timeUnit() const { return header_.timeUnit; }

  /// \throws std::runtime_error naming a cell that does not fit the type that its column was given
  void checkGivenTypes() const;

 private:
  /// A column while it is read.
  struct Column {
    CsvColumn described;
    CellPlan plan;
    bool hasSamples = false;  ///< in the sink
    bool isStale = false;     ///< whether they were of another kind, and dropped
    bool isHuge = false;      ///< whether it has numbers that integers of 64 bits may not hold
    std::string loss;
    std::optional<CsvPlace> misfit;
  };

  void readBlocks(SampleSink& sink, const Progress& progress);
  std::vector<CellPlan> plans() const;
  bool isReadTooStrictly(const BlockValues& block) const;
  void takeBlock(const BlockValues& block, SampleSink& sink);
  void takeCells(Column& column, const BlockValues& block, SampleSink& sink);
  void settleKind(Column& column, CellKind kind, SampleSink& sink);
  void leaveOut(Column& column, SampleSink& sink);
  void startAgain(Column& column, SampleSink& sink);
  bool planNextPass();
  void reviewHugeNumbers(SampleSink& sink);
  void acceptColumns();
  std::string where(const CsvPlace& place, const CsvColumn& column) const;

  CsvText text_;
  CsvHeader header_;
  CsvTimes times_;
  bool isTimeStale_ = false;  ///< whether some were read as another kind than the others
  std::vector<Column> read_;
  bool hasGuess_ = false;  ///< whether a block has shown what the columns may be
  std::int64_t line_ = 0;  ///< at which the next block begins
  std::vector<CsvColumn> columns_;
  std::vector<std::string> losses_;
};

}  // namespace kyr::tool

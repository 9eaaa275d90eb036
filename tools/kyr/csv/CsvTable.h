#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "csv/BlockReader.h"
#include "csv/CsvHeader.h"
#include "csv/CsvText.h"
#include "csv/CsvTimes.h"
#include "csv/CsvTokenizer.h"

namespace kyr::tool {

/// Called with the part of the work that is done, from 0 to 1.
using Progress = std::function<void(double)>;

/// Some samples of a column.
struct ColumnSamples {
  const double* times = nullptr;
  std::size_t count = 0;
  const char* bytes = nullptr;  ///< values of the column's type, in memory order, or texts
  const std::vector<int>* lengths = nullptr;  ///< of texts; null for other types
};

/// Takes the samples of columns, block by block in the order of the rows.
class SampleSink {
 public:
  virtual ~SampleSink() = default;

  virtual void append(const CsvColumn& column, const ColumnSamples& samples) = 0;

  /// Forgets the samples of a column. They come again as another type, or never.
  virtual void drop(const CsvColumn& column) = 0;
};

/// A CSV file as signals over a time column. A signal has no sample where its cell is empty.
///
/// Only a few blocks of the file are in memory at a time. The type of a column follows from all of
/// its cells, but samples go to the sink as the type that fits the blocks so far. If a later block
/// shows another type, the samples are dropped and the file is read again for that column.
///
/// Every failure is a std::runtime_error that names the file, the line and the column.
class CsvTable {
 public:
  CsvTable(const std::string& path, const CsvOptions& options);
  CsvTable(const CsvTable&) = delete;
  CsvTable& operator=(const CsvTable&) = delete;

  /// Number of columns in the header.
  std::size_t width() const { return header_.width; }

  /// Gives all samples to \p sink. To be called once.
  void read(SampleSink& sink, const Progress& progress);

  /// After read(): the columns that can be stored. The sink may have got no samples of some.
  const std::vector<CsvColumn>& columns() const { return columns_; }

  /// After read(): one sentence each on what the signals will not hold, such as columns without
  /// numbers, and roundings.
  const std::vector<std::string>& losses() const { return losses_; }

  /// One sentence each on what the user may not expect, though nothing is lost. After read() there
  /// may be more.
  const std::vector<std::string>& notes() const { return header_.notes; }

  /// How the times are written.
  const TimeForm& timeForm() const { return header_.timeForm; }

  /// After read().
  /// \throws std::runtime_error naming a cell that does not fit the type of its column
  void checkTypes() const;

 private:
  /// A column while it is read.
  struct Column {
    CsvColumn described;
    CellPlan plan;
    bool hasSamples = false;  ///< whether the sink has some
    bool isStale = false;     ///< whether they were of another type and dropped
    std::string loss;
    std::optional<CsvPlace> misfit;
    bool hasNumbers = false;  ///< in a column of texts, whether some cells are none
    std::optional<CsvPlace> firstText;
  };

  void readBlocks(SampleSink& sink, const Progress& progress);
  std::vector<CellPlan> plans() const;
  bool isReadTooStrictly(const BlockValues& block) const;
  void noteCut(const BlockValues& block);
  void requireUtf8(const BlockValues& block) const;
  void takeBlock(const BlockValues& block, SampleSink& sink);
  void takeCells(Column& column, const BlockValues& block, SampleSink& sink);
  void takeSamples(Column& column, const CellValues& cells, SampleSink& sink);
  void changeKind(Column& column, CellKind kind, SampleSink& sink);
  void leaveOut(Column& column, SampleSink& sink);
  void startAgain(Column& column, SampleSink& sink);
  bool planNextPass();
  void acceptColumns();
  void noteText(const Column& column);
  std::string describe(const CsvPlace& place, const CsvColumn& column) const;

  CsvText text_;
  CsvHeader header_;
  CsvTimes times_;
  bool isTimeStale_ = false;  ///< whether earlier blocks read the times as another kind
  std::vector<Column> read_;
  std::vector<int> lengths_;
  bool isCut_ = false;     ///< whether the text ends before its end
  bool hasGuess_ = false;  ///< whether a block has shown what the columns may be
  std::int64_t line_ = 0;  ///< at which the next block begins
  std::vector<CsvColumn> columns_;
  std::vector<std::string> losses_;
};

}  // namespace kyr::tool

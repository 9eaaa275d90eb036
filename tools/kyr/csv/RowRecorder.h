#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csv/CellNumbers.h"
#include "csv/CsvDialect.h"
#include "csv/CsvHeader.h"
#include "csv/CsvTokenizer.h"
#include "kyr/recording/LiveRecording.h"

namespace kyr::tool {

/// Appends CSV rows to a live recording.
///
/// Samples are appended in blocks of a few hundred rows: thousands of signals that get a sample
/// each in turn cost several times as much. The columns have their types before the first row. The
/// first number of a column that is rounded is told on standard error, and so is the first number
/// of a column whose first values are texts.
class RowRecorder {
 public:
  enum class Strictness {
    lenient,   ///< leave out and count rows and cells that cannot be stored
    stopping,  ///< throw for them
    exact,     ///< throw for numbers that are rounded, too
  };

  /// Makes the signals.
  /// \param source  what messages call the input
  /// \param header  with the types of all columns; the last column may be left out if it is empty
  RowRecorder(recording::LiveRecording& live, std::string source, CsvDialect dialect,
              CsvHeader header, bool storesTexts, Strictness strictness);

  /// Takes a row, or nothing of it.
  /// \return false if the text ends before the row, because it has another number of cells
  /// \throws std::runtime_error naming line and column of what cannot be stored
  bool add(const CsvRow& row);

  std::uint64_t rows() const { return rows_; }

  /// Appends the rows that were taken to the signals. A call that throws may be repeated.
  void store();
  /// Does so, and flushes the recording.
  void flush();

  /// One sentence on what was left out; empty if nothing was.
  std::string skipped() const;

 private:
  struct Column {
    CsvColumn described;
    std::optional<CellParser> parser;  ///< none for texts
    std::shared_ptr<parquet::StreamableSignal> signal;
    std::size_t width = 0;
    bool isRoundingTold = false;
    bool isNumberTold = false;  ///< whether a number in a column of texts was told
    std::string firstText;
    // The samples of the block, and how many there were before the row that is being taken.
    std::vector<char> samples;
    std::vector<int> lengths;   ///< of texts
    std::vector<double> times;  ///< of the samples, if a row of the block has none
    std::size_t count = 0;
    bool areTimesStored = false;  ///< a call failed before the samples were
    std::size_t bytesBefore = 0;
    std::size_t countBefore = 0;
  };

  void makeSignals();
  bool isLeftOut(const CsvColumn& column) const;
  bool hasRightWidth(const CsvRow& row);
  bool takeTime(const CsvRow& row);
  std::optional<double> readTime(const CsvRow& row, std::string_view cell);
  // Takes a cell of each column. Leaves nothing of the row if that throws.
  void takeCells(const CsvRow& row);
  void takeCell(const CsvRow& row, Column& column);
  void addSample(Column& column) const;
  void takeText(const CsvRow& row, Column& column);
  void noteNumber(const CsvRow& row, Column& column) const;
  void refuse(const std::string& what, std::uint64_t& count);
  void noteRounding(const std::string& what, bool& isTold) const;

  recording::LiveRecording& live_;
  std::string source_;
  CsvDialect dialect_;
  CsvHeader header_;
  bool storesTexts_;
  Strictness strictness_;
  bool isLastUnknown_;  // whether the last column was left out
  std::vector<Column> columns_;
  std::vector<std::string_view> cells_;  ///< of the row that is being taken
  std::deque<std::string> unquoted_;     ///< those of them that are quoted
  std::vector<double> times_;            ///< of the block's rows
  double time_ = 0;
  std::string timeCell_;
  bool isTimeRoundingTold_ = false;
  std::uint64_t rows_ = 0;
  std::uint64_t skippedRows_ = 0;
  std::uint64_t skippedCells_ = 0;
  std::string firstSkipped_;
};

}  // namespace kyr::tool

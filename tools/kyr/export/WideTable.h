#pragma once

#include <arrow/type_fwd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Losses.h"
#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/SampleArrays.h"
#include "export/TableWriter.h"
#include "kyr/recording/RecordingReader.h"
#include "kyr/recording/Resampling.h"
#include "print/SampleCursor.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

/// A table of the column "time" and a column for each signal. It is read and written in pieces.
///
/// Without resampling, all signals must have the same times, bit for bit.
class WideTable {
 public:
  using Progress = std::function<void(double part)>;

  /// \param reader, signals  must outlive the object
  /// \param losses  gets the values that the table cannot hold exactly
  /// \throws std::runtime_error if the signals have different times, or cannot be resampled
  WideTable(const recording::RecordingReader& reader, const std::vector<ExportSignal>& signals,
            const ExportOptions& options, Losses& losses);

  void write(const TableWriter::Target& target, const Progress& progress);

 private:
  using ArrayPtr = std::shared_ptr<::arrow::Array>;

  struct Number {
    std::int64_t sample = -1;
    double number = 0;
  };

  struct Column {
    int signal;
    int times;  // the first signal with the same times
    bool isInterpolated;
    ToDoubles toDoubles;  // null for samples that are no numbers
    SampleCursor samples;
    SampleArrays arrays;
    // The samples before and after a time may lie in two blocks, which are not read anew for each
    // time between them.
    std::array<Number, 2> known = {};  // the last that was read first
  };

  void addColumn(const ExportSignal& signal, bool isLinear, Losses& losses);
  void findWindow(const Window& window);
  double timeOf(std::uint64_t row) const;
  std::string freeName(std::string name) const;
  std::size_t fittingRows(Column& column, std::size_t count);
  std::int64_t sampleAt(const Column& column, std::size_t row) const;
  void findPlaces(std::size_t count);
  std::shared_ptr<::arrow::RecordBatch> nextPiece();
  void addSamples(Column& column, std::size_t count);
  ArrayPtr interpolated(Column& column, std::size_t count) const;
  static double numberAt(Column& column, std::int64_t sample);

  const recording::RecordingReader& reader_;
  const std::vector<ExportSignal>& signals_;
  std::optional<recording::Resampling> resampling_;
  std::uint64_t rows_;  // behind the last row that is written
  std::vector<Column> columns_;
  std::vector<std::shared_ptr<::arrow::Field>> fields_;
  std::vector<std::string> csvHeader_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::uint64_t row_ = 0;                                      // first row of the next piece
  std::map<int, std::vector<recording::SamplePlace>> places_;  // of the piece, by times
};

}  // namespace kyr::tool

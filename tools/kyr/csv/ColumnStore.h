#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "csv/CsvTable.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"

namespace kyr::tool {

struct StreamOptions {
  std::size_t chunkRows = 8192;   ///< rows per append at most
  std::size_t batchRows = 65536;  ///< rows per row group
};

/// How a pool stores so many signals, of which a batch each is in memory.
/// \param packBelow  contents of fewer bytes will be packed
parquet::SafeStorage storageFor(std::size_t signals, std::size_t packBelow);

/// Stores columns as signals of its own pool, each with exactly the samples that it is given. Equal
/// contents are stored once, and signals share the files of their times.
class ColumnStore : public SampleSink {
 public:
  /// \param columns  number of columns that will come
  /// \param stream  how to stream signals; empty for whole signals
  /// \param packBelow  contents of fewer bytes will be packed
  ColumnStore(const Path& directory, std::size_t columns, std::optional<StreamOptions> stream,
              std::size_t packBelow);

  /// \throws std::runtime_error naming the signal if it cannot be stored
  void append(const CsvColumn& column, const ColumnSamples& samples) override;
  void drop(const CsvColumn& column) override;

  /// To be called at the end for each column that is kept.
  /// \throws std::runtime_error naming the signal if it cannot be stored
  void finish(const CsvColumn& column);

  /// The pool of the columns that were finished.
  parquet::SignalPool& pool() { return pool_; }

 private:
  using Signal = std::shared_ptr<parquet::StreamableSignal>;

  const Signal& signalOf(const CsvColumn& column);

  parquet::SignalPool pool_;
  std::optional<StreamOptions> stream_;
  std::map<int, Signal> signals_;
};

}  // namespace kyr::tool

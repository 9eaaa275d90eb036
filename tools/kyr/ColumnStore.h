#pragma once

#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <memory>
#include <optional>

#include "CsvTable.h"
#include "kyr/parquet/SignalPool.h"

namespace kyr::tool {

struct StreamOptions {
  std::size_t chunkRows = 8192;   ///< rows per append
  std::size_t batchRows = 65536;  ///< rows per row group
};

/// Stores columns as signals of a pool of its own, each with exactly the samples it is given. Equal
/// contents are stored once, with the times in files that signals share, unless the library's
/// options say that each signal has its times beside its samples.
class ColumnStore {
 public:
  /// \param stream  how signals are streamed; empty for whole signals
  ColumnStore(const Path& directory, std::optional<StreamOptions> stream);

  /// \throws std::runtime_error naming the signal if it cannot be stored
  void store(const CsvColumn& column, const Samples& samples);

  parquet::SignalPool& pool() { return *pool_; }

 private:
  void storeWhole(const CsvColumn& column, const Samples& samples);
  void storeStreamed(const CsvColumn& column, const Samples& samples);

  std::unique_ptr<parquet::SignalPool> pool_;
  std::optional<StreamOptions> stream_;
};

}  // namespace kyr::tool

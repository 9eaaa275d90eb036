#pragma once

#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <unordered_map>

#include "CsvTable.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"

namespace kyr::tool {

/// Stores columns as signals of a pool, each with exactly the samples it is given.
///
/// The library lets signals share a file when a hash of their content is equal. That hash takes -0
/// for 0, and is often equal for short columns of small integers: (1, 0) and (0, 67) share a file.
/// So contents that share a file are compared by a second hash; where they differ, the later signal
/// gets a file of its own, with its times beside its samples.
class SignalStore {
 public:
  /// \param separatesTime  whether every signal has its times beside its samples
  SignalStore(parquet::SignalPool& pool, ::arrow::Compression::type codec, bool separatesTime)
      : pool_(pool), codec_(codec), separatesTime_(separatesTime) {}

  /// \throws std::runtime_error naming the signal if it cannot be stored
  void store(const CsvColumn& column, const Samples& samples);

 private:
  void write(const CsvColumn& column, const Samples& samples, bool separatesTime);
  bool isAsStored(const parquet::ParquetSignal& signal, const Samples& samples);

  parquet::SignalPool& pool_;
  ::arrow::Compression::type codec_;
  bool separatesTime_;
  std::unordered_map<int, std::size_t> hashes_;  ///< of the content of shared files, by storage id
};

}  // namespace kyr::tool

#pragma once

#include <arrow/util/type_fwd.h>

#include <cstddef>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "CsvTable.h"
#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

struct StreamOptions {
  std::size_t chunkRows = 8192;   ///< rows per append
  std::size_t batchRows = 65536;  ///< rows per row group
};

/// Whether pools stream, as long as this lives. Chunks are then numbered by a better hash than the
/// library's own, which often takes short chunks of small integers for each other.
class StreamingMode {
 public:
  explicit StreamingMode(bool streams);
  ~StreamingMode();
  StreamingMode(const StreamingMode&) = delete;
  StreamingMode& operator=(const StreamingMode&) = delete;

 private:
  bool flagBefore_;
  parquet::RedundancyChecker::Hasher hasherBefore_;
};

/// Stores columns as streamable signals of a pool, chunk by chunk, each with exactly the samples it
/// is given.
///
/// A streamable signal that begins like an earlier one shares that one's file as long as their
/// chunks are equal, which is exact only if they stay equal to the end. So each distinct content
/// gets a first chunk of a length that makes it unlike the first chunks of all others; equal
/// contents get equal chunks, and share.
class StreamedStore {
 public:
  StreamedStore(parquet::SignalPool& pool, ::arrow::Compression::type codec, StreamOptions options)
      : pool_(pool), codec_(codec), options_(options) {}

  /// \throws std::runtime_error naming the signal if it cannot be stored
  void store(const CsvColumn& column, const Samples& samples);

 private:
  // The bytes of each chunk of a part, in order.
  std::vector<std::size_t> chunkSizes(const CsvColumn& column, const char* bytes, std::size_t size,
                                      KYRSignalDataType type);
  std::size_t firstChunkRows(const CsvColumn& column, const char* bytes, std::size_t rows,
                             std::size_t width, KYRSignalDataType type);

  parquet::SignalPool& pool_;
  ::arrow::Compression::type codec_;
  StreamOptions options_;
  std::unordered_map<std::string, std::size_t> firstRows_;  ///< by content
  std::unordered_set<unsigned long> firstChunks_;           ///< hashes, as the library takes them
};

}  // namespace kyr::tool

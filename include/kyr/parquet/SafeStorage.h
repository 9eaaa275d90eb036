#pragma once

#include <cstddef>

namespace kyr::parquet {

/// \brief Asks a SignalPool for the second set of guarantees; docs/guarantees.md compares the two.
///
/// Whatever the order in which signals are appended, finished, read, reset and deleted, each one's
/// rows are those that were appended. Equal contents are stored once, also those that grow side by
/// side, and counted. What was flushed survives the process. Failures are thrown.
///
/// Hosts that cannot be compiled anew switch it on for all pools with the feature flag
/// "fKYRUseSafeStorage", with the values below.
struct SafeStorage {
  /// When files are written through to the disk, so that a power cut leaves what was written. A
  /// crash of the process leaves it in any case.
  enum class Sync {
    never,    ///< when the system sees fit
    flush,    ///< before each flush() and finish() returns
    seconds,  ///< as `flush`, and after batches if the last time is `syncSeconds` ago
  };

  /// How samples are encoded in the files. Every reader of Parquet gets the same values of all.
  enum class Encodings {
    /// What a sample of each batch asks for: plain values, a dictionary, differences of integers,
    /// or floating-point numbers split by bytes; compressed with Zstandard where that saves a
    /// quarter or more. A codec that is set, for a signal or for all, is used instead; with the
    /// option bDictionary switched off there are no dictionaries.
    smallest,
    /// As `smallest`, but without those split by bytes, which Apache Spark (3.5) only reads with
    /// spark.sql.parquet.enableVectorizedReader=false.
    portable,
    options,  ///< as the serialization options say
  };

  Encodings encodings = Encodings::smallest;
  std::size_t batchRows = 65536;                  ///< rows of a batch at the most, 1 or more
  std::size_t batchBytes = std::size_t{8} << 20;  ///< bytes of a batch in memory at the most
  Sync sync = Sync::never;
  double syncSeconds = 1;  ///< [s]
  /// Whether files outlive the pool. Those that no signal has any more are deleted at the second
  /// SignalPool::flush() after that, so that a list of files made after a flush stays right until
  /// the next one is made.
  bool keepsFiles = false;
  /// Finished contents of fewer bytes get no file yet: they stay in memory until a flush(), or until
  /// a recording is saved, and are lost if the process ends before. 0 for none: what is finished is
  /// in its file. Many small signals are stored several times faster so.
  std::size_t holdBelow = 0;
  std::size_t holdTotal = std::size_t{64} << 20;  ///< bytes of all of them at the most
};

}  // namespace kyr::parquet

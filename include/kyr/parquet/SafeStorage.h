#pragma once

#include <cstddef>

namespace kyr::parquet {

/// \brief Asks a SignalPool for the second set of guarantees; docs/guarantees.md compares the two.
///
/// Each signal's rows are those that were appended, whatever the order in which signals are
/// appended, finished, read, reset and deleted. Equal contents are stored once, also those that
/// grow side by side, and their files are counted. What was flushed survives the process. Failures
/// are thrown.
///
/// Hosts that cannot be compiled anew switch it on for all pools with the feature flag
/// "fKYRUseSafeStorage", with the values below.
///
/// **Descriptors.** Finished files stay open after they were read. All pools of a process together
/// keep at most a quarter of the descriptors that the process may have (the soft limit of
/// RLIMIT_NOFILE when a pool's directory is set) for finished files, an eighth for files that still
/// grow, and no more than 4,096 of either. A pool that needs one more closes the finished file that
/// it has not read for longest, but keeps 16 open in any case. A file that is open is read through
/// its descriptor, also when its name was deleted. A file that was closed is opened by its name; if
/// it is not the file that the pool has written, that is an error. Files that were in the directory
/// before the pool are the exception: whenever all rows are read, the file that has the name then
/// is.
struct SafeStorage {
  /// When files are written through to the disk, so that a power cut leaves what was written. A
  /// crash of the process leaves it in any case.
  enum class Sync {
    never,    ///< when the system sees fit
    flush,    ///< before each flush() and finish() returns
    seconds,  ///< as `flush`, and after a batch if the last time is `syncSeconds` ago
  };

  /// How samples are encoded in the files. Every reader of Parquet gets the same values from all of
  /// them.
  enum class Encodings {
    /// A sample of each batch chooses between plain values, a dictionary, differences of integers,
    /// and floating-point numbers split by bytes; and compression with Zstandard where that saves a
    /// quarter or more. A codec that is set, for a signal or for all, is used instead. With the
    /// option bDictionary switched off there are no dictionaries.
    smallest,
    /// Like `smallest`, but without numbers split by bytes, which Apache Spark 3.5 reads only with
    /// spark.sql.parquet.enableVectorizedReader=false.
    portable,
    options,  ///< as the serialization options say
  };

  Encodings encodings = Encodings::smallest;
  std::size_t batchRows = 65536;                  ///< rows of a batch at the most, 1 or more
  std::size_t batchBytes = std::size_t{8} << 20;  ///< bytes of a batch in memory at the most
  Sync sync = Sync::never;
  double syncSeconds = 1;  ///< [s]
  /// Whether files outlive the pool. A file that no signal has any more is deleted at the second
  /// SignalPool::flush() from then on, so that a list of files made after a flush stays right until
  /// the next list is made.
  bool keepsFiles = false;
  /// Whether growing files become complete Parquet files now and then between flushes, for programs
  /// that read along. If not, they are complete after a flush and once they are finished, and fewer
  /// bytes are written; a crash costs no more rows.
  bool publishesBatches = true;
  /// Finished contents of fewer bytes get no file yet. They stay in memory until a flush(), or
  /// until a recording is saved, and are lost if the process ends before. 0 keeps none in memory:
  /// what is finished is in its file. Many small signals are stored several times faster so.
  std::size_t holdBelow = 0;
  std::size_t holdTotal = std::size_t{64} << 20;  ///< bytes of all contents in memory at the most
  /// Bytes of memory for appended rows at the most, whatever the number of signals. Memory grows by
  /// doubling, and what rows do not fill yet counts, too. Where more would be taken, the largest
  /// batches are written before they are full. Not counted are the objects of a signal, with the
  /// last few rows that came one by one, and rows of signals that repeat what is on disk: up to a
  /// batch of each waits to be compared with it.
  std::size_t memoryTotal = std::size_t{256} << 20;
};

}  // namespace kyr::parquet

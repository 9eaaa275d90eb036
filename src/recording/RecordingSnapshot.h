#pragma once

#include <arrow/util/compression.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/RecordingInfo.h"
#include "safe/SharedStore.h"

namespace kyr::recording {

/// The path of the file of a storage id.
using FileOf = std::function<std::filesystem::path(int)>;

/// Where a pool has its files.
FileOf filesOf(parquet::SignalPool& pool);

/// Collects what recording.json says of signals over some Parquet files.
class InfoBuilder {
 public:
  /// \param store  of a safe pool, whose contents need not be in files; may be null
  explicit InfoBuilder(FileOf fileOf, std::shared_ptr<parquet::SharedStore> store = nullptr)
      : fileOf_(std::move(fileOf)), store_(std::move(store)) {}

  /// Makes room for so many signals.
  void reserve(std::size_t signals);

  /// Adds a signal, whose id no other has, and the files that it names, and tells from them what
  /// the signal's files tell.
  /// \throws std::runtime_error naming a file that is missing or no Parquet file
  void add(SignalInfo signal);

  /// Sizes and checksums of the files are left out, and so are digests of contents whose rows
  /// nobody has looked at.
  RecordingInfo take();

 private:
  struct FileFacts {
    std::uint64_t rowCount = 0;
    ::arrow::Compression::type codec{};
    std::optional<TimeSpan> timeSpan;
  };

  const FileFacts& factsOf(int signalId, int storageId, bool isTime);
  // \param summary  of the rows; null if it is not known
  FileFacts factsOfFile(int signalId, int storageId, bool isTime,
                        const parquet::ContentSummary* summary) const;

  FileOf fileOf_;
  std::shared_ptr<parquet::SharedStore> store_;
  std::vector<SignalInfo> signals_;
  std::unordered_map<std::int64_t, FileFacts> facts_;  // by storage id, and whether it is of times
  std::vector<FileInfo> files_;                        // for each of these facts
};

/// What a recording of the pool says, without sizes and checksums of its files. Finishes all
/// streamable signals.
/// \throws std::invalid_argument, std::runtime_error  as saveRecording()
RecordingInfo snapshotOf(parquet::SignalPool& pool,
                         const std::vector<SignalDescription>& descriptions);

}  // namespace kyr::recording

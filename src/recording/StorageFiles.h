#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// A Parquet file of a storage directory that nobody writes any more.
struct RecoveredStorage {
  bool isReadable = false;
  bool isGrowing = false;  ///< whether it can be cut behind a batch
  std::uint64_t rows = 0;
  std::uint64_t bytesCut = 0;
};

/// That a file, when it was made, was a part of a signal.
struct PartClaim {
  SignalInfo signal;
  bool isTime = false;
};

/// The files of a folder's storage, made complete where they can be. A file is looked at when it is
/// asked for. Failures of the disk are exceptions that name the file.
class StorageFiles {
 public:
  explicit StorageFiles(std::filesystem::path directory);

  /// Of files that are there, ascending.
  const std::vector<int>& ids() const { return ids_; }

  const RecoveredStorage& file(int id);

  /// A file of exactly the first \p rows rows of the file \p id, which has that many: the file
  /// itself, cut if need be, or a new one.
  /// \param mayCut  whether nobody needs the rows behind them
  int withRows(int id, std::uint64_t rows, bool mayCut);

  /// The signals that the file says it is of.
  std::vector<PartClaim> claims(int id);

  /// A signal over a file that tells of none, as far as its columns do.
  std::optional<SignalInfo> guess(int id);

  /// A time of a time file.
  std::optional<double> time(int id, std::uint64_t row);

 private:
  std::filesystem::path pathOf(int id) const { return directory_ / std::to_string(id); }
  bool cutBehind(int id, std::uint64_t rows);
  int copyRows(int id, std::uint64_t rows);

  std::filesystem::path directory_;
  std::vector<int> ids_;
  int nextId_ = 0;
  std::map<int, RecoveredStorage> files_;
  std::map<std::pair<int, std::uint64_t>, int> copies_;
};

}  // namespace kyr::recording

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/ContentReader.h"
#include "files/RowGroupCache.h"
#include "files/pack/GrowingPack.h"
#include "recording/OpenFolder.h"

namespace kyr::recording {

/// The growing packs of a live recording (safe/GrowingPacks.h), which have the last rows of its
/// contents.
///
/// Failures of files are std::system_error or std::runtime_error and name the file. One thread at a
/// time.
class LivePacks {
 public:
  struct Options {
    /// Whether batches are compared with their checksums before they are taken note of.
    parquet::BatchChecks checks = parquet::BatchChecks::no;
    /// Whether they are before their rows are handed out.
    parquet::BatchChecks readChecks = parquet::BatchChecks::no;
  };

  LivePacks(std::shared_ptr<const OpenFolder> folder, const Options& options,
            std::shared_ptr<parquet::RowGroupCache> cache);

  /// Takes note of the packs that there are, and of their batches. Packs that were replaced are
  /// forgotten; runs that were handed out stay readable.
  void refresh();

  /// The runs of a content from a row on, each beginning where the one before ends, up to the first
  /// row that no pack has.
  std::vector<parquet::ContentRun> runsOf(int storageId, std::uint64_t from) const;

  /// By file name.
  const std::map<std::string, std::unique_ptr<parquet::GrowingPack>>& packs() const {
    return packs_;
  }
  /// Files that are called as packs and are none, or not from their first record on.
  const std::vector<std::string>& unreadable() const { return unreadable_; }

 private:
  std::shared_ptr<const OpenFolder> folder_;
  Options options_;
  std::shared_ptr<parquet::RowGroupCache> cache_;
  std::map<std::string, std::unique_ptr<parquet::GrowingPack>> packs_;
  std::vector<std::string> unreadable_;
};

/// The packs that there are, up to their first batch that is damaged.
/// \throws std::system_error if one cannot be read
LivePacks checkedPacks(std::shared_ptr<const OpenFolder> folder);

}  // namespace kyr::recording

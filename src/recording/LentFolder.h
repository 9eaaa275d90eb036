#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "recording/ContentFiles.h"
#include "recording/OpenFolder.h"
#include "safe/SharedStore.h"

namespace kyr::recording {

/// A saved recording whose contents a pool reads where they lie.
class LentFolder final : public parquet::Lender {
 public:
  LentFolder(std::shared_ptr<const OpenFolder> folder, std::shared_ptr<const RecordingInfo> info);

  const std::filesystem::path& path() const { return folder_->path(); }
  const Attributes& attributes() const { return attributes_; }

  /// Lets times that are a column of a file of samples be a content of their own, because
  /// streamable signals have their times apart. Called before lend().
  /// \param newId  the first id that such times get; the one behind the last afterwards
  void splitTimes(const std::vector<const SignalInfo*>& signals, int& newId);
  /// The content that a signal has as its times.
  std::optional<int> timeIdOf(const SignalInfo& signal) const;
  /// Lends the contents of some signals of the recording.
  void lend(const std::vector<const SignalInfo*>& signals);

  std::optional<std::uint64_t> rowsOf(int id) const override;
  parquet::ContentSummary summaryOf(int id) const override;
  std::shared_ptr<parquet::ContentReader> open(int id) override;

  /// What the recording says of the file that holds a content and nothing else; null if the content
  /// is in a pack, or a column of a file.
  const FileInfo* wholeFile(int storageId) const;
  /// Where such a file is.
  std::filesystem::path pathOf(const FileInfo& file) const;

  /// Whether \p folder is the recording.
  bool isAt(const std::filesystem::path& folder) const;
  /// Reads the contents from the recording that has taken the place of this one. It was saved from
  /// the pool, so that each content has its id there.
  void follow();

 private:
  // What signals ask of a content.
  struct Use {
    const SignalInfo* signal = nullptr;
    bool isTime = false;
  };

  struct Lent {
    Use use;
    std::vector<Use> others;                 // uses that differ from it
    std::weak_ptr<::arrow::Schema> checked;  // columns of the open file that were found right
  };

  // Columns, whether they are asked for as times, and the signal's category and type.
  using UseOfColumns =
      std::tuple<std::shared_ptr<::arrow::Schema>, bool, KYRSignalCategory, KYRSignalDataType>;

  void lend(int storageId, const Use& use);
  const FileInfo& fileOf(int storageId) const;
  bool isSplit(int storageId) const { return splitTimes_.count(storageId) > 0; }
  void check(const parquet::ContentReader& content, const ContentUse& use);
  bool hasTimeColumn(const SignalInfo& signal);

  std::shared_ptr<const OpenFolder> folder_;
  std::shared_ptr<const RecordingInfo> lent_;  // has the signals of the uses
  Attributes attributes_;
  std::unique_ptr<ContentFiles> files_;
  UseOfColumns checkedLast_{};               // columns that were right; most contents have the same
  std::set<int> packs_;                      // packs whose files were found
  std::unordered_map<int, Lent> contents_;   // by storage id in the pool
  std::unordered_map<int, int> splitTimes_;  // ids of times by the file that has their column
  std::unordered_map<int, int> timeColumns_;  // the files by the ids of these times
};

}  // namespace kyr::recording

#pragma once

#include <arrow/type_fwd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "recording/ContentFiles.h"
#include "recording/OpenFolder.h"
#include "safe/SharedStore.h"

namespace kyr::recording {

/// A saved recording whose contents a pool reads where they lie.
class LentFolder final : public parquet::Lender, public std::enable_shared_from_this<LentFolder> {
 public:
  LentFolder(std::shared_ptr<const OpenFolder> folder, std::shared_ptr<const RecordingInfo> info);

  const std::filesystem::path& path() const { return folder_->path(); }
  const Attributes& attributes() const { return attributes_; }

  /// Offers the contents of some signals to a store.
  void lend(parquet::SharedStore& store, const std::vector<SignalInfo>& signals);
  /// Lets times that are a column of a file of samples be a content of their own, because
  /// streamable signals have their times apart. Called before lend().
  /// \param newId  the first id that such times get; the one behind the last afterwards
  void splitTimes(std::vector<SignalInfo>& signals, int& newId);

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
  // What signals ask of a content. The signals are copies, because the recording may be replaced.
  struct Use {
    SignalInfo signal;
    bool isTime = false;
  };

  struct Lent {
    std::vector<Use> uses;
    std::weak_ptr<::arrow::Schema> checked;  // columns of the open file that were found right
  };

  void offer(parquet::SharedStore& store, int storageId, const SignalInfo& signal, bool isTime);
  std::shared_ptr<parquet::ContentReader> open(int storageId);
  void check(const parquet::ContentReader& content, const ContentUse& use) const;
  bool hasTimeColumn(const SignalInfo& signal);

  std::shared_ptr<const OpenFolder> folder_;
  Attributes attributes_;
  std::unique_ptr<ContentFiles> files_;
  std::set<int> packs_;             // whose files were found
  std::map<int, Lent> contents_;    // by storage id in the pool
  std::map<int, int> timeColumns_;  // storage ids of split times, and of their files
  std::set<int> splitFiles_;
};

}  // namespace kyr::recording

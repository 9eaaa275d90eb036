#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// The pack of a number, which is among them.
const PackInfo& packOf(const std::vector<PackInfo>& packs, int number);

/// Where the contents of several recordings are, by their digests.
class ContentIndex {
 public:
  struct Run {
    std::filesystem::path folder;
    std::vector<FileInfo> files;
    std::vector<PackInfo> packs;
  };
  /// A content of a recording. The index owns what it refers to.
  struct Place {
    const Run* run = nullptr;
    const FileInfo* file = nullptr;

    /// The pack that holds the content, which is not in a file of its own.
    const PackInfo& pack() const;
    /// The file that holds the content.
    std::filesystem::path path() const;
  };

  /// Takes note of the contents that the index does not have. What it has of an older recording in
  /// the folder is forgotten.
  void add(const std::filesystem::path& folder, const RecordingInfo& info);

  void forgetFolder(const std::filesystem::path& folder);
  /// Forgets the contents of some files.
  /// \return whether there were any
  bool forgetFiles(const std::set<std::filesystem::path>& files);

  /// A content in a file of its own, or in a pack; null if there is none.
  const Place* whole(const std::string& digest) const { return find(wholes_, digest); }
  const Place* packed(const std::string& digest) const { return find(packed_, digest); }

 private:
  using Places = std::unordered_map<std::string, Place>;
  static const Place* find(const Places& places, const std::string& digest);
  Places& placesFor(const FileInfo& file) { return file.pack ? packed_ : wholes_; }

  std::map<std::filesystem::path, std::unique_ptr<Run>> runs_;  // by folder
  Places wholes_;
  Places packed_;
};

/// Says which files of other recordings a recording is to share, and under which ids it has its
/// contents then. The storage ids in a pack are those of the recording that wrote it, so whoever
/// shares a pack gives its contents these ids.
class DeduplicationPlan {
 public:
  struct Content {
    const FileInfo* old = nullptr;               ///< in the recording
    const ContentIndex::Place* place = nullptr;  ///< in another one, if that is to be shared
    int id = 0;                                  ///< from now on; equal contents have one id
    bool isRepacked = false;                     ///< whether it gets into a new pack
  };

  /// \param info  of a recording whose contents have digests; outlives the plan, as the index does
  DeduplicationPlan(const RecordingInfo& info, const ContentIndex& index);

  const std::vector<Content>& contents() const { return contents_; }
  /// The new id of a content.
  int idOf(int oldId) const { return ids_.at(oldId); }

 private:
  void choosePlaces(const ContentIndex& index);
  void giveIdsOfPacks();
  void keepPacks();
  void giveOtherIds();
  // Gives a content an id, unless another content has it.
  bool claim(Content& content, int id);
  void give(Content& content, int id);
  int unusedId();

  std::vector<Content> contents_;
  std::unordered_map<std::string, int> claims_;  // new ids by digest
  std::unordered_set<int> taken_;                // the new ids
  std::unordered_map<int, int> ids_;             // new ids by old ids
  int lastId_ = -1;
};

}  // namespace kyr::recording

#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "files/CheckedFile.h"
#include "files/ContentReader.h"
#include "kyr/recording/DamagedError.h"
#include "kyr/recording/RecordingInfo.h"
#include "recording/LivePacks.h"
#include "recording/OpenFolder.h"
#include "safe/OpenFiles.h"

namespace kyr::recording {

/// What a signal needs a content for.
struct ContentUse {
  const SignalInfo& signal;
  bool isTime = false;
};

/// The contents of a recording, opened when they are asked for. The files that were used last stay
/// open, up to a number.
///
/// A file that is not what recording.json says of it is a DamagedError: missing, of another size,
/// with other columns or another number of rows, with other bytes where checksums are compared.
/// This is the place where that is checked, for all who read recordings. One thread at a time.
class ContentFiles {
 public:
  /// \param checks  whether checksums are compared
  ContentFiles(std::shared_ptr<const OpenFolder> folder, bool checks, std::size_t maxOpenFiles);

  /// From now on the contents are those of \p info, in which files of a live recording have no
  /// checksum. If both are live, files that are open stay so.
  void describe(std::shared_ptr<const RecordingInfo> info, bool isLive);

  const OpenFolder& folder() const { return *folder_; }
  /// What recording.json says of a file.
  /// \throws std::runtime_error if it does not list the file
  const FileInfo& fileInfo(int storageId) const;

  /// A content, whose columns are those that the signal says. A live content may have fewer rows
  /// than were flushed if its file is damaged.
  std::shared_ptr<parquet::ContentReader> open(int storageId, const ContentUse& use);
  /// \throws DamagedError if the columns of a content are not those that the signal says
  static void requireUse(const parquet::ContentReader& content, const ContentUse& use);
  /// The same with its columns unchecked.
  std::shared_ptr<parquet::ContentReader> open(int storageId);
  /// The name of the file that has a content, in the storage folder.
  std::string nameOf(const FileInfo& info) const;
  /// Throws if the file of a content is missing or of another size. It is not opened.
  void requireFile(const FileInfo& info) const;

 private:
  struct OpenFile {
    std::int64_t key = 0;
    std::shared_ptr<parquet::ContentReader> content;  // null for a pack
    std::shared_ptr<parquet::ContentFile> pack;
    parquet::DescriptorCount descriptor = parquet::OpenFiles::countFinished();
  };

  // Finds a file that is open and notes that it was used.
  OpenFile* find(std::int64_t key);
  OpenFile& keep(std::int64_t key);
  void closeLeastRecentlyUsed();
  std::shared_ptr<const DiskFile> openDisk(const std::string& name);
  // Opens the recording that has taken the place of this one, if one has.
  bool followReplaced();
  // Throws if the recording that has taken the place of this one does not have the same file.
  void requireKept(const std::string& name) const;
  [[noreturn]] void failToFind(const std::string& name, const std::system_error& error) const;
  // Opens a file of the size that recording.json says.
  template <typename Info>
  std::shared_ptr<const DiskFile> openSized(const std::string& name, const Info& info);
  template <typename Info>
  std::shared_ptr<const ByteSource> checked(std::shared_ptr<const DiskFile> disk,
                                            const Info& info) const;
  std::shared_ptr<parquet::InputFile> openInput(const FileInfo& info);
  std::shared_ptr<parquet::ContentFile> openPack(int number);
  const PackInfo& packInfo(int number) const;
  std::shared_ptr<parquet::ContentReader> openFile(const FileInfo& info);
  // A content of a live recording, which may have its last rows, or all of them, in growing packs.
  std::shared_ptr<parquet::ContentReader> openLive(const FileInfo& info);
  std::shared_ptr<parquet::ContentReader> openLiveFile(const FileInfo& info);
  LivePacks& livePacks();
  // Gives it the rows up to those of \p info.
  // \return whether it has them
  bool extend(parquet::ContentReader& content, const FileInfo& info);

  std::shared_ptr<const OpenFolder> folder_;
  bool checks_;
  std::size_t maxOpenFiles_;
  parquet::OpenFiles limits_;  // tells whether the process may open more files
  bool isLive_ = false;
  std::shared_ptr<const RecordingInfo> info_;
  std::unique_ptr<const RecordingInfo> replacement_;  // once another recording took the place
  std::shared_ptr<parquet::RowGroupCache> cache_;
  std::unique_ptr<LivePacks> livePacks_;  // once a live content was opened
  bool arePacksKnown_ = false;            // up to what is described
  std::list<OpenFile> open_;              // the last used first
  std::map<std::int64_t, std::list<OpenFile>::iterator> byKey_;
};

/// Calls \p work, which reads a content. What is wrong with its file becomes a DamagedError that
/// says which rows cannot be had.
/// \param rows  rows of the content
/// \param content  null while it is being opened
template <typename Work>
auto readingContent(std::uint64_t rows, const parquet::ContentReader* content, Work&& work) {
  const auto refuse = [](const std::string& what, const parquet::RowSpan& lost) {
    throw DamagedError(fmt::format("{}: rows {} to {} cannot be read", what, lost.from, lost.to));
  };
  try {
    return work();
  } catch (const parquet::DamagedBytes& error) {
    refuse(error.what(), content ? content->rowsIn(error) : parquet::RowSpan{0, rows});
  } catch (const DamagedError&) {
    throw;
  } catch (const std::system_error&) {
    throw;
  } catch (const std::runtime_error& error) {
    refuse(error.what(), {0, rows});
  }
  throw std::logic_error("unreachable");
}

/// How many files a reader may have open unless it is told: an eighth of what the process may, at
/// least 8 and at most 256.
std::size_t defaultOpenFiles();

}  // namespace kyr::recording

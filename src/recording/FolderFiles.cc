#include "recording/FolderFiles.h"

#include <linux/btrfs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>
#include <vector>

#include "files/ContentDigest.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace {

struct Extent {
  std::uint64_t at = 0;  // in the file
  std::uint64_t block = 0;
  std::uint64_t length = 0;

  bool operator==(const Extent& other) const {
    return at == other.at && block == other.block && length == other.length;
  }
};

// Whether blocks of the two files that have one number are the same block. Subvolumes of btrfs are
// different devices of one file system.
bool areOnOneFileSystem(const DiskFile& a, const DiskFile& b) {
  struct stat one {};
  struct stat other {};
  if (::fstat(a.descriptor(), &one) != 0 || ::fstat(b.descriptor(), &other) != 0) return false;
  if (one.st_dev == other.st_dev) return true;
  btrfs_ioctl_fs_info_args ones{};
  btrfs_ioctl_fs_info_args others{};
  return ::ioctl(a.descriptor(), BTRFS_IOC_FS_INFO, &ones) == 0 &&
         ::ioctl(b.descriptor(), BTRFS_IOC_FS_INFO, &others) == 0 &&
         std::equal(std::begin(ones.fsid), std::end(ones.fsid), std::begin(others.fsid));
}

// Where a file lies on the disk; empty if the file system does not tell, or if a part of the file
// has no blocks of its own.
std::vector<Extent> extentsOf(const DiskFile& file) {
  constexpr std::uint32_t kMost = 64;
  // Parts with these flags lie among the metadata or in a block with other files, or nowhere yet.
  constexpr std::uint32_t kNoBlocks = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC |
                                      FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL |
                                      FIEMAP_EXTENT_NOT_ALIGNED;
  // The kernel puts the extents behind the request.
  std::vector<std::uint64_t> room((sizeof(fiemap) + kMost * sizeof(fiemap_extent)) / 8);
  auto* const request = reinterpret_cast<fiemap*>(room.data());
  std::vector<Extent> extents;
  for (bool isLast = false; !isLast;) {
    request->fm_start = extents.empty() ? 0 : extents.back().at + extents.back().length;
    request->fm_length = FIEMAP_MAX_OFFSET - request->fm_start;
    request->fm_flags = FIEMAP_FLAG_SYNC;
    request->fm_extent_count = kMost;
    if (::ioctl(file.descriptor(), FS_IOC_FIEMAP, request) != 0) return {};
    isLast = request->fm_mapped_extents == 0;
    for (std::uint32_t i = 0; i < request->fm_mapped_extents; ++i) {
      const fiemap_extent& extent = request->fm_extents[i];
      if ((extent.fe_flags & kNoBlocks) != 0) return {};
      extents.push_back({extent.fe_logical, extent.fe_physical, extent.fe_length});
      isLast = (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
    }
  }
  return extents;
}

}  // namespace

FileDigest digestFile(const fs::path& file) {
  return digestOf(DiskFile(file, DiskFile::Mode::readOnly));
}

FileDigest digestOf(const ByteSource& file) {
  constexpr std::size_t kMost = std::size_t{256} << 10U;
  if (const std::uint64_t size = file.size(); size <= kMost) {
    std::vector<char> bytes(static_cast<std::size_t>(size));
    return digestOfAll({bytes.data(), file.readAt(0, bytes.data(), bytes.size())});
  }
  FileDigester digester;
  forEachPieceOf(file, [&](std::string_view piece, std::uint64_t /*at*/) {
    digester.add(piece.data(), piece.size());
  });
  return digester.finish();
}

void describeRowsIn(std::shared_ptr<const DiskFile> stored, FileInfo& file) {
  if (!file.contentDigest.empty()) return;
  parquet::ContentReader content(std::make_shared<parquet::InputFile>(std::move(stored)),
                                 std::make_shared<parquet::RowGroupCache>());
  if (makesSamples(content.schema())) describeRows(file, summaryOf(content));
}

FileDigest copyFile(const fs::path& from, const fs::path& to) {
  const DiskFile in(from, DiskFile::Mode::readOnly);
  DiskFile out(to, DiskFile::Mode::createNew);
  FileDigester digester;
  forEachPieceOf(in, [&](std::string_view piece, std::uint64_t at) {
    digester.add(piece.data(), piece.size());
    out.writeAt(at, {piece});
  });
  out.close();
  return digester.finish();
}

Sharing shareFile(const fs::path& from, const fs::path& to) {
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(from, error))) return Sharing::none;
  fs::create_hard_link(from, to, error);
  if (!error) return Sharing::linked;
  // The limit of links, or another volume of the same file system.
  const DiskFile in(from, DiskFile::Mode::readOnly);
  const DiskFile out(to, DiskFile::Mode::createNew);
  if (::ioctl(out.descriptor(), FICLONE, in.descriptor()) == 0) return Sharing::cloned;
  fs::remove(to);
  return Sharing::none;
}

bool areShared(const fs::path& a, const fs::path& b) {
  if (fs::equivalent(a, b)) return true;
  const DiskFile one(a, DiskFile::Mode::readOnly);
  const DiskFile other(b, DiskFile::Mode::readOnly);
  if (!areOnOneFileSystem(one, other)) return false;
  const auto extents = extentsOf(one);
  return !extents.empty() && extents == extentsOf(other);
}

bool isFolder(const fs::path& path) {
  std::error_code ignored;
  return fs::is_directory(fs::symlink_status(path, ignored));
}

bool isLinkOf(const fs::path& path, const fs::path& other) {
  std::error_code error;
  if (!fs::is_symlink(fs::symlink_status(path, error))) return fs::equivalent(path, other, error);
  const bool isSame = fs::read_symlink(path, error) == fs::read_symlink(other, error);
  return isSame && !error;
}

void replaceTextFile(const Folder& folder, const std::string& name, const std::string& text,
                     bool syncs) {
  const std::string fresh = name + ".new";
  folder.remove(fresh);
  const auto file = folder.open(fresh, DiskFile::Mode::createNew);
  try {
    file->writeAt(0, {text});
    if (syncs) file->syncAll();
    file->close();
    folder.rename(fresh, folder, name);
  } catch (...) {
    folder.tryRemove(fresh);
    throw;
  }
  if (syncs) folder.sync();
}

}  // namespace kyr::recording

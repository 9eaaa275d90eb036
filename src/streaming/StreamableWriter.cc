#include "kyr/parquet/StreamableWriter.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <limits>
#include <shared_mutex>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <variant>

#include "files/TableWriter.h"
#include "kyr/parquet/FileSelector.h"
#include "kyr/platform/FileSystem.h"
#include "platform/FileLinks.h"
#include "storage/FileFormats.h"
#include "streaming/RowGroups.h"
#include "streaming/TableFiles.h"

namespace kyr::parquet {

namespace {

constexpr int kNoId = std::numeric_limits<int>::min();
constexpr std::int64_t kMaxRowGroupRows = 100000000;

using WriterHandle = std::unique_ptr<TableWriter>;
using ReaderHandle = std::unique_ptr<TableReader>;

struct FileEntry {
  explicit FileEntry(Path file) : path(std::move(file)) {}

  std::optional<std::variant<WriterHandle, ReaderHandle>> handle;
  std::shared_ptr<::parquet::FileMetaData> metadata;
  std::optional<RowIndex> rowIndex;  // of the metadata; made by the first read of a range
  Path path;
  std::shared_mutex lock;  // for hosts that share files between threads; not taken by anyone yet
};

std::optional<int> leadingNumber(const std::string& name) {
  try {
    return std::stoi(name, nullptr, 10);
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  } catch (const std::out_of_range&) {
    return std::nullopt;
  }
}

// Ignores a failure, so that one file that cannot be closed or deleted does not save the others.
template <typename Operation>
void quietly(Operation&& operation) noexcept {
  try {
    operation();
  } catch (const std::exception&) {
    return;
  }
}

void openForReading(FileEntry& entry) {
  if (entry.handle) {
    if (std::holds_alternative<ReaderHandle>(*entry.handle)) return;
    if (!std::get<WriterHandle>(*entry.handle)->isClosed()) {
      throw std::runtime_error("File is still open for writing.");
    }
  }
  auto reader = std::make_unique<TableReader>(entry.path);
  entry.metadata = reader->metadata();
  entry.rowIndex.reset();
  entry.handle = std::move(reader);
}

}  // namespace

class StreamableWriter::Impl {
 public:
  using EntryPtr = std::unique_ptr<FileEntry>;

  EntryPtr& slot(int id) {
    const auto found = files.find(id);
    if (found == files.end()) {
      throw std::out_of_range(fmt::format("storage id {} is not known", id));
    }
    if (!found->second) {
      throw std::out_of_range(
          fmt::format("storage id {} is lost: an earlier operation on it failed", id));
    }
    return found->second;
  }

  bool isLost(int id) const {
    const auto found = files.find(id);
    return found != files.end() && !found->second;
  }

  // Runs \p operation on the entry, which is out of the table meanwhile. If the operation throws,
  // the entry is destroyed and the id is lost.
  template <typename Operation>
  auto withEntry(int id, Operation&& operation) {
    EntryPtr& place = slot(id);
    EntryPtr entry = std::move(place);
    if constexpr (std::is_void_v<decltype(operation(*entry))>) {
      operation(*entry);
      place = std::move(entry);
    } else {
      auto result = operation(*entry);
      place = std::move(entry);
      return result;
    }
  }

  int createFile(int id, const std::string& name, const ::arrow::Schema& schema,
                 const Compression& compression) {
    auto entry = std::make_unique<FileEntry>(directory.join(name));
    removeIfLinked(entry->path.toFilesystem());
    const auto stream =
        ::arrow::io::FileOutputStream::Open(entry->path.toNarrow(), /*append=*/false);
    throwIfFailed(stream.status(), entry->path);
    auto writer =
        TableWriter::open(formats.of(schema.WithMetadata(schema.metadata()), compression), *stream);
    throwIfFailed(writer.status(), entry->path);
    // From here on, a scan of the directory recognises the file by its magic.
    throwIfFailed((*writer)->flush(), entry->path);
    entry->handle = *std::move(writer);
    files.emplace(id, std::move(entry));
    return id;
  }

  std::shared_ptr<::arrow::Table> readRange(int id, unsigned long from, unsigned long to,
                                            KeptRowGroups* kept) {
    FileEntry& entry = openToRead(id);
    TableReader& reader = *std::get<ReaderHandle>(*entry.handle);
    ::parquet::arrow::FileReader* tables = nullptr;
    withEntry(id, [&](FileEntry&) { tables = &reader.tables(); });
    return readRows(*tables, *entry.rowIndex, from, to, kept);
  }

  FileEntry& openToRead(int id) {
    withEntry(id, openForReading);
    FileEntry& entry = *slot(id);
    if (!entry.rowIndex) entry.rowIndex.emplace(*entry.metadata);
    TableReader& reader = *std::get<ReaderHandle>(*entry.handle);
    if (reader.noteUse()) spareDescriptors(id);
    return entry;
  }

  // Keeps only the files open that were opened last to be read.
  void spareDescriptors(int id) {
    constexpr std::size_t kOpen = 256;
    opened.push_back(id);
    if (opened.size() <= kOpen) return;
    const auto first = files.find(opened.front());
    opened.pop_front();
    if (first == files.end() || !first->second || !first->second->handle) return;
    if (const auto* handle = std::get_if<ReaderHandle>(&*first->second->handle)) {
      (*handle)->suspend();
    }
  }

  int largestId() const {
    int largest = kNoId;
    for (const auto& file : files) largest = std::max(largest, file.first);
    return largest;
  }

  void note(int id, ::arrow::Status status) {
    if (!status.ok()) failures.emplace(id, status);
    lastWriteStatus = std::move(status);
  }

  void scan() {
    if (directory.empty() || !fileSystem::isDirectory(directory)) return;
    std::unordered_map<int, EntryPtr> found;
    std::vector<Path> unnumbered;
    std::int64_t largest = kNoId;
    const auto walk = FileSelector::create(directory);
    for (;;) {
      const auto it = FileSelector::next(walk.get(), FileSelector::parquetFileFilter);
      if (it == directory_iterator()) break;
      const DirectoryEntry entry = it.entry();
      if (const auto id = leadingNumber(entry.fileName().toNarrow())) {
        found.emplace(*id, std::make_unique<FileEntry>(entry.fullPath()));
        largest = std::max<std::int64_t>(largest, *id);
      } else {
        unnumbered.push_back(entry.fullPath());
      }
    }
    if (largest + static_cast<std::int64_t>(unnumbered.size()) > std::numeric_limits<int>::max()) {
      throw std::runtime_error(directory.toNarrow() + ": no storage ids left for its files");
    }
    for (const Path& path : unnumbered) {
      found.emplace(static_cast<int>(++largest), std::make_unique<FileEntry>(path));
    }
    files.merge(found);
    if (largest > lastId.load()) lastId.store(static_cast<int>(largest));
  }

  Path directory;
  std::deque<int> opened;  // ids in the order in which their files were opened to be read
  std::atomic<int> lastId{-1};
  std::unordered_map<int, EntryPtr> files;
  FileFormats formats;
  bool preserve = false;
  ::arrow::Status lastWriteStatus;
  std::unordered_map<int, ::arrow::Status> failures;
};

StreamableWriter::StreamableWriter() : StreamableWriter(fileSystem::currentDirectory().native()) {}

StreamableWriter::StreamableWriter(const Path& directory) : impl_(std::make_unique<Impl>()) {
  setParquetDirectory(directory);
}

StreamableWriter::~StreamableWriter() {
  if (impl_->preserve) return;
  for (const auto& [id, entry] : impl_->files) {
    if (!entry) continue;
    const Path path = entry->path;
    quietly([&, id = id] { close(id); });
    quietly([&] { fileSystem::removeFile(path); });
  }
}

void StreamableWriter::setParquetDirectory(const Path& directory) {
  if (!impl_->directory.empty() && impl_->directory != directory) {
    throw std::runtime_error("Parquet directory cannot be changed!");
  }
  impl_->directory = directory;
  impl_->scan();
}

Path StreamableWriter::parquetDirectory() const { return impl_->directory; }

bool StreamableWriter::isParquetDirectoryEmpty() const { return impl_->files.empty(); }

int StreamableWriter::create(const ::arrow::Schema& schema, const Compression& compression) {
  const int id = ++impl_->lastId;
  return impl_->createFile(id, std::to_string(id), schema, compression);
}

int StreamableWriter::create(const std::string& name, const ::arrow::Schema& schema,
                             const Compression& compression) {
  const int id = ++impl_->lastId;
  return impl_->createFile(id, name, schema, compression);
}

void StreamableWriter::write(int id, const ::arrow::Table& table) {
  impl_->withEntry(id, [&](FileEntry& entry) {
    if (!entry.handle) throw std::runtime_error("File is not opened.");
    auto* writer = std::get_if<WriterHandle>(&*entry.handle);
    if (!writer) {
      throw std::runtime_error("Only parquet file writer is accepted in write().");
    }
    if (!(*writer)->schema().Equals(*table.schema(), /*check_metadata=*/false)) {
      throw std::runtime_error("Parquet schema mismatch.");
    }
    // A failure is only noted: hosts append from the simulation's step function and look at the end
    // whether all was written.
    ::arrow::Status status = (*writer)->write(table, kMaxRowGroupRows);
    if (status.ok()) status = (*writer)->flush();
    impl_->note(id, std::move(status));
  });
}

void StreamableWriter::close(const int& id) {
  impl_->withEntry(id, [&](FileEntry& entry) {
    if (!entry.handle) return;
    if (auto* writer = std::get_if<WriterHandle>(&*entry.handle)) {
      if (*writer && (*writer)->isClosed()) return;
      if (!*writer) throw std::runtime_error("File close error: The writer is still in using");
      impl_->note(id, (*writer)->close());
    } else if (!std::get<ReaderHandle>(*entry.handle)) {
      throw std::runtime_error("File close error: The writer is still in using");
    }
    entry.handle.reset();
  });
}

std::shared_ptr<::arrow::Table> StreamableWriter::read(int id, unsigned long from,
                                                       unsigned long to) {
  return impl_->readRange(id, from, to, nullptr);
}

bool StreamableWriter::readElements(int id, unsigned long from, unsigned long to,
                                    std::vector<char>& out) {
  const FileEntry& entry = impl_->openToRead(id);
  return std::get<ReaderHandle>(*entry.handle)->readElements(*entry.rowIndex, from, to, out);
}

void StreamableWriter::clone(int src, int dst, unsigned long from, unsigned long to) {
  if (const auto rows = read(src, from, to)) write(dst, *rows);
}

void StreamableWriter::cloneEach(int src, int dst,
                                 const std::function<std::optional<RowRange>()>& next) {
  KeptRowGroups kept;
  while (const auto range = next()) {
    if (const auto rows = impl_->readRange(src, range->first, range->second, &kept)) {
      write(dst, *rows);
    }
  }
}

void StreamableWriter::remove(const int& id) {
  if (impl_->isLost(id)) {
    impl_->files.erase(id);
    impl_->failures.erase(id);
    return;
  }
  const auto entry = std::move(impl_->slot(id));
  // The removed id still counts as the largest one unless there is a larger one, so ids are not
  // given twice while the writer lives.
  if (impl_->lastId.load() == id) impl_->lastId.store(impl_->largestId());
  fileSystem::removeFile(entry->path);
  impl_->files.erase(id);
  impl_->failures.erase(id);
}

std::string StreamableWriter::getFileName(int id) {
  return impl_->slot(id)->path.fileName().toNarrow();
}

std::vector<int> StreamableWriter::getAllParquetStorageIDs() {
  std::vector<int> ids;
  for (const auto& file : impl_->files) ids.push_back(file.first);
  return ids;
}

bool StreamableWriter::checkDataChunkExists(int id) const { return impl_->files.count(id) > 0; }

void StreamableWriter::preserveDirectory(bool preserve) { impl_->preserve = preserve; }

::arrow::Status StreamableWriter::lastWriteStatus() const { return impl_->lastWriteStatus; }

::arrow::Status StreamableWriter::writeStatus(int id) const {
  const auto failed = impl_->failures.find(id);
  return failed == impl_->failures.end() ? ::arrow::Status::OK() : failed->second;
}

}  // namespace kyr::parquet

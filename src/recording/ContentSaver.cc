#include "recording/ContentSaver.h"

#include <arrow/api.h>

#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "kyr/parquet/ColumnNames.h"
#include "platform/Parallel.h"
#include "recording/FolderFiles.h"
#include "recording/RecordingFolder.h"
#include "recording/TimeSpans.h"
#include "safe/Content.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::Content;

namespace {

// A finished file of a pool never changes any more: the recording can share it. Whoever writes to a
// name that other names share the file of gives it a file of its own first (platform/FileLinks.h).
FileDigest linkOrCopy(const fs::path& from, const fs::path& to) {
  return shareFile(from, to) == Sharing::none ? copyFile(from, to) : digestFile(to);
}

}  // namespace

ContentSaver::ContentSaver(FileOf fileOf, std::shared_ptr<parquet::SharedStore> store,
                           std::shared_ptr<const LentFolder> lent, fs::path storage,
                           const SaveOptions& options)
    : fileOf_(std::move(fileOf)),
      store_(std::move(store)),
      lent_(std::move(lent)),
      storage_(std::move(storage)),
      packBelow_(options.packBelow),
      packs_(storage_, options.encodings, options.sync) {}

void ContentSaver::save(FileInfo& file) {
  const auto content = store_ ? store_->find(file.storageId) : nullptr;
  const bool isMissing = content && !content->hasOwnFile();
  if (isMissing ? pack(file, *content) : packFile(file)) return;
  if (!isMissing) {
    files_.push_back({&file, nullptr, fileOf_(file.storageId), ""});
  } else if (!linkLent(file, *content)) {
    write(files_.emplace_back(OwnFile{&file, content.get(), "", ""}));
  }
}

void ContentSaver::write(OwnFile& file) {
  file.checksum.clear();
  file.content->writeCopy(storage_ / storageName(file.info->storageId), /*sync=*/false);
}

// Contents only grow, so that one with as many rows is the one that was lent. The checksum tells
// whether its file still is. Whoever reads a damaged one row by row learns what is wrong.
bool ContentSaver::linkLent(FileInfo& file, Content& content) {
  const FileInfo* const listed = lent_ ? lent_->wholeFile(file.storageId) : nullptr;
  if (listed == nullptr || listed->rowCount != file.rowCount) return false;
  const fs::path to = storage_ / storageName(file.storageId);
  if (shareFile(lent_->pathOf(*listed), to) == Sharing::none) return false;
  files_.push_back({&file, &content, "", listed->checksum});
  return true;
}

// The files are independent of each other: each is brought in, if it still is to be, and read once.
void ContentSaver::describeFiles() {
  std::vector<OwnFile*> damaged;
  std::mutex mutex;
  const auto describe = [&](OwnFile& file) {
    const fs::path to = storage_ / storageName(file.info->storageId);
    FileDigest digest = file.from.empty() ? digestFile(to) : linkOrCopy(file.from, to);
    if (!file.checksum.empty() && digest.checksum != file.checksum) {
      const std::lock_guard<std::mutex> lock(mutex);
      return damaged.push_back(&file);
    }
    describeFile(*file.info, std::move(digest));
    if (!file.info->contentDigest.empty()) return;
    describeRowsIn(std::make_shared<const DiskFile>(to, DiskFile::Mode::readOnly), *file.info);
  };
  forEachInThreads(files_.size(), threadsForFiles(files_.size()),
                   [&](std::size_t i, std::size_t /*thread*/) { describe(files_[i]); });
  for (OwnFile* file : damaged) {
    fs::remove(storage_ / storageName(file->info->storageId));
    write(*file);
    describe(*file);
  }
}

// A row has a byte or more, but for empty ones.
bool ContentSaver::pack(FileInfo& file, Content& content) {
  if (file.rowCount >= packBelow_ || file.rowCount == 0) return false;
  const parquet::SampleSchema& schema = content.schema();
  if (schema.dataIndex != 0 || schema.kind == parquet::ColumnKind::unsupported) return false;
  return packRows(file, schema, content.codec(), content.allRows().rows);
}

bool ContentSaver::packFile(FileInfo& file) {
  if (file.rowCount >= packBelow_ || file.rowCount == 0) return false;
  const auto stored = openFile(fileOf_(file.storageId));
  const auto table = stored->read(0, stored->rows());
  const parquet::SampleSchema schema(table->schema());
  if (schema.dataIndex != 0 || schema.kind == parquet::ColumnKind::unsupported) return false;
  parquet::RowStore rows(schema, elementBytes(schema));
  rows.append(*table);
  return packRows(file, schema, stored->codec(parquet::columnNames::data), rows.slice());
}

bool ContentSaver::packRows(FileInfo& file, const parquet::SampleSchema& schema,
                            ::arrow::Compression::type codec, const parquet::RowSlice& rows) {
  if (rows.rows == 0 || rows.bytes >= packBelow_) return false;
  packs_.add(file, schema, elementBytes(schema), codec, rows);
  return true;
}

std::vector<PackInfo> ContentSaver::finish() {
  describeFiles();
  return packs_.finish();
}

}  // namespace kyr::recording

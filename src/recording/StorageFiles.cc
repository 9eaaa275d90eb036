#include "recording/StorageFiles.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <system_error>

#include "files/growing/GrowingFile.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/FolderFiles.h"
#include "recording/StorageNames.h"
#include "safe/PartNotes.h"

namespace kyr::recording {

namespace columnNames = parquet::columnNames;

namespace {

PartClaim claimOf(const parquet::PartNote& note) {
  PartClaim claim;
  claim.signal.signalId = note.signalId;
  claim.signal.name = note.name;
  claim.signal.unit = note.unit;
  claim.signal.dataType = note.dataType;
  claim.signal.category = note.category;
  claim.isTime = note.part == parquet::SignalPart::time;
  return claim;
}

}  // namespace

StorageFiles::StorageFiles(Folder folder, const std::vector<FileInfo>& stated)
    : folder_(std::move(folder)) {
  for (const FileInfo& file : stated) {
    if (!file.pack) checksums_[file.storageId] = file.checksum;
  }
  for (const std::string& name : folder_.names()) {
    const auto id = storageIdOf(name);
    if (!id) continue;
    if (folder_.entry(nameOf(*id)) == Folder::Entry::file) ids_.push_back(*id);
    nextId_ = std::max(nextId_, *id);
  }
  std::sort(ids_.begin(), ids_.end());
  ids_.erase(std::unique(ids_.begin(), ids_.end()), ids_.end());
  if (nextId_ > std::numeric_limits<int>::max() / 2) {
    throw std::runtime_error(folder_.path().string() + ": there are no storage ids left");
  }
  ++nextId_;
}

std::string StorageFiles::nameOf(int id) const {
  return storedName(id, [this](const std::string& name) { return folder_.has(name); });
}

void StorageFiles::rename(int id) {
  const std::string name = nameOf(id);
  if (name != storageName(id)) folder_.rename(name, folder_, storageName(id));
}

const RecoveredStorage& StorageFiles::file(int id) {
  const auto known = files_.find(id);
  if (known != files_.end()) return known->second;
  RecoveredStorage found;
  if (std::binary_search(ids_.begin(), ids_.end(), id)) {
    found = look(id);
  } else {
    found.damage = folder_.has(nameOf(id)) ? "it is no regular file" : "missing";
  }
  return files_.emplace(id, std::move(found)).first->second;
}

RecoveredStorage StorageFiles::look(int id) const {
  RecoveredStorage found;
  try {
    const parquet::RecoveryReport report = parquet::inspectFile(folder_, nameOf(id));
    found.isGrowing = report.isComplete;
    found.isComplete = report.wasComplete;
    found.rows = report.rowsKept;
    if (report.hasFooter) found.damage = "its first record is damaged";
    if (report.losesBatches) {
      found.damage = fmt::format("the batch behind row {} is damaged", report.rowsKept);
    }
    if (!report.isComplete && !report.hasFooter) {
      lookAtPages(id, found);
    } else {
      found.schema = openAny(id)->schema();
    }
  } catch (const std::system_error&) {
    throw;
  } catch (const std::runtime_error& error) {
    found.damage = error.what();
  }
  if (found.rows == 0 && !found.damage.empty()) found.schema.reset();
  return found;
}

// A growing file whose batches were checked, or any other file.
std::shared_ptr<parquet::InputFile> StorageFiles::openAny(int id) const {
  return parquet::openAnyFile(open(id), parquet::RecordLimits::kAll, parquet::BatchChecks::no);
}

// Files that do not grow have no checksums of their own.
void StorageFiles::lookAtPages(int id, RecoveredStorage& found) const {
  const auto stated = checksums_.find(id);
  if (stated != checksums_.end()) {
    const std::string checksum = digestOf(*open(id)).checksum;
    if (checksum != stated->second) {
      throw std::runtime_error(
          fmt::format("its checksum is {}, stated was {}", checksum, stated->second));
    }
  }
  parquet::InputFile file(open(id));
  found.schema = file.schema();
  for (std::size_t group = 0; group < file.rowGroups(); ++group) {
    const std::uint64_t first = file.rowStart(group);
    file.read(first, file.rowStart(group + 1) - first);
    found.rows = file.rowStart(group + 1);
  }
}

int StorageFiles::withRows(int id, std::uint64_t rows, bool mayCut) {
  const auto known = copies_.find({id, rows});
  if (known != copies_.end()) return known->second;
  const RecoveredStorage& from = file(id);
  if (from.isGrowing && !from.isComplete && (from.rows == rows || !mayCut)) {
    noteCut(id, parquet::recoverFile(folder_, nameOf(id)));
  }
  const bool isSound = from.damage.empty() || from.isGrowing;
  if (isSound && from.rows == rows) return id;
  if (mayCut && cutBehind(id, rows)) return id;
  const int copy = copyRows(id, rows);
  copies_[{id, rows}] = copy;
  return copy;
}

void StorageFiles::noteCut(int id, const parquet::RecoveryReport& report) {
  RecoveredStorage& file = files_[id];
  file.rows = report.rowsKept;
  file.isComplete = true;
  file.bytesCut += report.bytesCut;
}

bool StorageFiles::cutBehind(int id, std::uint64_t rows) {
  if (!file(id).isGrowing) return false;
  const auto batches = openAny(id);
  bool isBoundary = false;
  for (std::size_t batch = 0; batch <= batches->rowGroups() && !isBoundary; ++batch) {
    isBoundary = batches->rowStart(batch) == rows;
  }
  if (!isBoundary) return false;
  noteCut(id, parquet::recoverFile(folder_, nameOf(id), rows));
  return file(id).rows == rows;
}

int StorageFiles::copyRows(int id, std::uint64_t rows) {
  const int copy = nextId_++;
  const std::string name = storageName(copy);
  std::shared_ptr<DiskFile> file = folder_.open(name, DiskFile::Mode::createNew);
  try {
    copyRows(id, rows, std::move(file));
  } catch (...) {
    folder_.tryRemove(name);
    throw;
  }
  return copy;
}

void StorageFiles::copyRows(int id, std::uint64_t rows, std::shared_ptr<DiskFile> copy) const {
  const auto from = openAny(id);
  const parquet::FileLayout layout(
      *from->schema(),
      parquet::ParquetWriterOptions().buildWriterProperties(from->codec(columnNames::data)), {});
  const auto to = parquet::GrowingFile::createIn(std::move(copy), layout);
  for (std::size_t group = 0; group < from->rowGroups() && to->rowCount() < rows; ++group) {
    const std::uint64_t first = from->rowStart(group);
    const auto table = from->read(first, std::min(rows, from->rowStart(group + 1)) - first);
    to->appendBatch(*::arrow::Table::Make(from->schema(), table->columns()));
  }
  to->finish();
  if (to->rowCount() != rows) {
    throw std::runtime_error(
        fmt::format("{}: holds {} rows where {} were expected", pathOf(id), to->rowCount(), rows));
  }
}

std::vector<PartClaim> StorageFiles::claims(int id) {
  const auto pairs = openAny(id)->keyValueMetadata();
  if (!pairs || !pairs->Contains(parquet::kPartNotesKey)) return {};
  std::vector<PartClaim> claims;
  for (const parquet::PartNote& note :
       parquet::readPartNotes(pairs->Get(parquet::kPartNotesKey).ValueOr(""))) {
    claims.push_back(claimOf(note));
  }
  return claims;
}

std::optional<double> StorageFiles::time(int id, std::uint64_t row) {
  if (row >= file(id).rows) return std::nullopt;
  const auto times = openAny(id);
  const auto column = times->schema()->GetFieldByName(columnNames::data);
  if (!column || column->type()->id() != ::arrow::Type::DOUBLE) return std::nullopt;
  double time = 0;
  times->readNumbers(columnNames::data, row, 1, reinterpret_cast<char*>(&time));
  return time;
}

}  // namespace kyr::recording

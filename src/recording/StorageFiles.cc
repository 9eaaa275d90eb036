#include "recording/StorageFiles.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <system_error>

#include "files/InputFile.h"
#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/TimeSpans.h"
#include "safe/PartNotes.h"
#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace fs = std::filesystem;
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

StorageFiles::StorageFiles(fs::path directory) : directory_(std::move(directory)) {
  for (const auto& entry : fs::directory_iterator(directory_)) {
    const std::string name = entry.path().filename().string();
    int id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error != std::errc() || end != name.data() + name.size() || !entry.is_regular_file()) {
      continue;
    }
    ids_.push_back(id);
    nextId_ = std::max(nextId_, id);
  }
  std::sort(ids_.begin(), ids_.end());
  if (nextId_ > std::numeric_limits<int>::max() / 2) {
    throw std::runtime_error(directory_.string() + ": there are no storage ids left");
  }
  ++nextId_;
}

const RecoveredStorage& StorageFiles::file(int id) {
  const auto known = files_.find(id);
  if (known != files_.end()) return known->second;
  RecoveredStorage found;
  if (std::binary_search(ids_.begin(), ids_.end(), id)) {
    const parquet::RecoveryReport report =
        parquet::recoverFile(pathOf(id), std::numeric_limits<std::uint64_t>::max(),
                             directory_.parent_path() / "lost" / (std::to_string(id) + ".damaged"));
    found = {report.isComplete, report.isComplete, report.rowsKept, report.bytesCut};
    try {
      found.rows = openFile(pathOf(id))->rows();
      found.isReadable = true;
    } catch (const std::runtime_error&) {
      found = {};
    }
  }
  return files_.emplace(id, found).first->second;
}

int StorageFiles::withRows(int id, std::uint64_t rows, bool mayCut) {
  const auto known = copies_.find({id, rows});
  if (known != copies_.end()) return known->second;
  if (file(id).rows == rows || (mayCut && cutBehind(id, rows))) return id;
  const int copy = copyRows(id, rows);
  copies_[{id, rows}] = copy;
  return copy;
}

bool StorageFiles::cutBehind(int id, std::uint64_t rows) {
  if (!file(id).isGrowing) return false;
  const auto batches = parquet::openGrowingFile(pathOf(id));
  bool isBoundary = false;
  for (std::size_t batch = 0; batch <= batches->rowGroups() && !isBoundary; ++batch) {
    isBoundary = batches->rowStart(batch) == rows;
  }
  if (!isBoundary) return false;
  const parquet::RecoveryReport report = parquet::recoverFile(pathOf(id), rows);
  files_[id].rows = report.rowsKept;
  files_[id].bytesCut += report.bytesCut;
  return report.rowsKept == rows;
}

int StorageFiles::copyRows(int id, std::uint64_t rows) {
  const auto from = openFile(pathOf(id));
  const int copy = nextId_++;
  const auto to = parquet::GrowingFile::create(
      pathOf(copy), from->schema(),
      parquet::ParquetWriterOptions().buildWriterProperties(from->codec(columnNames::data)));
  for (std::size_t group = 0; group < from->rowGroups() && to->rowCount() < rows; ++group) {
    const std::uint64_t first = from->rowStart(group);
    const auto table = from->read(first, std::min(rows, from->rowStart(group + 1)) - first);
    to->appendBatch(*::arrow::Table::Make(from->schema(), table->columns()));
  }
  to->finish();
  if (to->rowCount() != rows) {
    throw std::runtime_error(fmt::format("{}: holds {} rows where {} were expected",
                                         pathOf(id).string(), to->rowCount(), rows));
  }
  return copy;
}

std::vector<PartClaim> StorageFiles::claims(int id) {
  const auto pairs = openFile(pathOf(id))->keyValueMetadata();
  if (!pairs || !pairs->Contains(parquet::kPartNotesKey)) return {};
  std::vector<PartClaim> claims;
  for (const parquet::PartNote& note :
       parquet::readPartNotes(pairs->Get(parquet::kPartNotesKey).ValueOr(""))) {
    claims.push_back(claimOf(note));
  }
  return claims;
}

std::optional<SignalInfo> StorageFiles::guess(int id) {
  const auto stored = openFile(pathOf(id));
  const auto field = stored->schema()->GetFieldByName(columnNames::data);
  if (!field) return std::nullopt;
  const bool isList = field->type()->id() == ::arrow::Type::LIST;
  const auto& element = isList ? field->type()->field(0)->type() : field->type();
  SignalInfo signal;
  const auto type = parquet::signalTypeOf(element->id());
  if (!type) return std::nullopt;
  signal.dataType = *type;
  signal.category = isList ? FixedDim : Scalar;
  if (stored->hasColumn(columnNames::dimension)) signal.category = VarDim;
  signal.dataStorageId = id;
  return signal;
}

std::optional<double> StorageFiles::time(int id, std::uint64_t row) {
  if (!file(id).isGrowing || row >= file(id).rows) return std::nullopt;
  const auto file = parquet::openGrowingFile(pathOf(id));
  if (file->schema()->field(0)->type()->id() != ::arrow::Type::DOUBLE) return std::nullopt;
  double time = 0;
  file->readNumbers(columnNames::data, row, 1, reinterpret_cast<char*>(&time));
  return time;
}

}  // namespace kyr::recording

#include "recording/StorageFiles.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "files/InputFile.h"
#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/RecordingFormat.h"
#include "recording/SignalJson.h"
#include "recording/StoredFile.h"
#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace fs = std::filesystem;
namespace columnNames = parquet::columnNames;

namespace {

constexpr const char* kSignalsKey = "kyr.signals";

// A member that the description of a signal has and a claim has not.
nlohmann::json asDescription(const nlohmann::json& claim) {
  nlohmann::json object = claim;
  object["id"] = claim.at("signalId");
  object["description"] = "";
  object["dimensions"] = nlohmann::json::array();
  object["timeStorageId"] = nullptr;
  object["dataStorageId"] = nullptr;
  return object;
}

std::vector<PartClaim> readClaims(const std::string& text) {
  std::vector<PartClaim> claims;
  const auto array = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!array.is_array()) return claims;
  for (const auto& entry : array) {
    try {
      PartClaim claim{describedFromJson(asDescription(entry)), entry.at("part") == "time"};
      requireText(claim.signal);
      claims.push_back(std::move(claim));
    } catch (const std::exception&) {
      continue;  // of another version, or damaged
    }
  }
  return claims;
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
      const StoredFile stored(pathOf(id));
      found.isReadable = true;
      found.rows = stored.rowCount();
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
  {
    const auto view = parquet::openGrowingFile(pathOf(id));
    bool isBoundary = false;
    for (std::size_t batch = 0; batch <= view->rowGroups() && !isBoundary; ++batch) {
      isBoundary = view->rowStart(batch) == rows;
    }
    if (!isBoundary) return false;
  }
  const parquet::RecoveryReport report = parquet::recoverFile(pathOf(id), rows);
  files_[id].rows = report.rowsKept;
  files_[id].bytesCut += report.bytesCut;
  return report.rowsKept == rows;
}

int StorageFiles::copyRows(int id, std::uint64_t rows) {
  const StoredFile from(pathOf(id));
  const int copy = nextId_++;
  const auto codec = ::arrow::util::Codec::GetCompressionType(from.compression(columnNames::data))
                         .ValueOr(::arrow::Compression::UNCOMPRESSED);
  const auto to = parquet::GrowingFile::create(
      pathOf(copy), from.schema(), parquet::ParquetWriterOptions().buildWriterProperties(codec));
  from.forEachRowGroup(from.schema()->field_names(), [&](const auto& columns) {
    const auto table = ::arrow::Table::Make(from.schema(), columns);
    const std::uint64_t missing = rows - to->rowCount();
    to->appendBatch(*table->Slice(0, static_cast<std::int64_t>(missing)));
  });
  to->finish();
  if (to->rowCount() != rows) {
    throw std::runtime_error(fmt::format("{}: holds {} rows where {} were expected",
                                         pathOf(id).string(), to->rowCount(), rows));
  }
  return copy;
}

std::vector<PartClaim> StorageFiles::claims(int id) {
  const auto text = StoredFile(pathOf(id)).metadata(kSignalsKey);
  return text ? readClaims(*text) : std::vector<PartClaim>();
}

std::optional<SignalInfo> StorageFiles::guess(int id) {
  const StoredFile stored(pathOf(id));
  const auto field = stored.schema()->GetFieldByName(columnNames::data);
  if (!field) return std::nullopt;
  const bool isList = field->type()->id() == ::arrow::Type::LIST;
  const auto& element = isList ? field->type()->field(0)->type() : field->type();
  SignalInfo signal;
  const auto type = parquet::signalTypeOf(element->id());
  if (!type) return std::nullopt;
  signal.dataType = *type;
  signal.category = isList ? FixedDim : Scalar;
  if (stored.hasColumn(columnNames::dimension)) signal.category = VarDim;
  signal.dataStorageId = id;
  return signal;
}

std::optional<double> StorageFiles::time(int id, std::uint64_t row) {
  if (!file(id).isGrowing || row >= file(id).rows) return std::nullopt;
  const auto table = parquet::openGrowingFile(pathOf(id))->read(row, 1);
  const auto column = table->column(0);
  if (column->type()->id() != ::arrow::Type::DOUBLE || column->length() != 1) return std::nullopt;
  const auto value = column->GetScalar(0);
  if (!value.ok()) return std::nullopt;
  return static_cast<const ::arrow::DoubleScalar&>(**value).value;
}

}  // namespace kyr::recording

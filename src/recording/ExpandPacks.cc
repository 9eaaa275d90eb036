#include "recording/ExpandPacks.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "files/ParquetTail.h"
#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "files/growing/GrowingRecords.h"
#include "files/pack/PackSchema.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/LivePacks.h"
#include "recording/RecordingFolder.h"
#include "recording/StorageNames.h"
#include "safe/PartNotes.h"

namespace kyr::recording {

namespace {

using parquet::ContentReader;
using parquet::ContentRun;

class Expansion {
 public:
  Expansion(const Folder& folder, const LivePacks& packs, const KeepDamaged& keep)
      : storage_(folder.folder(kStorageFolder)), packs_(packs), keep_(keep) {}

  void run() {
    for (const std::string& name : packs_.unreadable()) {
      // A pack that was just being made has no rows.
      if (parquet::inspectFile(storage_, name).losesBatches) keep_(name, "it cannot be read");
    }
    // The notes of packs name contents without a file, so that no others need be looked for.
    std::set<int> ids = idsOfFiles();
    for (const auto& [name, pack] : packs_.packs()) {
      const auto report = parquet::inspectFile(storage_, name);
      if (report.losesBatches) {
        keep_(name, fmt::format("the batch behind row {} is damaged", report.rowsKept));
      }
      for (const auto& [id, notes] : pack->notes()) ids.insert(id);
    }
    for (const int id : ids) {
      try {
        expand(id);
      } catch (const std::system_error&) {
        throw;
      } catch (const std::runtime_error&) {
        // Its rows lie in files of other columns, or cannot be read. Its file is as it was.
        storage_.remove(copyOf(id));
      }
    }
    if (!ids.empty()) storage_.sync();
  }

 private:
  // The file of a content.
  struct Own {
    std::shared_ptr<ContentReader> rows;  // the first ones that can be relied on; null for none
    std::uint64_t soundRows = 0;
    std::string damage;  // empty for a file that is sound, or whose writing was interrupted
  };

  static std::string copyOf(int id) { return fmt::format("{}.copy", id); }

  std::string nameOf(int id) const {
    return storedName(id, [this](const std::string& name) { return storage_.has(name); });
  }

  std::set<int> idsOfFiles() const {
    std::set<int> ids;
    for (const std::string& name : storage_.names()) {
      if (const auto id = storageIdOf(name)) ids.insert(*id);
    }
    return ids;
  }

  // The footer of a growing file may be on the disk without the batches that it names, so that only
  // batches that are there count.
  Own lookAt(const std::string& name, ContentReader* packed) const {
    Own own;
    const parquet::RecoveryReport report = parquet::inspectFile(storage_, name);
    const std::shared_ptr<const DiskFile> file = storage_.open(name);
    own.soundRows = report.rowsKept;
    if (report.isComplete) {
      own.rows = std::make_shared<ContentReader>(soundBatches(file), cache_);
      if (report.losesBatches) own.damage = "batches are damaged";
      return own;
    }
    if (report.hasFooter) {
      own.damage = "its first record is damaged";
      return own;
    }
    try {
      own.rows =
          std::make_shared<ContentReader>(std::make_shared<parquet::InputFile>(file), cache_);
      own.soundRows = own.rows->rows();
      if (packed == nullptr || agree(*own.rows, *packed)) return own;
      own.soundRows = 0;
      own.damage = "its rows are not those that were flushed";
    } catch (const std::system_error&) {
      throw;
    } catch (const std::runtime_error& error) {
      if (endsAsParquet(*file)) own.damage = error.what();
    }
    own.rows.reset();
    return own;
  }

  static std::shared_ptr<parquet::InputFile> soundBatches(
      const std::shared_ptr<const DiskFile>& file) {
    parquet::RecordLimits limits;
    limits.end = file->size();
    auto records = parquet::recordsFromStart(*file, limits);
    if (!records) throw std::runtime_error(file->path().string() + ": was changed meanwhile");
    return std::make_shared<parquet::InputFile>(
        file, std::make_shared<parquet::GrowingRecords>(*std::move(records)),
        parquet::BatchChecks::no);
  }

  static bool endsAsParquet(const DiskFile& file) {
    constexpr std::uint64_t kLeastBytes = 12;
    std::string end(parquet::kParquetMagic.size(), '\0');
    const std::uint64_t size = file.size();
    return size >= kLeastBytes &&
           file.readAt(size - end.size(), end.data(), end.size()) == end.size() &&
           end == parquet::kParquetMagic;
  }

  // Whole Parquet files have no checksums, and those that were not synced may have wrong rows.
  static bool agree(ContentReader& own, ContentReader& packed) {
    constexpr std::uint64_t kPieceRows = 65'536;
    const std::uint64_t rows = packed.rows();
    if (own.rows() < rows || !parquet::haveSameTypes(*own.columns(), *packed.columns())) {
      return false;
    }
    for (std::uint64_t row = 0; row < rows; row += kPieceRows) {
      const std::uint64_t count = std::min(kPieceRows, rows - row);
      if (!parquet::areEqual(own.read(row, count).rows, packed.read(row, count).rows)) return false;
    }
    return true;
  }

  // All rows of a content that packs have, if its first row is among them.
  std::shared_ptr<ContentReader> packedRows(int id) const {
    auto runs = packs_.runsOf(id, 0);
    if (runs.empty()) return nullptr;
    auto packed = std::make_shared<ContentReader>(runs.front().pack, id, 0, 0);
    packed->setRuns(id, std::move(runs));
    return packed;
  }

  bool isInPacks(int id) const {
    bool isThere = false;
    for (const auto& [name, pack] : packs_.packs()) {
      pack->index().forEachRun(id, [&](auto&&...) { isThere = true; });
    }
    return isThere;
  }

  void expand(int id) {
    if (!isInPacks(id)) return;
    const std::string name = nameOf(id);
    auto all = packedRows(id);
    auto notes = notesOf(id);
    std::uint64_t ownRows = 0;
    if (storage_.has(name)) {
      Own own = lookAt(name, all.get());
      const std::uint64_t packed = all ? all->rows() : 0;
      if (own.rows) own.rows->setRuns(id, packs_.runsOf(id, own.soundRows));
      if (own.rows && own.rows->rows() >= packed) {
        notes = own.rows->file().keyValueMetadata();
        ownRows = own.soundRows;
        all = std::move(own.rows);
      }
      if (std::max(own.soundRows, all ? all->rows() : 0) == own.soundRows) return;
      if (!own.damage.empty()) keep_(name, own.damage);
    }
    if (!all) return;
    const std::string copy = copyOf(id);
    storage_.remove(copy);
    write(storage_.open(copy, DiskFile::Mode::createNew), *all, ownRows, notes);
    const auto written = storage_.open(copy, DiskFile::Mode::readWrite);
    written->syncAll();
    written->close();
    storage_.rename(copy, storage_, name);
  }

  static void write(std::shared_ptr<DiskFile> file, ContentReader& rows, std::uint64_t ownRows,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& notes) {
    const parquet::FileLayout layout(
        *rows.columns(),
        ownRows > 0 ? parquet::ParquetWriterOptions().buildWriterProperties(rows.codec())
                    : parquet::ParquetWriterOptions().buildWriterProperties(),
        {});
    const auto to = parquet::GrowingFile::createIn(std::move(file), layout, notes);
    const auto append = [&](std::uint64_t begin, std::uint64_t end) {
      const parquet::HeldRows held = rows.read(begin, end - begin);
      const auto table = parquet::tableOf(rows.schema(), held.rows);
      to->appendBatch(*::arrow::Table::Make(layout.schema(), table->columns()));
    };
    for (std::size_t part = 0; rows.partStart(part) < ownRows; ++part) {
      append(rows.partStart(part), rows.partStart(part + 1));
    }
    // A recording has no more rows in packs than a batch has.
    const std::uint64_t most = static_cast<std::uint64_t>(to->maxRows());
    for (std::uint64_t row = ownRows; row < rows.rows(); row += most) {
      append(row, std::min(rows.rows(), row + most));
    }
    to->finish();
  }

  std::shared_ptr<const ::arrow::KeyValueMetadata> notesOf(int id) const {
    for (const auto& [name, pack] : packs_.packs()) {
      const auto notes = pack->notes().find(id);
      if (notes == pack->notes().end()) continue;
      return ::arrow::key_value_metadata({parquet::kPartNotesKey}, {notes->second});
    }
    return nullptr;
  }

  Folder storage_;
  const LivePacks& packs_;
  const KeepDamaged& keep_;
  std::shared_ptr<parquet::RowGroupCache> cache_ = std::make_shared<parquet::RowGroupCache>();
};

}  // namespace

void expandPacks(const Folder& folder, const LivePacks& packs, const KeepDamaged& keep) {
  if (packs.packs().empty() && packs.unreadable().empty()) return;
  Expansion(folder, packs, keep).run();
}

}  // namespace kyr::recording

#include "recording/ExpandPacks.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>

#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "files/growing/FileRecovery.h"
#include "files/growing/GrowingFile.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "recording/LivePacks.h"
#include "recording/RecordingFolder.h"
#include "safe/PartNotes.h"

namespace kyr::recording {

namespace {

using parquet::ContentReader;
using parquet::ContentRun;

class Expansion {
 public:
  explicit Expansion(const Folder& folder)
      : storage_(folder.folder(kStorageFolder)),
        cache_(std::make_shared<parquet::RowGroupCache>()),
        packs_(std::make_shared<const OpenFolder>(folder),
               {parquet::BatchChecks::yes, parquet::BatchChecks::no}, cache_) {
    packs_.refresh();
  }

  std::vector<DamagedPack> run() {
    std::vector<DamagedPack> damaged;
    for (const std::string& name : packs_.unreadable()) {
      damaged.push_back({name, "it cannot be read"});
    }
    std::set<int> ids;
    for (const auto& [name, pack] : packs_.packs()) {
      const auto report = parquet::inspectFile(storage_, name);
      if (report.losesBatches) {
        damaged.push_back(
            {name, fmt::format("the batch behind row {} is damaged", report.rowsKept)});
      }
      pack->index().forEachIdRange([&](int from, int to) {
        for (int id = from; id <= to; ++id) ids.insert(id);
      });
    }
    for (const int id : ids) expand(id);
    if (!ids.empty()) storage_.sync();
    return damaged;
  }

 private:
  // The rows that a content has in its file; none if the file is damaged.
  std::shared_ptr<ContentReader> ownRows(const std::string& name) const {
    const parquet::RecoveryReport report = parquet::inspectFile(storage_, name);
    if (report.losesBatches || (report.hasFooter && !report.isComplete)) return nullptr;
    return std::make_shared<ContentReader>(
        parquet::openAnyFile(storage_.open(name), parquet::RecordLimits::kAll,
                             parquet::BatchChecks::no),
        cache_);
  }

  void expand(int id) {
    const std::string name = std::to_string(id);
    std::shared_ptr<ContentReader> own;
    if (storage_.has(name)) {
      try {
        own = ownRows(name);
      } catch (const std::system_error&) {
        throw;
      } catch (const std::runtime_error&) {
        return;
      }
      if (!own) return;
    }
    const std::vector<ContentRun> runs = packs_.runsOf(id, own ? own->rows() : 0);
    if (runs.empty()) return;
    const std::string copy = name + ".copy";
    storage_.remove(copy);
    std::shared_ptr<DiskFile> file = storage_.open(copy, DiskFile::Mode::createNew);
    write(file, id, own, runs);
    const auto written = storage_.open(copy, DiskFile::Mode::readWrite);
    written->syncAll();
    written->close();
    storage_.rename(copy, storage_, name);
  }

  void write(std::shared_ptr<DiskFile> file, int id, const std::shared_ptr<ContentReader>& own,
             const std::vector<ContentRun>& runs) const {
    const auto schema = own ? own->columns() : runs.front().pack->schema().schema;
    const parquet::FileLayout layout(
        *schema,
        own ? parquet::ParquetWriterOptions().buildWriterProperties(own->codec())
            : parquet::ParquetWriterOptions().buildWriterProperties(),
        {});
    const auto to = parquet::GrowingFile::createIn(std::move(file), layout, notesOf(id, own.get()));
    const auto append = [&](ContentReader& from, std::uint64_t begin, std::uint64_t count) {
      const parquet::HeldRows held = from.read(begin, count);
      const auto table = parquet::tableOf(from.schema(), held.rows);
      to->appendBatch(*::arrow::Table::Make(layout.schema(), table->columns()));
    };
    for (std::size_t part = 0; own && part < own->parts(); ++part) {
      append(*own, own->partStart(part), own->partStart(part + 1) - own->partStart(part));
    }
    const std::uint64_t first = own ? own->rows() : 0;
    ContentReader packed(runs.front().pack, id, 0, 0);
    packed.setRuns(runs);
    // A recording has no more rows in packs than a batch has.
    const std::uint64_t most = static_cast<std::uint64_t>(to->maxRows());
    for (std::uint64_t row = first; row < packed.rows();) {
      const std::uint64_t count = std::min(most, packed.rows() - row);
      append(packed, row, count);
      row += count;
    }
    to->finish();
  }

  std::shared_ptr<const ::arrow::KeyValueMetadata> notesOf(int id, const ContentReader* own) const {
    if (own != nullptr) return own->file().keyValueMetadata();
    for (const auto& [name, pack] : packs_.packs()) {
      const auto notes = pack->notes().find(id);
      if (notes == pack->notes().end()) continue;
      return ::arrow::key_value_metadata({parquet::kPartNotesKey}, {notes->second});
    }
    return nullptr;
  }

  Folder storage_;
  std::shared_ptr<parquet::RowGroupCache> cache_;
  LivePacks packs_;
};

}  // namespace

std::vector<DamagedPack> expandPacks(const Folder& folder) {
  for (const std::string& name : folder.folder(kStorageFolder).names()) {
    if (parquet::growingPackNumber(name)) return Expansion(folder).run();
  }
  return {};
}

}  // namespace kyr::recording

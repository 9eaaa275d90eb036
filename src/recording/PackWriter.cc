#include "recording/PackWriter.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <parquet/arrow/schema.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>
#include <parquet/properties.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "files/FileSink.h"
#include "files/NumberFile.h"
#include "files/TableWriter.h"
#include "files/pack/PackSchema.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "platform/DiskFile.h"
#include "recording/Checksum.h"
#include "recording/RecordingFolder.h"
#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace fs = std::filesystem;
using parquet::RowSlice;
using Encodings = parquet::SafeStorage::Encodings;

namespace {

constexpr std::size_t kGroupRows = 65536;
constexpr std::size_t kGroupBytes = std::size_t{1} << 20U;
constexpr std::size_t kPackBytes = std::size_t{64} << 20U;
// The disk begins to write a pack whenever so many bytes of it are there.
constexpr std::uint64_t kSyncBytes = std::uint64_t{8} << 20U;
constexpr std::size_t kWaitingGroups = 2;
// Samples are compressed with this codec if the pack asks for none. A row group that it does not
// suit is not compressed.
constexpr auto kChosenCodec = ::arrow::Compression::ZSTD;

std::shared_ptr<::parquet::WriterProperties> packProperties(::arrow::Compression::type codec) {
  ::parquet::WriterProperties::Builder builder(
      *parquet::ParquetWriterOptions().buildWriterProperties(codec));
  builder.compression(parquet::kPackColumn, ::arrow::Compression::UNCOMPRESSED)
      ->disable_dictionary()
      ->enable_dictionary(parquet::kPackColumn)
      ->disable_statistics()
      ->write_batch_size(static_cast<std::int64_t>(kGroupRows));
  return builder.build();
}

}  // namespace

// The row group that is filled belongs to the caller's thread; files are written, and all that is
// made for them, in tasks.
class PackWriter::Pack {
 public:
  Pack(int number, const fs::path& storage, const parquet::SampleSchema& schema, std::size_t width,
       ::arrow::Compression::type codec, Encodings encodings, bool startsSync)
      : number_(number),
        path_(storage / packName(number)),
        schema_(parquet::packSchema(*schema.schema)),
        choice_{encodings != Encodings::options, codec == ::arrow::Compression::UNCOMPRESSED,
                encodings == Encodings::smallest},
        codec_(codec),
        startsSync_(startsSync),
        group_(std::make_shared<Group>(schema, width)) {
    naming([&] {
      file_.emplace(path_, DiskFile::Mode::createNew);
      sink_ = std::make_shared<parquet::FileSink>(
          *file_, [this](std::string_view bytes) { digester_.add(bytes.data(), bytes.size()); });
      const bool isChosen = choice_.encoding && schema_->num_fields() == 2 &&
                            parquet::isNumber(*schema_->field(0)->type());
      const auto properties = packProperties(isChosen && choice_.codec ? kChosenCodec : codec);
      PARQUET_THROW_NOT_OK(
          ::parquet::arrow::ToParquetSchema(schema_.get(), *properties, &columns_));
      if (isChosen) {
        const parquet::PageSize pages{kGroupRows, 1};
        numbers_ = std::make_unique<parquet::NumberFile>(sink_, *columns_, properties,
                                                         parquet::NumberFile::Options{pages});
        return;
      }
      writer_ = parquet::arrowWriter(sink_, schema_, *columns_, properties);
    });
  }

  bool isFull() const { return bytes_ >= kPackBytes; }

  void add(FileInfo& file, const RowSlice& rows, BackgroundWork& tasks) {
    file.pack = number_;
    file.firstRow = rowsBefore_ + group_->rows.rows();
    for (std::size_t from = 0; from < rows.rows;) {
      const std::size_t count = std::min(rows.rows - from, room(rows));
      if (count == 0) {
        tasks.add([this, group = nextGroup()] { write(group); });
        continue;
      }
      group_->rows.append(subSlice(rows, from, count));
      group_->runs.emplace_back(file.storageId, count);
      from += count;
    }
  }

  PackInfo finish() {
    if (group_->rows.rows() > 0) write(nextGroup());
    naming([&] {
      if (numbers_) {
        numbers_->finish();
      } else {
        PARQUET_THROW_NOT_OK(writer_->Close());
      }
      sink_->finish();
      file_->close();
    });
    FileDigest digest = digester_.finish();
    return {number_, digest.size, rowsBefore_, std::move(digest.checksum),
            std::move(digest.blocks)};
  }

 private:
  struct Group {
    Group(const parquet::SampleSchema& schema, std::size_t width) : rows(schema, width) {}

    parquet::RowStore rows;
    std::vector<parquet::IdRun> runs;
  };
  using SharedGroup = std::shared_ptr<Group>;

  // Rows like these that the row group still takes; no row group is empty.
  std::size_t room(const RowSlice& rows) const {
    const parquet::RowStore& group = group_->rows;
    if (group.rows() == kGroupRows) return 0;
    const std::size_t perRow = std::max<std::size_t>(1, rows.bytes / rows.rows);
    const std::size_t taken = parquet::bytesIn(group.slice());
    const std::size_t byBytes = taken < kGroupBytes ? (kGroupBytes - taken) / perRow : 0;
    const std::size_t least = group.rows() == 0 ? 1 : 0;
    return std::min(kGroupRows - group.rows(), std::max(byBytes, least));
  }

  // The row group that is complete. An empty one takes its place, in memory that was used before.
  SharedGroup nextGroup() {
    rowsBefore_ += group_->rows.rows();
    bytes_ += parquet::bytesIn(group_->rows.slice());
    SharedGroup fresh;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!written_.empty()) {
        fresh = std::move(written_.back());
        written_.pop_back();
      }
    }
    if (!fresh) fresh = std::make_shared<Group>(group_->rows.schema(), group_->rows.width());
    return std::exchange(group_, std::move(fresh));
  }

  void write(const SharedGroup& group) {
    naming([&] { writeRows(*group); });
    if (startsSync_ && sink_->written() >= syncedFrom_ + kSyncBytes) {
      file_->startSync(syncedFrom_, sink_->written() - syncedFrom_);
      syncedFrom_ = sink_->written();
    }
    group->rows.truncate(0);
    group->runs.clear();
    const std::lock_guard<std::mutex> lock(mutex_);
    written_.push_back(group);
  }

  void writeRows(const Group& group) {
    const std::size_t count = group.rows.rows();
    auto columns = group.rows.table(0, count)->columns();
    columns.push_back(std::make_shared<::arrow::ChunkedArray>(
        parquet::storageIdsOf(group.runs, /*mayBeRuns=*/numbers_ != nullptr)));
    if (!numbers_) {
      const auto table =
          ::arrow::Table::Make(schema_, std::move(columns), static_cast<std::int64_t>(count));
      PARQUET_THROW_NOT_OK(writer_->WriteTable(*table, table->num_rows()));
      return;
    }
    const auto values = columns.front()->chunk(0);
    const auto encoding =
        parquet::chooseEncoding(*values, choice_, codec_, /*mayUseDictionary=*/true);
    numbers_->writeRowGroup(columns, {encoding, {::parquet::Encoding::RLE_DICTIONARY}});
  }

  template <typename Operation>
  void naming(Operation&& operation) {
    try {
      operation();
    } catch (const ::parquet::ParquetException& error) {
      sink_->throwFailure();
      throw std::runtime_error(path_.string() + ": " + error.what());
    }
  }

  int number_;
  fs::path path_;
  std::shared_ptr<::arrow::Schema> schema_;
  std::shared_ptr<::parquet::SchemaDescriptor> columns_;
  parquet::EncodingChoice choice_;
  ::arrow::Compression::type codec_;
  bool startsSync_;
  SharedGroup group_;             // is filled
  std::uint64_t rowsBefore_ = 0;  // those of the row groups before it
  std::size_t bytes_ = 0;
  std::mutex mutex_;
  std::vector<SharedGroup> written_;  // empty again; under mutex_
  // From here on for the tasks.
  std::optional<DiskFile> file_;
  FileDigester digester_;
  std::shared_ptr<parquet::FileSink> sink_;
  // The one for contents of a single column of numbers, the other for all else.
  std::unique_ptr<parquet::NumberFile> numbers_;
  std::unique_ptr<::parquet::arrow::FileWriter> writer_;
  std::uint64_t syncedFrom_ = 0;
};

PackWriter::PackWriter(fs::path storage, Encodings encodings, bool startsSync)
    : storage_(std::move(storage)),
      encodings_(encodings),
      startsSync_(startsSync),
      tasks_(kWaitingGroups) {}

PackWriter::~PackWriter() = default;

void PackWriter::add(FileInfo& file, const parquet::SampleSchema& schema, std::size_t width,
                     ::arrow::Compression::type codec, const RowSlice& rows) {
  if (lastSchema_ != schema.schema || lastCodec_ != codec || last_ == nullptr) {
    last_ = &open_[{schema.schema->ToString(), static_cast<int>(codec)}];
    lastSchema_ = schema.schema;
    lastCodec_ = codec;
  }
  if (!*last_) {
    *last_ =
        std::make_shared<Pack>(next_++, storage_, schema, width, codec, encodings_, startsSync_);
  }
  if (file.contentDigest.empty()) describeRows(file, parquet::summaryOf(schema, rows));
  (*last_)->add(file, rows, tasks_);
  if ((*last_)->isFull()) finish(std::move(*last_));
}

// A few rows are not worth a thread.
void PackWriter::finish(std::shared_ptr<Pack> pack) {
  const auto task = [this, pack = std::move(pack)] { done_.push_back(pack->finish()); };
  if (tasks_.hasThread()) {
    tasks_.add(task);
  } else {
    task();
  }
}

std::vector<PackInfo> PackWriter::finish() {
  for (auto& [kind, pack] : open_) {
    if (pack) finish(std::move(pack));
  }
  tasks_.wait();
  open_.clear();
  last_ = nullptr;
  std::sort(done_.begin(), done_.end(),
            [](const PackInfo& a, const PackInfo& b) { return a.number < b.number; });
  return std::move(done_);
}

}  // namespace kyr::recording

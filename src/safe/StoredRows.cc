#include "safe/StoredRows.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "files/PlainFile.h"
#include "safe/BatchLength.h"
#include "safe/PartNotes.h"
#include "schema/PartTables.h"
#include "storage/WriteTrace.h"

namespace kyr::parquet {

namespace {

template <typename Visit>
void forEachBatch(const SafeStorage& options, const RowSlice& rows, Visit&& visit) {
  for (std::size_t from = 0; from < rows.rows;) {
    const std::size_t count = std::min(rows.rows - from, batchLength(options, rows));
    visit(subSlice(rows, from, count));
    from += count;
  }
}

}  // namespace

void writeRows(ContentName& name, const std::filesystem::path& path, const RowSlice& rows,
               const SampleSchema& schema, const AskedCodec& codec, bool sync) {
  SharedStore& store = name.store();
  Tables batches;
  forEachBatch(store.options(), rows,
               [&](const RowSlice& batch) { batches.push_back(tableOf(schema, batch)); });
  writePlainFile(path, store.layouts().layout(schema.schema, codec),
                 name.labels().metadata(kPartsOfFinished), batches, sync);
}

StoredRows::StoredRows(ContentName& name, OwnedFile file, Shape shape, BatchDigests digests,
                       ContentSummary summary)
    : name_(name),
      origin_(Origin::written),
      owned_(std::move(file)),
      shape_(std::move(shape)),
      digests_(std::move(digests)),
      summary_(std::move(summary)) {}

StoredRows::StoredRows(ContentName& name)
    : name_(name), origin_(Origin::found), owned_(name.store(), name.id()) {}

std::unique_ptr<StoredRows> StoredRows::write(ContentName& name, const RowSlice& rows, Shape shape,
                                              const AskedCodec& codec) {
  const auto span = traceBatch();
  SharedStore& store = name.store();
  store.requireOpen();
  OwnedFile file = name.createFile([&](const std::filesystem::path& path) {
    writeRows(name, path, rows, shape.schema, codec,
              store.options().sync != SafeStorage::Sync::never);
  });
  BatchDigests digests;
  ContentSummarizer summarizer(shape.schema);
  forEachBatch(store.options(), rows, [&](const RowSlice& batch) {
    const auto known = digests.add(batch);
    if (digests.rows() == rows.rows) {
      summarizer.addLast(batch, known);
    } else {
      summarizer.add(batch, nullptr, known);
    }
  });
  digests.keepHead(shape.schema, shape.width, rows);
  store.noteNewFile();
  return std::make_unique<StoredRows>(name, std::move(file), std::move(shape), std::move(digests),
                                      summarizer.summary());
}

std::shared_ptr<FinishedFile> StoredRows::file() {
  OpenFiles& files = name_.store().openFiles();
  if (handle_.file()) {
    files.use(handle_);
    return handle_.file();
  }
  files.open(handle_, path());
  try {
    checkReopened(*handle_.file());
  } catch (...) {
    handle_.close();
    throw;
  }
  state_ = handle_.file()->state();
  if (origin_ == Origin::found) shape_.reset();
  return handle_.file();
}

void StoredRows::checkReopened(const FinishedFile& file) const {
  if (origin_ == Origin::found || !state_) return;
  const FileState& now = file.state();
  if (now.isSameFile(*state_) && now.size == state_->size && now.modified == state_->modified) {
    return;
  }
  throw std::runtime_error(path().string() + ": was changed or replaced while it was in use");
}

std::shared_ptr<FinishedFile> StoredRows::currentFile() {
  if (origin_ == Origin::found && handle_.file()) {
    const auto now = FileState::ofName(path());
    if (now && !handle_.file()->isUnchanged(*now)) handle_.close();
  }
  return file();
}

const StoredRows::Shape& StoredRows::shape() {
  if (shape_) return *shape_;
  const auto open = file();
  SampleSchema schema(open->rows().schema());
  const std::size_t width = elementBytes(schema);
  return shape_.emplace(Shape{std::move(schema), width, open->rows().rows()});
}

Tables StoredRows::read(std::uint64_t from, std::uint64_t to) {
  const auto open = file();
  InputFile& rows = open->rows();
  if (shape_ && rows.rows() != shape_->count) {
    throw std::runtime_error(
        fmt::format("{}: holds {} rows, expected {}", path().string(), rows.rows(), shape_->count));
  }
  auto table = rows.read(from, to - from);
  try {
    // The pool knows what it wrote itself.
    if (origin_ == Origin::found && table->num_rows() > 0) requireSamples(schema(), *table, from);
  } catch (const std::invalid_argument& error) {
    throw std::runtime_error(fmt::format("{}: {}", path().string(), error.what()));
  }
  return {std::move(table)};
}

bool StoredRows::readTimes(std::vector<double>& times) {
  const auto open = currentFile();
  return name_.store().recentTimes().read(open, times, [&] {
    return open->readNumbers(*timeSchema().elementType, times) &&
           (!shape_ || times.size() == shape_->count);
  });
}

bool StoredRows::readElements(const ::arrow::DataType& type, std::vector<char>& elements,
                              std::vector<int>& sizes) {
  const auto open = currentFile();
  sizes.clear();
  const bool areLists = shape_ && shape_->schema.kind == ColumnKind::list;
  if (!areLists && open->readNumbers(type, elements)) {
    return !shape_ || elements.size() == shape_->count * shape_->width;
  }
  return open->readLists(type, elements, sizes) && (!shape_ || sizes.size() == shape_->count);
}

bool StoredRows::copyFile(const std::filesystem::path& path, bool sync) {
  copyToNewFile(file()->rows().bytes(), path, sync);
  return true;
}

}  // namespace kyr::parquet

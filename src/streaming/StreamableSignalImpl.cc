#include "streaming/StreamableSignalImpl.h"

#include <arrow/api.h>

#include <exception>
#include <functional>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SignalFormatter.h"
#include "schema/PartTables.h"
#include "streaming/ContentNumbers.h"

namespace kyr::parquet {

namespace {

using RedundancyEliminator::AppendToFile;
using RedundancyEliminator::CopyWithModification;
using RedundancyEliminator::CreateNewFileNode;
using RedundancyEliminator::EliminateRedundancy;

// The chunk that marks the end of a part, so that a part repeats only parts that end where it ends.
// It has a number and a node in the chains, but no row of any file holds it.
constexpr double kEndMarker = -1.0;

// The number of the next chunk of a part that goes on repeating another one.
unsigned long expectedNumber(const RedundancyEliminator::Context& chains) {
  if (!chains.candidates || chains.candidates->empty()) return 0;
  const auto* next = chains.candidates->front();
  return next ? next->contentNumber : 0;
}

const std::vector<std::vector<std::uint64_t>> kNoDimensions;
const std::vector<int> kNoSizes;

}  // namespace

StreamableSignal::~StreamableSignal() = default;

StreamableSignalImpl::StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer,
                                           std::shared_ptr<Checker> contentNumbers,
                                           std::shared_ptr<Chains> chains, unsigned long rows,
                                           std::shared_ptr<ChainIndex> chainIndex)
    : StreamableSignalImpl(std::move(writer), kNoStorage, kNoStorage, std::move(contentNumbers),
                           std::move(chains), rows, std::move(chainIndex)) {}

StreamableSignalImpl::StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer, int timeId,
                                           int dataId, std::shared_ptr<Checker> contentNumbers,
                                           std::shared_ptr<Chains> chains, unsigned long rows,
                                           std::shared_ptr<ChainIndex> chainIndex)
    : record(std::make_shared<ParquetStorageRecord<StreamableWriter>>()),
      checker(std::move(contentNumbers)),
      registry(std::move(chains)),
      index(std::move(chainIndex)) {
  if (!writer) throw std::invalid_argument("a streamable signal needs a writer, got none");
  record->worker = std::move(writer);
  record->timeStorageId = timeId;
  record->dataStorageId = dataId;
  record->hasStorage = timeId != kNoStorage || dataId != kNoStorage;
  parts[0].name = SignalPart::time;
  parts[1].name = SignalPart::data;
  for (Part& each : parts)
    each.chains = RedundancyEliminator::createFollowingContext(registry, index);
  setBufferSize(rows);
}

StreamableSignalImpl::~StreamableSignalImpl() {
  try {
    resetData();
  } catch (const std::exception&) {
    return;  // resetData() has removed the files all the same
  }
}

int& StreamableSignalImpl::storageId(const Part& part) {
  return part.name == SignalPart::time ? record->timeStorageId : record->dataStorageId;
}

int StreamableSignalImpl::storageId(const Part& part) const {
  return part.name == SignalPart::time ? record->timeStorageId : record->dataStorageId;
}

void StreamableSignalImpl::setBufferSize(unsigned long rows) {
  if (rows == 0) throw std::invalid_argument("a batch of 0 rows: the buffer size must be positive");
  batchRows = rows;
}

int StreamableSignalImpl::getStorageId(SignalPart name) const {
  return name == SignalPart::time || name == SignalPart::data ? storageId(part(name)) : -1;
}

unsigned long StreamableSignalImpl::rowsWritten(SignalPart name) const {
  return part(name).rowsWritten;
}

std::size_t StreamableSignalImpl::rowsBuffered(SignalPart name) const {
  const auto& buffer = part(name).buffer;
  return buffer ? buffer->rows() : 0;
}

const SampleSchema& StreamableSignalImpl::schemaOf(const Part& part) {
  if (part.name == SignalPart::time) return timeSchema();
  if (!dataSchema.schema || dataSchemaType != dataType || dataSchemaCategory != category) {
    dataSchema = SampleSchema(
        schemaBuilder::getSchema(category, dataType, /*includeTime=*/false, columnNames::data));
    dataSchemaType = dataType;
    dataSchemaCategory = category;
  }
  return dataSchema;
}

void StreamableSignalImpl::appendTime(const double* time, unsigned long count) {
  const unsigned long number = RedundancyChecker::numberTime(
      checker.get(), time, count, expectedNumber(*part(SignalPart::time).chains));
  const SampleChunk chunk = measureChunk(timeSchema(), time, count * sizeof(double), sizeof(double),
                                         kNoDimensions, kNoSizes);
  appendChunk(part(SignalPart::time), number, chunk, sizeof(double));
}

void StreamableSignalImpl::appendData(const void* data, unsigned long size,
                                      const std::vector<std::vector<unsigned long>>& dimensions,
                                      const std::vector<int>& extra) {
  Part& dataPart = part(SignalPart::data);
  const auto numberIt = [&] {
    return RedundancyChecker::numberData(checker.get(), data, size, dataType,
                                         expectedNumber(*dataPart.chains));
  };
  // Missing data and a missing context are told before the type and the shapes are looked at.
  unsigned long number = data && checker ? 0 : numberIt();
  const std::size_t width = elementWidth(dataType);
  const SampleSchema& schema = schemaOf(dataPart);
  SampleChunk chunk;
  if (data) {
    chunk = measureChunk(schema, data, size, width, dimensions, extra);
    if (dataPart.buffer && !dataPart.buffer->schema().schema->Equals(*schema.schema)) {
      throw std::invalid_argument(
          "the signal's data type or category changed while samples were being appended");
    }
    // A refused chunk gets no number.
    number = numberIt();
  }
  appendChunk(dataPart, number, chunk, width);
}

void StreamableSignalImpl::appendChunk(Part& part, unsigned long contentNumber,
                                       const SampleChunk& chunk, std::size_t width) {
  const auto startChain = [&](const NodeList& heads,
                              const NodeList& nextNodes) -> std::optional<NodePtr> {
    const int newId = record->worker->create(*schemaOf(part).schema, compression);
    storageId(part) = newId;
    NodePtr chain = heads.empty()
                        ? CreateNewFileNode(contentNumber, newId, 0, chunk.rows)
                        : copyChain(heads[0], nextNodes[0], newId, part, contentNumber, chunk.rows);
    bufferChunk(part, chunk, width);
    return chain;
  };
  const auto extendChain = [&](FileNode* current) -> std::optional<NodePtr> {
    bufferChunk(part, chunk, width);
    // The bounds leave out one row between neighbouring chunks. They tell chunks apart and are no
    // rows of the file. Pinned by StreamableSignal.RowBoundsDriftByOneRowPerChunk.
    const unsigned long first = current->second + 1;
    return CreateNewFileNode(contentNumber, current->storageId, first, first + chunk.rows);
  };
  const auto reuseChains = [&](const NodeList& heads) { adoptFile(part, heads); };
  // Passed by reference, because a std::function would allocate memory for the captures each time.
  EliminateRedundancy(part.chains.get(), contentNumber, std::cref(startChain),
                      std::cref(extendChain), std::cref(reuseChains));
}

void StreamableSignalImpl::bufferChunk(Part& part, const SampleChunk& chunk, std::size_t width) {
  if (!part.buffer) part.buffer.emplace(schemaOf(part), width);
  part.buffer->append(chunk);
  if (part.buffer->rows() >= batchRows) writeBatches(part);
}

void StreamableSignalImpl::writeBatches(Part& part) {
  std::size_t written = 0;
  for (; part.buffer->rows() - written >= batchRows; written += batchRows) {
    write(part, written, batchRows);
  }
  if (written > 0) part.buffer->dropFront(written, written / batchRows);
}

void StreamableSignalImpl::write(Part& part, std::size_t from, std::size_t rows) {
  record->worker->write(storageId(part), *part.buffer->table(from, rows));
  part.rowsWritten += rows;
}

// Takes the file of the first chain that begins like the matching ones, even if it does not match.
void StreamableSignalImpl::adoptFile(Part& part, const NodeList& heads) {
  storageId(part) = heads[0]->storageId;
}

StreamableSignalImpl::NodePtr StreamableSignalImpl::copyChain(FileNode* head, FileNode* stop,
                                                              int newId, Part& counter,
                                                              unsigned long contentNumber,
                                                              unsigned long rows) {
  const FileNode* last = nullptr;
  bool cloned = false;
  // All nodes of a chain are in one file.
  record->worker->cloneEach(head->storageId, newId, [&]() -> std::optional<RowRange> {
    if (cloned) counter.rowsWritten += last->second - last->first;
    const FileNode* node = last ? last->next.get() : head;
    if (!node) return std::nullopt;
    last = node;  // the last node is copied as well, but not its rows
    cloned = node != stop;
    return cloned ? std::optional<RowRange>({node->first, node->second}) : std::nullopt;
  });
  NodePtr copy =
      CopyWithModification(head, stop, [newId](FileNode* node) { node->storageId = newId; });
  const unsigned long first = last->second + 1;
  FileNode* end = copy.get();
  AppendToFile(end, CreateNewFileNode(contentNumber, newId, first, first + rows));
  return copy;
}

void StreamableSignalImpl::finish() {
  finish(SignalPart::time);
  finish(SignalPart::data);
}

void StreamableSignalImpl::finish(SignalPart name) {
  if (name != SignalPart::time && name != SignalPart::data) return;
  if (!part(name).finished) finishPart(part(name));
}

void StreamableSignalImpl::finishPart(Part& part) {
  if (!part.buffer && storageId(part) == kNoStorage) return;
  markEnd(part);
  if (part.buffer) {
    writeBatches(part);
    if (part.buffer->rows() > 0) write(part, 0, part.buffer->rows());
    // An empty buffer of the same type; the memory is given back.
    *part.buffer = RowStore(SampleSchema(part.buffer->schema()), part.buffer->width());
  }
  if (hasFile(part)) record->worker->close(storageId(part));
  part.finished = true;
}

void StreamableSignalImpl::markEnd(Part& part) {
  const unsigned long number =
      part.name == SignalPart::time
          ? RedundancyChecker::processTimeAndCheck(checker.get(), &kEndMarker, 1)
          : RedundancyChecker::processDataAndCheck(checker.get(), &kEndMarker, sizeof(kEndMarker),
                                                   dataType);
  constexpr unsigned long kMarkerRows = 1;
  EliminateRedundancy(
      part.chains.get(), number,
      [&](const NodeList& heads, const NodeList& nextNodes) -> std::optional<NodePtr> {
        if (heads.empty()) {
          return storageId(part) == kNoStorage ? std::optional<NodePtr>(nullptr) : std::nullopt;
        }
        const int newId = record->worker->create(*schemaOf(part).schema, compression);
        storageId(part) = newId;
        // The rows of either part count as time rows here. Pinned by
        // StreamableSignal.EndMarkerOfDataCountsItsCopiedRowsAsTime.
        return copyChain(heads[0], nextNodes[0], newId, this->part(SignalPart::time), number,
                         kMarkerRows);
      },
      [&](FileNode* current) -> std::optional<NodePtr> {
        const unsigned long first = current->second + 1;
        return CreateNewFileNode(number, current->storageId, first, first + kMarkerRows);
      },
      [&](const NodeList& heads) { adoptFile(part, heads); });
}

unsigned long StreamableSignalImpl::rowCount(SignalPart name) {
  if (name != SignalPart::time && name != SignalPart::data) return 0;
  return rowsWritten(name) + rowsBuffered(name);
}

void StreamableSignalImpl::flush() {
  throw std::logic_error("a signal can be flushed only in a pool with SafeStorage");
}

bool StreamableSignalImpl::hasFile(const Part& part) const {
  const int id = storageId(part);
  return id != kNoStorage && record->worker->checkDataChunkExists(id);
}

void StreamableSignalImpl::resetData() {
  for (Part& each : parts) each.buffer.reset();
  std::exception_ptr failure;
  try {
    finish();
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  for (Part& each : parts) {
    removeFile(each);
    each.chains = RedundancyEliminator::createFollowingContext(registry, index);
    each.buffer.reset();
    each.rowsWritten = 0;
    each.finished = false;
  }
  record->hasStorage = false;
  if (failure) std::rethrow_exception(failure);
}

// Another signal that shares the file may have removed it already.
void StreamableSignalImpl::removeFile(Part& part) noexcept {
  try {
    if (hasFile(part)) record->worker->remove(storageId(part));
  } catch (const std::exception&) {
    // The file cannot be deleted. The signal gives the id up all the same.
  }
  storageId(part) = kNoStorage;
}

bool StreamableSignalImpl::hasData() const {
  if (record->timeStorageId != kNoStorage) return true;
  return rowsBuffered(SignalPart::data) > 0 || record->dataStorageId != kNoStorage;
}

std::shared_ptr<::arrow::Table> StreamableSignalImpl::readRows(Part& part, unsigned long from,
                                                               unsigned long to) {
  if (storageId(part) == kNoStorage) return nullptr;
  auto rows = record->worker->read(storageId(part), from, to);
  // Hosts rely on it that a read drops the rows that wait in memory.
  part.buffer.reset();
  return rows;
}

bool StreamableSignalImpl::readElements(Part& part, unsigned long from, unsigned long to,
                                        std::vector<char>& out) {
  if (storageId(part) == kNoStorage) return false;
  if (!record->worker->readElements(storageId(part), from, to, out)) return false;
  part.buffer.reset();  // as in readRows()
  return true;
}

void StreamableSignalImpl::read(Part& part, unsigned long from, unsigned long to,
                                std::vector<char>& out,
                                std::optional<std::vector<std::vector<std::uint64_t>>>& dimensions,
                                std::optional<std::vector<int>>& sizes) {
  if (readElements(part, from, to, out)) return;
  const auto rows = readRows(part, from, to);
  out.clear();
  if (rows) SignalFormatter().reconstruct(rows, out, dimensions, sizes);
}

void StreamableSignalImpl::getTime(unsigned long from, unsigned long to, std::vector<char>& out) {
  std::optional<std::vector<std::vector<std::uint64_t>>> dimensions;
  std::optional<std::vector<int>> sizes;
  read(part(SignalPart::time), from, to, out, dimensions, sizes);
}

void StreamableSignalImpl::getData(unsigned long from, unsigned long to, std::vector<char>& out,
                                   std::vector<std::vector<unsigned long>>& dimensions) {
  std::vector<int> sizes;
  getData(from, to, out, dimensions, sizes);
}

void StreamableSignalImpl::getData(unsigned long from, unsigned long to, std::vector<char>& out,
                                   std::vector<std::vector<unsigned long>>& dimensions,
                                   std::vector<int>& sizes) {
  std::optional<std::vector<std::vector<std::uint64_t>>> readDimensions;
  std::optional<std::vector<int>> readSizes;
  read(part(SignalPart::data), from, to, out, readDimensions, readSizes);
  if (readDimensions) dimensions = *std::move(readDimensions);
  sizes = readSizes ? *std::move(readSizes) : std::vector<int>();
}

::arrow::Status StreamableSignalImpl::writeStatus() const {
  const StreamableWriter& writer = *record->worker;
  return writer.writeStatus(record->timeStorageId) & writer.writeStatus(record->dataStorageId);
}

}  // namespace kyr::parquet

#include "kyr/parquet/ParquetSerializerWorker.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>
#include <utility>

#include "files/ArrowReader.h"
#include "files/InputFile.h"
#include "files/TableWriter.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/PerfTracer.h"
#include "kyr/platform/FileSystem.h"
#include "schema/ElementTypes.h"
#include "schema/SampleLayout.h"
#include "storage/ChunkIndex.h"
#include "storage/ContentHash.h"
#include "storage/FileFormats.h"
#include "storage/KnownTimes.h"
#include "storage/RepeatedHash.h"
#include "storage/TypedColumns.h"

namespace kyr::parquet {

using typedColumns::StoredTable;

class ParquetSerializerWorker::Impl {
 public:
  Path filePath(int id) const { return directory.join(std::to_string(id)); }

  // Deletes the file of \p id, if there is one, and forgets the id.
  void removeFile(int id) {
    const Path path = filePath(id);
    if (!fileSystem::exists(path)) return;
    index.erase(id);
    failedWrites.erase(id);
    times.forget(path.toNarrow());
    fileSystem::removeFile(path);
  }

  void writeFile(const ::arrow::Table& table, int id, const Compression& compression) {
    const auto span = getScopedPerfTracer("ParquetSerializerWorker_writeHelper");
    const std::string path = filePath(id).toNarrow();
    times.forget(path);
    // Appending is on, so that no existing file is ever truncated. Parquet cannot append: if the
    // file holds bytes, the write fails in silence and the bytes stay. Pinned by
    // SerializerWorker.WriteUnderAnIdWhoseFileExistsIsLostInSilence.
    const auto stream = ::arrow::io::FileOutputStream::Open(path, /*append=*/true).ValueOrDie();
    const auto format = formats.of(table.schema(), compression);
    ::arrow::Status status = format->check();
    startPerfTracer("WriteTableToFile");
    if (status.ok()) status = writeTable(table, format, stream);
    stopPerfTracer("WriteTableToFile");
    // A failure is only noted, for writeStatus(): the write itself never reports one.
    status &= stream->Close();
    if (status.ok()) {
      failedWrites.erase(id);
    } else {
      status = status.WithMessage(path, ": ", status.message());
      failedWrites[id] = status;
    }
    lastWriteStatus = std::move(status);
  }

  static ::arrow::Status writeTable(const ::arrow::Table& table,
                                    std::shared_ptr<const FileFormat> format,
                                    const std::shared_ptr<::arrow::io::FileOutputStream>& stream) {
    ARROW_ASSIGN_OR_RAISE(const auto writer, TableWriter::open(std::move(format), stream));
    ARROW_RETURN_NOT_OK(writer->write(table, table.num_rows()));
    return writer->close();
  }

  ::arrow::Status readFile(const std::string& path, std::shared_ptr<::arrow::Table>& table) const {
    const auto file = ::arrow::io::ReadableFile::Open(path).ValueOrDie();
    ARROW_ASSIGN_OR_RAISE(const auto reader, openArrowReader(file));
    return reader->ReadTable(&table);
  }

  // Replaces \p values by those of a file whose only column is a flat one of \p type. Returns false
  // for all other files and after an error; readStored() then reads the file or tells the error.
  template <typename T>
  bool readFlat(int id, const ::arrow::DataType& type, std::vector<T>& values) const {
    const std::filesystem::path path = filePath(id).toFilesystem();
    const auto readFile = [&](const std::shared_ptr<const DiskFile>& file) {
      return readOnlyColumn(file, &type, values);
    };
    try {
      if constexpr (std::is_same_v<T, double>) return times.read(path, values, readFile);
      return readFile(std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly));
    } catch (const std::exception&) {
      return false;
    }
  }

  // The same for a file whose only column is one of lists of \p type.
  template <typename T>
  bool readLists(int id, const ::arrow::DataType& type, std::vector<T>& values,
                 std::vector<int>& offsets) const {
    std::vector<std::uint64_t> ends;
    try {
      const auto path = filePath(id).toFilesystem();
      const auto file = std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
      if (!readOnlyLists(file, type, values, ends)) return false;
    } catch (const std::exception&) {
      return false;
    }
    if (!ends.empty() && ends.back() > std::numeric_limits<std::int32_t>::max()) return false;
    offsets.assign(1, 0);
    offsets.insert(offsets.end(), ends.begin(), ends.end());
    return true;
  }

  std::string existingFile(int id) const {
    const Path path = filePath(id);
    if (!fileSystem::exists(path)) throw std::runtime_error(path.toNarrow() + " does not exists.");
    return path.toNarrow();
  }

  StoredTable readStored(int id, bool withTime) const {
    const std::string path = existingFile(id);
    std::shared_ptr<::arrow::Table> table;
    const ::arrow::Status status = readFile(path, table);
    if (!status.ok() || !table) {
      throw std::runtime_error(
          fmt::format("{}: cannot be read as a Parquet file: {}", path, status.message()));
    }
    return StoredTable(path, std::move(table), withTime);
  }

  int writeBlobs(const std::shared_ptr<::arrow::Schema>& schema, const std::vector<double>* time,
                 const std::vector<char>& data, const std::vector<int>& offsets,
                 const Dimensions& dimensions, const Compression& compression) {
    typedColumns::checkSchema(schema);
    typedColumns::checkBlobOffsets(offsets, data.size());
    const int id = index.allocate();
    writeColumns(id, schema, time, typedColumns::wrapBinary(data, offsets), dimensions,
                 compression);
    return id;
  }

  // V is the element type of the column, or char for the bytes of the elements.
  template <typename V>
  void readTyped(int id, const std::shared_ptr<::arrow::DataType>& type, std::vector<double>* time,
                 std::vector<V>& values, std::vector<int>& offsets, Dimensions& dimensions) const {
    if (!time && readFlat(id, *type, values)) return offsets.clear();
    if (!time && readLists(id, *type, values, offsets)) return;
    const StoredTable stored = readStored(id, /*withTime=*/time != nullptr);
    if (time) stored.readTime(*time);
    stored.readValues(type, values, offsets);
    stored.readDimensions(dimensions);
  }

  void readBlobs(int id, std::vector<double>* time, std::vector<char>& data,
                 std::vector<int>& offsets, Dimensions& dimensions) const {
    const StoredTable stored = readStored(id, /*withTime=*/time != nullptr);
    if (time) stored.readTime(*time);
    if (stored.hasData()) stored.readBlobs(data, offsets);
    stored.readDimensions(dimensions);
  }

  template <typename T>
  int storageIdForContent(const T* values, std::size_t count, const Dimensions& dimensions,
                          bool& isDuplicate) {
    const auto compute = [&] { return contentHash<T>(values, count, dimensions); };
    const std::uint64_t hash = dimensions.empty() ? repeatedHash.of(values, count * sizeof(T),
                                                                    typeid(T).hash_code(), compute)
                                                  : compute();
    const std::optional<int> known = index.checkoutContent(hash);
    isDuplicate = known.has_value();
    if (known) return *known;
    const int id = index.allocate();
    index.registerContent(hash, id);
    return id;
  }

  // Makes a table of the columns of a signal part and writes it to the file of \p id.
  void writeColumns(int id, const std::shared_ptr<::arrow::Schema>& schema,
                    const std::vector<double>* time, typedColumns::ArrayPtr data,
                    const Dimensions& dimensions, const Compression& compression) {
    std::vector<typedColumns::ArrayPtr> columns;
    if (time) {
      columns.push_back(typedColumns::wrapNumeric(::arrow::float64(), time->data(), time->size()));
    }
    columns.push_back(std::move(data));
    if (dimensions.size() >= 2) columns.push_back(typedColumns::dimensionColumn(dimensions));
    writeFile(*tableBuildHelper(schema, columns), id, compression);
  }

  Path directory;
  ChunkIndex index;
  RepeatedHash repeatedHash;
  mutable KnownTimes times;
  FileFormats formats;
  ::arrow::Status lastWriteStatus;
  std::unordered_map<int, ::arrow::Status> failedWrites;
};

namespace {

// The "data" column of typed samples: flat without offsets, otherwise one list per row.
template <typename T>
typedColumns::ArrayPtr typedDataColumn(const T* values, std::size_t count,
                                       const std::vector<int>& offsets) {
  auto elements = typedColumns::wrapNumeric(arrowTypeOf<T>(), values, count);
  if (offsets.empty()) return elements;
  auto offsetArray = typedColumns::wrapNumeric(::arrow::int32(), offsets.data(), offsets.size());
  return ParquetSerializerWorker::listArrayBuildHelper(columnNames::data, offsetArray, elements)
      .second;
}

}  // namespace

ParquetSerializerWorker::ParquetSerializerWorker() : impl_(std::make_unique<Impl>()) {}

ParquetSerializerWorker::ParquetSerializerWorker(const Path& directory)
    : ParquetSerializerWorker() {
  setParquetDirectory(directory);
}

ParquetSerializerWorker::~ParquetSerializerWorker() {
  for (const int id : impl_->index.ids()) impl_->removeFile(id);
}

void ParquetSerializerWorker::setParquetDirectory(const Path& directory) {
  if (!impl_->directory.empty() && impl_->directory != directory) {
    throw std::runtime_error("Parquet directory cannot be changed!");
  }
  impl_->directory = directory;
  updateChunkIndex();
}

Path ParquetSerializerWorker::parquetDirectory() const { return impl_->directory; }

bool ParquetSerializerWorker::isParquetDirectoryEmpty() const { return impl_->index.empty(); }

void ParquetSerializerWorker::assertHasParquetDirectory() const {}

void ParquetSerializerWorker::updateChunkIndex() {
  const Path& directory = impl_->directory;
  if (directory.empty() || !fileSystem::isDirectory(directory)) return;
  std::vector<int> found;
  for (directory_iterator it(directory); it != directory_iterator(); ++it) {
    try {
      found.push_back(std::stoi(it.entry().fileName().toNarrow(), nullptr, 10));
    } catch (const std::bad_cast&) {
      continue;  // the name cannot be narrowed; a name that is no number throws
    }
  }
  impl_->index.addFound(found);
}

int ParquetSerializerWorker::getNextParquetStorageId() { return impl_->index.allocate(); }

int ParquetSerializerWorker::getLastAllocatedParquetStorageID() { return impl_->index.largestId(); }

bool ParquetSerializerWorker::checkDataChunkExists(const int& id) const {
  return impl_->index.contains(id);
}

void ParquetSerializerWorker::checkoutParquetFile(const int& id) { impl_->index.checkout(id); }

void ParquetSerializerWorker::remove(const int& id) {
  if (impl_->index.contains(id) && impl_->index.release(id)) removeHelper(id);
}

void ParquetSerializerWorker::removeHelper(const int& id) { impl_->removeFile(id); }

int ParquetSerializerWorker::write(const ::arrow::Table& table, const Compression& compression) {
  const int id = getNextParquetStorageId();
  writeHelper(table, id, compression);
  return id;
}

void ParquetSerializerWorker::writeHelper(const ::arrow::Table& table, int id,
                                          const Compression& compression) {
  impl_->writeFile(table, id, compression);
}

void ParquetSerializerWorker::read(const int& id, std::shared_ptr<::arrow::Table>& table) const {
  // The status is ignored here: the caller gets whatever the reader left.
  static_cast<void>(impl_->readFile(impl_->existingFile(id), table));
}

std::shared_ptr<::arrow::Table> ParquetSerializerWorker::read(const int& id) const {
  std::shared_ptr<::arrow::Table> table;
  read(id, table);
  return table;
}

::arrow::Status ParquetSerializerWorker::lastWriteStatus() const { return impl_->lastWriteStatus; }

::arrow::Status ParquetSerializerWorker::writeStatus(const int& id) const {
  const auto failed = impl_->failedWrites.find(id);
  return failed == impl_->failedWrites.end() ? ::arrow::Status::OK() : failed->second;
}

template <typename T>
int ParquetSerializerWorker::getStorageIdForContent(const std::vector<T>& data,
                                                    const Dimensions& dimensions,
                                                    bool& isDuplicate) {
  return impl_->storageIdForContent(data.data(), data.size(), dimensions, isDuplicate);
}

template <typename T>
int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const std::vector<T>& values,
                                              const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  return writeBinaryArray<T>(schema, values.data(), values.size(), offsets, dimensions,
                             compression);
}

template <typename T>
int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const T* values, std::size_t count,
                                              const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  typedColumns::checkSchema(schema);
  checkRowOffsets(offsets, count);
  bool isDuplicate = false;
  const int id = impl_->storageIdForContent(values, count, dimensions, isDuplicate);
  if (!isDuplicate) {
    impl_->writeColumns(id, schema, nullptr, typedDataColumn(values, count, offsets), dimensions,
                        compression);
  }
  return id;
}

template <typename T>
int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const std::vector<double>& time,
                                              const std::vector<T>& values,
                                              const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  return writeBinaryArray<T>(schema, time, values.data(), values.size(), offsets, dimensions,
                             compression);
}

template <typename T>
int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const std::vector<double>& time, const T* values,
                                              std::size_t count, const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  typedColumns::checkSchema(schema);
  checkRowOffsets(offsets, count);
  const int id = getNextParquetStorageId();
  assertHasParquetDirectory();
  impl_->writeColumns(id, schema, &time, typedDataColumn(values, count, offsets), dimensions,
                      compression);
  return id;
}

int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const std::vector<char>& data,
                                              const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  return impl_->writeBlobs(schema, nullptr, data, offsets, dimensions, compression);
}

int ParquetSerializerWorker::writeBinaryArray(const std::shared_ptr<::arrow::Schema>& schema,
                                              const std::vector<double>& time,
                                              const std::vector<char>& data,
                                              const std::vector<int>& offsets,
                                              const Dimensions& dimensions,
                                              const Compression& compression) {
  return impl_->writeBlobs(schema, &time, data, offsets, dimensions, compression);
}

template <typename T>
void ParquetSerializerWorker::readBinaryArray(const int& id, std::vector<T>& values,
                                              std::vector<int>& offsets,
                                              Dimensions& dimensions) const {
  impl_->readTyped(id, arrowTypeOf<T>(), nullptr, values, offsets, dimensions);
}

template <typename T>
void ParquetSerializerWorker::readBinaryArray(const int& id, std::vector<double>& time,
                                              std::vector<T>& values, std::vector<int>& offsets,
                                              Dimensions& dimensions) const {
  impl_->readTyped(id, arrowTypeOf<T>(), &time, values, offsets, dimensions);
}

template <typename T>
void ParquetSerializerWorker::readBytes(const int& id, std::vector<char>& bytes,
                                        std::vector<int>& offsets, Dimensions& dimensions) const {
  impl_->readTyped(id, arrowTypeOf<T>(), nullptr, bytes, offsets, dimensions);
}

template <typename T>
void ParquetSerializerWorker::readBytes(const int& id, std::vector<double>& time,
                                        std::vector<char>& bytes, std::vector<int>& offsets,
                                        Dimensions& dimensions) const {
  impl_->readTyped(id, arrowTypeOf<T>(), &time, bytes, offsets, dimensions);
}

void ParquetSerializerWorker::readBinaryArray(const int& id, std::vector<char>& data,
                                              std::vector<int>& offsets,
                                              Dimensions& dimensions) const {
  impl_->readBlobs(id, nullptr, data, offsets, dimensions);
}

void ParquetSerializerWorker::readBinaryArray(const int& id, std::vector<double>& time,
                                              std::vector<char>& data, std::vector<int>& offsets,
                                              Dimensions& dimensions) const {
  impl_->readBlobs(id, &time, data, offsets, dimensions);
}

#define KYR_INSTANTIATE(T, A, S)                                                                  \
  template KYR_PARQUET_EXPORT int ParquetSerializerWorker::getStorageIdForContent<T>(             \
      const std::vector<T>&, const Dimensions&, bool&);                                           \
  template KYR_PARQUET_EXPORT int ParquetSerializerWorker::writeBinaryArray<T>(                   \
      const std::shared_ptr<::arrow::Schema>&, const std::vector<T>&, const std::vector<int>&,    \
      const Dimensions&, const Compression&);                                                     \
  template KYR_PARQUET_EXPORT int ParquetSerializerWorker::writeBinaryArray<T>(                   \
      const std::shared_ptr<::arrow::Schema>&, const T*, std::size_t, const std::vector<int>&,    \
      const Dimensions&, const Compression&);                                                     \
  template KYR_PARQUET_EXPORT int ParquetSerializerWorker::writeBinaryArray<T>(                   \
      const std::shared_ptr<::arrow::Schema>&, const std::vector<double>&, const std::vector<T>&, \
      const std::vector<int>&, const Dimensions&, const Compression&);                            \
  template KYR_PARQUET_EXPORT int ParquetSerializerWorker::writeBinaryArray<T>(                   \
      const std::shared_ptr<::arrow::Schema>&, const std::vector<double>&, const T*, std::size_t, \
      const std::vector<int>&, const Dimensions&, const Compression&);                            \
  template KYR_PARQUET_EXPORT void ParquetSerializerWorker::readBinaryArray<T>(                   \
      const int&, std::vector<T>&, std::vector<int>&, Dimensions&) const;                         \
  template KYR_PARQUET_EXPORT void ParquetSerializerWorker::readBinaryArray<T>(                   \
      const int&, std::vector<double>&, std::vector<T>&, std::vector<int>&, Dimensions&) const;   \
  template KYR_PARQUET_EXPORT void ParquetSerializerWorker::readBytes<T>(                         \
      const int&, std::vector<char>&, std::vector<int>&, Dimensions&) const;                      \
  template KYR_PARQUET_EXPORT void ParquetSerializerWorker::readBytes<T>(                         \
      const int&, std::vector<double>&, std::vector<char>&, std::vector<int>&, Dimensions&) const;
KYR_FOR_EACH_NUMBER_TYPE(KYR_INSTANTIATE)
#undef KYR_INSTANTIATE

}  // namespace kyr::parquet

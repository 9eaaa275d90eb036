#include "signals/ParquetSignalImpl.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "kyr/parquet/SerializationOptions.h"
#include "schema/ElementTypes.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

namespace {

bool isByteForm(KYRSignalDataType type) { return type == ByteString || type == Binary; }

// Calls \p visit with the NumberType in which samples of \p type are stored. Samples of the byte
// form have none: test isByteForm() first.
template <typename Visit>
auto visitElementType(KYRSignalDataType type, Visit&& visit) {
  elementWidth(type);  // throws for Null and for unknown types
  return visitNumber(elementTypeId(type), visit);
}

std::size_t product(const std::vector<std::size_t>& extents) {
  std::size_t result = 1;
  for (const std::size_t extent : extents) result *= extent;
  return result;
}

// Adds in 32 bits and wraps, as the stored offsets do.
int addWrapping(int offset, std::size_t length) {
  return static_cast<int>(static_cast<std::uint32_t>(offset) + static_cast<std::uint32_t>(length));
}

const std::shared_ptr<::arrow::Schema>& timeSchema() {
  static const std::shared_ptr<::arrow::Schema> schema =
      schemaBuilder::getSchema(Scalar, Double, /*includeTime=*/false, columnNames::data);
  return schema;
}

std::vector<int> lengthsOf(const std::vector<int>& offsets) {
  std::vector<int> lengths;
  for (std::size_t i = 1; i < offsets.size(); ++i) lengths.push_back(offsets[i] - offsets[i - 1]);
  return lengths;
}

}  // namespace

ParquetSignalImpl::ParquetSignalImpl(std::shared_ptr<ParquetSerializerWorker> worker,
                                     int timeStorageId, int dataStorageId)
    : record(constructParquetStorageRecord(std::move(worker), timeStorageId, dataStorageId)),
      sharedTimeColumn(serialization_options::bSharedTimeColumn) {
  for (const int id : {timeStorageId, dataStorageId}) {
    if (id != kNoStorage && !record->worker->checkDataChunkExists(id)) return;
  }
  setParquetStorageId(timeStorageId, SignalPart::time);
  setParquetStorageId(dataStorageId, SignalPart::data);
  for (const int id : {timeStorageId, dataStorageId}) {
    if (id != kNoStorage) record->worker->checkoutParquetFile(id);
  }
}

ParquetSignalImpl::~ParquetSignalImpl() { resetData(); }

std::shared_ptr<ParquetSignalImpl::Record> ParquetSignalImpl::constructParquetStorageRecord(
    std::shared_ptr<ParquetSerializerWorker> worker, int timeStorageId, int dataStorageId) {
  if (!worker) throw std::invalid_argument("a whole-file signal needs a worker, got none");
  auto result = std::make_shared<Record>();
  result->timeStorageId = timeStorageId;
  result->dataStorageId = dataStorageId;
  result->worker = std::move(worker);
  return result;
}

void ParquetSignalImpl::setParquetStorageId(const int& id, const SignalPart& part) {
  if (int* current = record->idOf(part)) {
    if (record->hasStorage && *current != kNoStorage && *current != id) {
      throw std::runtime_error(part == SignalPart::time
                                   ? "Signal already has a time storage associated."
                                   : "Signal already has a data storage associated.");
    }
    *current = id;
  }
  if (record->timeStorageId != kNoStorage || record->dataStorageId != kNoStorage) {
    record->hasStorage = true;
  }
}

int ParquetSignalImpl::getStorageId(SignalPart part) const {
  const int* id = std::as_const(*record).idOf(part);
  return id ? *id : kNoStorage;
}

std::shared_ptr<::arrow::Schema> ParquetSignalImpl::buildSchema(bool includeTime) const {
  return schemaBuilder::getSchema(category, dataType, includeTime, columnNames::data);
}

std::vector<int> ParquetSignalImpl::sampleOffsets(const std::vector<char>& data, const Dims& dims,
                                                  const std::vector<int>& lengths) const {
  const std::size_t sampleCount = data.size() / elementWidth(dataType);
  return !lengths.empty() && dataType == Binary ? buildOffsetArray(sampleCount, lengths)
                                                : buildOffsetArray(sampleCount, dims);
}

// What the worker refuses is refused here already, before the time vector is written.
void ParquetSignalImpl::checkWritable(const std::vector<char>& data,
                                      const std::vector<int>& offsets) const {
  if (!schema) {
    throw std::invalid_argument(
        fmt::format("signal category {} is unknown: set one before writing samples",
                    static_cast<int>(category)));
  }
  if (isByteForm(dataType) && offsets.empty()) {
    throw std::invalid_argument(
        "no offsets for binary samples: give their lengths or their dimensions");
  }
  checkRowOffsets(offsets, data.size() / elementWidth(dataType));
}

void ParquetSignalImpl::setData(const std::vector<double>& time, const std::vector<char>& data,
                                const Dims& dims, const std::vector<int>& lengths) {
  schema = buildSchema(/*includeTime=*/!sharedTimeColumn && !time.empty());
  int newTimeId = kNoStorage;
  int newDataId = kNoStorage;
  if (!data.empty()) {
    const std::vector<int> offsets = sampleOffsets(data, dims, lengths);
    checkWritable(data, offsets);
    if (time.empty()) {
      newDataId = setTypedData(data, dataType, offsets, dims);
    } else if (sharedTimeColumn) {
      newTimeId = setTime(time);
      newDataId = setTypedData(data, dataType, offsets, dims);
    } else {
      newDataId = setTypedDataTime(time, data, dataType, offsets, dims);
    }
    if (sharedTimeColumn && newTimeId != kNoStorage) {
      setParquetStorageId(newTimeId, SignalPart::time);
    }
  }
  setParquetStorageId(newDataId, SignalPart::data);
}

void ParquetSignalImpl::setData(const std::vector<char>& bytes, SignalPart part, const Dims& dims,
                                const std::vector<int>& lengths) {
  const bool isTime = part == SignalPart::time;  // any other part counts as data
  int id = kNoStorage;
  if (!bytes.empty()) {
    id = isTime ? record->worker->writeBinaryArray<double>(
                      timeSchema(), reinterpret_cast<const double*>(bytes.data()),
                      bytes.size() / sizeof(double), {}, {}, compression)
                : setTypedData(bytes, dataType, sampleOffsets(bytes, dims, lengths), dims);
  }
  setParquetStorageId(id, isTime ? SignalPart::time : SignalPart::data);
}

int ParquetSignalImpl::setTime(const std::vector<double>& time) {
  return record->worker->writeBinaryArray<double>(timeSchema(), time, {}, {}, compression);
}

int ParquetSignalImpl::setTypedData(const std::vector<char>& data, const KYRSignalDataType& type,
                                    const std::vector<int>& offsets, const Dims& dims) {
  ParquetSerializerWorker& worker = *record->worker;
  if (isByteForm(type)) return worker.writeBinaryArray(schema, data, offsets, dims, compression);
  return visitElementType(type, [&](auto element) {
    using T = typename decltype(element)::type;
    return worker.writeBinaryArray<T>(schema, reinterpret_cast<const T*>(data.data()),
                                      data.size() / sizeof(T), offsets, dims, compression);
  });
}

int ParquetSignalImpl::setTypedDataTime(const std::vector<double>& time,
                                        const std::vector<char>& data,
                                        const KYRSignalDataType& type,
                                        const std::vector<int>& offsets, const Dims& dims) {
  ParquetSerializerWorker& worker = *record->worker;
  if (isByteForm(type)) {
    return worker.writeBinaryArray(schema, time, data, offsets, dims, compression);
  }
  return visitElementType(type, [&](auto element) {
    using T = typename decltype(element)::type;
    return worker.writeBinaryArray<T>(schema, time, reinterpret_cast<const T*>(data.data()),
                                      data.size() / sizeof(T), offsets, dims, compression);
  });
}

void ParquetSignalImpl::getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
                                std::vector<int>& lengths) {
  std::vector<int> offsets;
  if (sharedTimeColumn) {
    if (record->timeStorageId != kNoStorage) getTime(record->timeStorageId, time);
    if (record->dataStorageId != kNoStorage) {
      getTypedData(record->dataStorageId, data, offsets, dims, dataType);
    }
  } else if (record->dataStorageId != kNoStorage) {
    getTypedDataTime(record->dataStorageId, time, data, offsets, dims, dataType);
  }
  if (record->dataStorageId != kNoStorage) lengths = lengthsOf(offsets);
}

void ParquetSignalImpl::getData(std::vector<char>& bytes, SignalPart part) {
  const int id = getStorageId(part);
  if (id == kNoStorage) return;
  std::vector<int> offsets;
  Dims dims;
  getTypedData(id, bytes, offsets, dims, part == SignalPart::time ? Double : dataType);
}

void ParquetSignalImpl::getTime(const int& id, std::vector<double>& time) {
  std::vector<int> offsets;
  Dims dims;
  record->worker->readBinaryArray<double>(id, time, offsets, dims);
}

void ParquetSignalImpl::getTypedData(const int& id, std::vector<char>& data,
                                     std::vector<int>& offsets, Dims& dims,
                                     const KYRSignalDataType& type) {
  const ParquetSerializerWorker& worker = *record->worker;
  if (isByteForm(type)) {
    worker.readBinaryArray(id, data, offsets, dims);
    return;
  }
  visitElementType(type, [&](auto element) {
    worker.readBytes<typename decltype(element)::type>(id, data, offsets, dims);
  });
}

void ParquetSignalImpl::getTypedDataTime(const int& id, std::vector<double>& time,
                                         std::vector<char>& data, std::vector<int>& offsets,
                                         Dims& dims, const KYRSignalDataType& type) {
  const ParquetSerializerWorker& worker = *record->worker;
  if (isByteForm(type)) {
    worker.readBinaryArray(id, time, data, offsets, dims);
    return;
  }
  visitElementType(type, [&](auto element) {
    worker.readBytes<typename decltype(element)::type>(id, time, data, offsets, dims);
  });
}

std::vector<int> ParquetSignalImpl::buildOffsetArray(std::size_t /*count*/,
                                                     const std::vector<int>& lengths) {
  if (lengths.empty()) return {};
  std::vector<int> offsets{0};
  offsets.reserve(lengths.size() + 1);
  for (const int length : lengths) {
    offsets.push_back(addWrapping(offsets.back(), static_cast<std::size_t>(length)));
  }
  return offsets;
}

std::vector<int> ParquetSignalImpl::buildOffsetArray(std::size_t count, const Dims& dims) {
  if (dims.empty()) return {};
  std::vector<int> offsets{0};
  if (dims.size() > 1) {
    offsets.reserve(dims.size() + 1);
    for (const auto& extents : dims) {
      offsets.push_back(addWrapping(offsets.back(), product(extents)));
    }
    return offsets;
  }
  const std::size_t elements = product(dims.front());
  const std::size_t samples = elements == 0 ? 0 : count / elements;
  offsets.reserve(samples + 1);
  for (std::size_t i = 0; i < samples; ++i) {
    offsets.push_back(addWrapping(offsets.back(), elements));
  }
  return offsets;
}

ParquetSignalImpl::Dims ParquetSignalImpl::expandDimensionArray(std::size_t count,
                                                                const Dims& dims) {
  if (dims.size() != 1) return dims;
  const std::size_t elements = product(dims.front());
  // A shape without elements says nothing about how many samples there are.
  if (elements == 0 || elements > count) return {};
  return Dims(count / elements, dims.front());
}

void ParquetSignalImpl::resetData() {
  if (!record->hasStorage) return;
  record->worker->remove(record->timeStorageId);
  record->worker->remove(record->dataStorageId);
  markAsEmptySignal();
}

void ParquetSignalImpl::markAsEmptySignal() {
  record->hasStorage = false;
  record->timeStorageId = kNoStorage;
  record->dataStorageId = kNoStorage;
}

bool ParquetSignalImpl::validateParquetStorageRecord() const { return record && record->worker; }

bool ParquetSignalImpl::checkAllStorageIdsExist() const {
  if (validateParquetStorageRecord()) {
    throw std::runtime_error("Parquet storage record is not valid!");
  }
  return !record->hasStorage || (record->worker->checkDataChunkExists(record->timeStorageId) &&
                                 record->worker->checkDataChunkExists(record->dataStorageId));
}

::arrow::Status ParquetSignalImpl::writeStatus() const {
  const ParquetSerializerWorker& worker = *record->worker;
  return worker.writeStatus(record->timeStorageId) & worker.writeStatus(record->dataStorageId);
}

}  // namespace kyr::parquet

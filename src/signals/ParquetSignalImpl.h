#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/compression.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/SignalTypes.h"
#include "safe/WholeSignal.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

/// See ParquetSignal for what the shared members promise.
class ParquetSignalImpl final : public WholeSignal {
 public:
  using Record = ParquetStorageRecord<ParquetSerializerWorker>;

  ParquetSignalImpl(std::shared_ptr<ParquetSerializerWorker> worker, int timeStorageId,
                    int dataStorageId);
  ~ParquetSignalImpl() override;
  ParquetSignalImpl(const ParquetSignalImpl&) = delete;
  ParquetSignalImpl& operator=(const ParquetSignalImpl&) = delete;

  void setData(const std::vector<double>& time, const std::vector<char>& data, const Dims& dims,
               const std::vector<int>& lengths) override;
  void getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
               std::vector<int>& lengths) override;
  void resetData() override;
  bool hasData() const override { return record->hasStorage; }
  int getStorageId(SignalPart part) const override;

  void setDataType(KYRSignalDataType type) override { dataType = type; }
  KYRSignalDataType getDataType() const override { return dataType; }
  void setCategory(KYRSignalCategory newCategory) override { category = newCategory; }
  KYRSignalCategory getCategory() const override { return category; }
  void setParquetCompressionType(const ::arrow::Compression::type& type) override {
    compression = type;
  }
  std::optional<::arrow::Compression::type> getParquetCompressionType() const override {
    return compression;
  }
  Path getParquetDirectory() const override { return record->worker->parquetDirectory(); }
  ::arrow::Status writeStatus() const override;

  /// Writes one part only, by the signal's type (data) or as doubles (time); empty \p bytes write
  /// nothing. The data part needs the schema of an earlier whole write.
  void setData(const std::vector<char>& bytes, SignalPart part, const Dims& dims,
               const std::vector<int>& lengths);
  /// Reads one part only; nothing for a part without storage.
  void getData(std::vector<char>& bytes, SignalPart part);

  static std::shared_ptr<Record> constructParquetStorageRecord(
      std::shared_ptr<ParquetSerializerWorker> worker, int timeStorageId, int dataStorageId);

  /// Takes \p id for \p part. A part that has an id keeps it.
  /// \throws std::runtime_error when the part already has another id; nothing is changed
  void setParquetStorageId(const int& id, const SignalPart& part);
  int getParquetStorageId(const SignalPart& part) const { return getStorageId(part); }

  /// Each writes one file (or finds its equal) and returns its id.
  int setTime(const std::vector<double>& time);
  int setTypedData(const std::vector<char>& data, const KYRSignalDataType& type,
                   const std::vector<int>& offsets, const Dims& dims);
  int setTypedDataTime(const std::vector<double>& time, const std::vector<char>& data,
                       const KYRSignalDataType& type, const std::vector<int>& offsets,
                       const Dims& dims);

  void getTime(const int& id, std::vector<double>& time);
  void getTypedData(const int& id, std::vector<char>& data, std::vector<int>& offsets, Dims& dims,
                    const KYRSignalDataType& type);
  void getTypedDataTime(const int& id, std::vector<double>& time, std::vector<char>& data,
                        std::vector<int>& offsets, Dims& dims, const KYRSignalDataType& type);

  /// Offsets of samples of the given lengths, one more than samples; empty for none. \p count is
  /// not used.
  static std::vector<int> buildOffsetArray(std::size_t count, const std::vector<int>& lengths);
  /// Offsets of samples of the given shapes; one shape alone is that of all of \p count elements.
  /// 32-bit arithmetic that wraps.
  static std::vector<int> buildOffsetArray(std::size_t count, const Dims& dims);
  /// One shape per sample; empty when a single shape needs more than \p count elements.
  static Dims expandDimensionArray(std::size_t count, const Dims& dims);

  /// Forgets the files without releasing them: they belong to someone else or are gone.
  void markAsEmptySignal();
  bool validateParquetStorageRecord() const;
  /// Throws for every signal that has a record and a worker, that is, always; hosts that probe a
  /// signal take the exception for "built". Nothing in the library calls it.
  bool checkAllStorageIdsExist() const;

 private:
  // Offsets of the data's samples as this signal's type wants them.
  std::vector<int> sampleOffsets(const std::vector<char>& data, const Dims& dims,
                                 const std::vector<int>& lengths) const;
  std::shared_ptr<::arrow::Schema> buildSchema(bool includeTime) const;
  void checkWritable(const std::vector<char>& data, const std::vector<int>& offsets) const;

  std::shared_ptr<Record> record;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = static_cast<KYRSignalCategory>(5);
  std::shared_ptr<::arrow::Schema> schema;
  bool sharedTimeColumn;
  std::optional<::arrow::Compression::type> compression = ::arrow::Compression::UNCOMPRESSED;
};

}  // namespace kyr::parquet

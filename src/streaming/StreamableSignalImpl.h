#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/RedundancyEliminator.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/parquet/StreamableWriter.h"
#include "schema/SampleLayout.h"
#include "storage/ParquetStorageRecord.h"
#include "streaming/PartBuffer.h"

namespace kyr::parquet {

/// See StreamableSignal.
class StreamableSignalImpl final : public StreamableSignal {
 public:
  using Checker = RedundancyChecker::Context<unsigned long>;
  using Chains = RedundancyEliminator::Registry;

  /// A signal without files. The writer, the checker and the chains are those of all signals of the
  /// pool.
  /// \throws std::invalid_argument if \p writer is empty or \p batchRows is 0
  StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer, std::shared_ptr<Checker> checker,
                       std::shared_ptr<Chains> chains, unsigned long batchRows);
  /// A signal over files that exist, by their ids.
  StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer, int timeId, int dataId,
                       std::shared_ptr<Checker> checker, std::shared_ptr<Chains> chains,
                       unsigned long batchRows);
  ~StreamableSignalImpl() override;
  StreamableSignalImpl(const StreamableSignalImpl&) = delete;
  StreamableSignalImpl& operator=(const StreamableSignalImpl&) = delete;

  void setBufferSize(unsigned long rows) override;
  void appendTime(const double* time, unsigned long count) override;
  void appendData(const void* data, unsigned long size,
                  const std::vector<std::vector<unsigned long>>& dimensions,
                  const std::vector<int>& extra) override;
  void finish(SignalPart part) override;
  void finish() override;
  unsigned long rowCount(SignalPart part) override;
  void flush() override;
  void resetData() override;
  bool hasData() const override;
  void setDataType(KYRSignalDataType type) override { dataType = type; }
  KYRSignalDataType getDataType() const override { return dataType; }
  void setCategory(KYRSignalCategory newCategory) override { category = newCategory; }
  KYRSignalCategory getCategory() const override { return category; }
  int getStorageId(SignalPart part) const override;
  void getTime(unsigned long from, unsigned long to, std::vector<char>& out) override;
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions) override;
  void getData(unsigned long from, unsigned long to, std::vector<char>& out,
               std::vector<std::vector<unsigned long>>& dimensions,
               std::vector<int>& sizes) override;
  void setParquetCompressionType(const ::arrow::Compression::type& type) override {
    compression = type;
  }
  std::optional<::arrow::Compression::type> getParquetCompressionType() const override {
    return compression;
  }
  Path getParquetDirectory() const override { return record->worker->parquetDirectory(); }
  ::arrow::Status writeStatus() const override;

  /// Rows that count as written to the part's file, copied ones included.
  unsigned long rowsWritten(SignalPart part) const;
  /// Rows of the part that wait in memory.
  std::size_t rowsBuffered(SignalPart part) const;

 private:
  using FileNode = RedundancyEliminator::FileNode;
  using NodeList = RedundancyEliminator::NodeList;
  using NodePtr = std::unique_ptr<FileNode>;
  using RowRange = StreamableWriter::RowRange;

  // What the two parts of a signal have each.
  struct Part {
    SignalPart name;
    std::unique_ptr<RedundancyEliminator::Context> chains;
    std::optional<PartBuffer> buffer;
    unsigned long rowsWritten = 0;
    bool finished = false;
  };

  Part& part(SignalPart name) { return parts[static_cast<std::size_t>(name)]; }
  const Part& part(SignalPart name) const { return parts[static_cast<std::size_t>(name)]; }
  int& storageId(const Part& part);
  int storageId(const Part& part) const;
  // The schema of the part's files, for the type and category as they are now.
  const SampleSchema& schemaOf(const Part& part);

  void appendChunk(Part& part, unsigned long contentNumber, const SampleChunk& chunk,
                   std::size_t width);
  void bufferChunk(Part& part, const SampleChunk& chunk, std::size_t width);
  void writeBatch(Part& part, const ::arrow::Table& rows);
  void adoptFile(Part& part, const NodeList& heads);
  // Copies the chain from \p head to \p stop and its rows, as far as they are on disk, into the
  // file \p newId, and adds a node of \p rows rows for the chunk that comes next.
  NodePtr copyChain(FileNode* head, FileNode* stop, int newId, Part& counter,
                    unsigned long contentNumber, unsigned long rows);
  void finishPart(Part& part);
  void markEnd(Part& part);
  bool hasFile(const Part& part) const;
  void removeFile(Part& part) noexcept;
  std::shared_ptr<::arrow::Table> readRows(Part& part, unsigned long from, unsigned long to);
  // Rows of a flat column, where they can be read without a table; see StreamableWriter.
  bool readElements(Part& part, unsigned long from, unsigned long to, std::vector<char>& out);

  std::shared_ptr<ParquetStorageRecord<StreamableWriter>> record;
  std::array<Part, 2> parts;
  unsigned long batchRows;
  std::shared_ptr<Checker> checker;
  std::shared_ptr<Chains> registry;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
  std::optional<::arrow::Compression::type> compression;

  // The data schema made last, and for what.
  SampleSchema dataSchema;
  KYRSignalDataType dataSchemaType = Double;
  KYRSignalCategory dataSchemaCategory = Scalar;
};

}  // namespace kyr::parquet

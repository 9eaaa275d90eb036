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
#include "schema/RowStore.h"
#include "storage/ParquetStorageRecord.h"
#include "streaming/ChainTree.h"

namespace kyr::parquet {

/// The StreamableSignal of pools without SafeStorage.
class StreamableSignalImpl final : public StreamableSignal {
 public:
  using Checker = RedundancyChecker::Context<unsigned long>;
  using Chains = RedundancyEliminator::Registry;
  using ChainIndex = RedundancyEliminator::ChainIndex;

  /// A signal without files. All signals of a pool share the writer, the checker and the chains,
  /// and the index over these. Without an index, each append looks at all chains that match.
  /// \throws std::invalid_argument if \p writer is empty or \p batchRows is 0
  StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer, std::shared_ptr<Checker> checker,
                       std::shared_ptr<Chains> chains, unsigned long batchRows,
                       std::shared_ptr<ChainIndex> chainIndex = nullptr);
  /// A signal over existing files, by their ids.
  StreamableSignalImpl(std::shared_ptr<StreamableWriter> writer, int timeId, int dataId,
                       std::shared_ptr<Checker> checker, std::shared_ptr<Chains> chains,
                       unsigned long batchRows, std::shared_ptr<ChainIndex> chainIndex = nullptr);
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

  /// Rows that count as written to the part's file, including copied ones.
  unsigned long rowsWritten(SignalPart part) const;
  /// Rows of the part that wait in memory.
  std::size_t rowsBuffered(SignalPart part) const;

 private:
  using FileNode = RedundancyEliminator::FileNode;
  using NodeList = RedundancyEliminator::NodeList;
  using NodePtr = std::unique_ptr<FileNode>;
  using RowRange = StreamableWriter::RowRange;

  // What each part of a signal has.
  struct Part {
    SignalPart name;
    std::unique_ptr<RedundancyEliminator::Context> chains;
    std::optional<RowStore> buffer;  // rows that are not on disk yet
    unsigned long rowsWritten = 0;
    bool finished = false;
  };

  Part& part(SignalPart name) { return parts[static_cast<std::size_t>(name)]; }
  const Part& part(SignalPart name) const { return parts[static_cast<std::size_t>(name)]; }
  int& storageId(const Part& part);
  int storageId(const Part& part) const;
  // The schema of the part's files for the present type and category.
  const SampleSchema& schemaOf(const Part& part);

  void appendChunk(Part& part, unsigned long contentNumber, const SampleChunk& chunk,
                   std::size_t width);
  void bufferChunk(Part& part, const SampleChunk& chunk, std::size_t width);
  void write(Part& part, std::size_t from, std::size_t rows);
  // Writes all whole batches of the buffer and removes them. If a write throws, none are removed.
  void writeBatches(Part& part);
  void adoptFile(Part& part, const NodeList& heads);
  // Copies the chain from \p head to \p stop, and those of its rows that are on disk, into the file
  // \p newId. Adds a node of \p rows rows for the next chunk.
  NodePtr copyChain(FileNode* head, FileNode* stop, int newId, Part& counter,
                    unsigned long contentNumber, unsigned long rows);
  void finishPart(Part& part);
  void markEnd(Part& part);
  bool hasFile(const Part& part) const;
  void removeFile(Part& part) noexcept;
  std::shared_ptr<::arrow::Table> readRows(Part& part, unsigned long from, unsigned long to);
  // Reads rows of a flat column without making a table; see StreamableWriter::readElements().
  bool readElements(Part& part, unsigned long from, unsigned long to, std::vector<char>& out);
  // Replaces \p out; the others are empty if the file does not have them.
  void read(Part& part, unsigned long from, unsigned long to, std::vector<char>& out,
            std::optional<std::vector<std::vector<std::uint64_t>>>& dimensions,
            std::optional<std::vector<int>>& sizes);

  std::shared_ptr<ParquetStorageRecord<StreamableWriter>> record;
  std::array<Part, 2> parts;
  unsigned long batchRows;
  std::shared_ptr<Checker> checker;
  std::shared_ptr<Chains> registry;
  std::shared_ptr<ChainIndex> index;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
  std::optional<::arrow::Compression::type> compression;

  // The data schema that was made last, and the type and category it was made for.
  SampleSchema dataSchema;
  KYRSignalDataType dataSchemaType = Double;
  KYRSignalCategory dataSchemaCategory = Scalar;
};

}  // namespace kyr::parquet

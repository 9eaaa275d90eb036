#pragma once

#include <memory>

#include "Store.h"

/// Parquet files of one column each, written and read with Arrow's two interfaces.
namespace kyr::compare {

struct ParquetOptions {
  enum class Encoding { plain, dictionary, byteStreamSplit, delta };

  bool lowLevel = false;   ///< typed column writers instead of Arrow tables
  bool kyrTables = false;  ///< the schemas and writer properties of a pool, without dictionaries
  bool hashes = false;     ///< kyr's content hash of all that is handed in; each content once
  Encoding encoding = Encoding::plain;
  bool zstd = false;
};

struct ColumnType {
  ColumnType(const Workload& workload, bool isTime)
      : isInt16(!isTime && workload.values == Values::counts),
        elements(isTime ? 1 : workload.elements) {}

  std::size_t elementSize() const { return isInt16 ? 2 : 8; }
  std::size_t rowSize() const { return elements * elementSize(); }

  bool isInt16;          ///< else float64
  std::size_t elements;  ///< of a row
};

class ColumnWriter {
 public:
  virtual ~ColumnWriter() = default;
  /// One row group.
  virtual void write(const char* rows, std::size_t count) = 0;
  virtual void close() = 0;
};

class ColumnReader {
 public:
  virtual ~ColumnReader() = default;
  virtual void readAll(Bytes& values) = 0;
  virtual void readRows(std::size_t from, std::size_t count, Bytes& values) = 0;
};

std::unique_ptr<ColumnWriter> makeTableWriter(const ParquetOptions& options, const ColumnType& type,
                                              const fs::path& file);
std::unique_ptr<ColumnReader> makeTableReader(const ColumnType& type, const fs::path& file);

/// Flat columns: a matrix takes as many rows as it has elements.
std::unique_ptr<ColumnWriter> makeLowLevelWriter(const ColumnType& type, const fs::path& file);
std::unique_ptr<ColumnReader> makeLowLevelReader(const ColumnType& type, const fs::path& file);

}  // namespace kyr::compare

#pragma once

#include <arrow/type_fwd.h>

#include <memory>
#include <string>

#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief Whole tables by name, in Parquet files of a new directory for temporary files.
///
/// The files are deleted with the object; the directory stays. Not copyable. One thread at a time.
class KYR_PARQUET_EXPORT ParquetUtils {
 public:
  /// \brief An object without storage: every other member throws std::logic_error.
  ParquetUtils();

  /// \brief An object with a new directory under the system's directory for temporary files, whose
  /// name is \p name and random digits.
  /// \throws std::invalid_argument if \p name is not well-formed UTF-8
  /// \throws std::filesystem::filesystem_error if the directory cannot be made
  explicit ParquetUtils(const std::string& name);

  /// \brief Delete the tables' files. An exception while doing so ends the process.
  ~ParquetUtils();
  ParquetUtils(const ParquetUtils&) = delete;
  ParquetUtils& operator=(const ParquetUtils&) = delete;

  /// \brief Does nothing: a directory, once set, stays.
  void setDirectoryName(const std::string& name);

  /// \brief Store \p table as \p name. A name that is written again stands for the newer table; the
  /// older table's file stays until the object is destroyed.
  ///
  /// A failed write reports nothing by itself: ask lastWriteStatus().
  /// \throws std::invalid_argument if \p table is empty
  void writeTableToParquet(std::shared_ptr<::arrow::Table> table, const std::string& name);

  /// \brief Read the table \p name. A name that was never written stands for the first table.
  /// \throws std::runtime_error "<path> does not exists." if there is no table at all
  std::shared_ptr<::arrow::Table> readTableFromParquet(const std::string& name);

  /// \brief Status of the latest write; OK before the first.
  ::arrow::Status lastWriteStatus() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr::parquet

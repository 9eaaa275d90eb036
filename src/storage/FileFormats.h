#pragma once

#include <arrow/util/type_fwd.h>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "files/FileFormat.h"
#include "kyr/parquet/ParquetWriterOptions.h"

namespace kyr::parquet {

/// The last few formats that the files of a directory were given, under the process-wide options as
/// they were when the object was made.
class FileFormats {
 public:
  using Codec = std::optional<::arrow::Compression::type>;

  /// \param codec  empty for that of the options
  std::shared_ptr<const FileFormat> of(const std::shared_ptr<const ::arrow::Schema>& schema,
                                       const Codec& codec);

 private:
  ParquetWriterOptions options_;
  std::vector<std::pair<Codec, std::shared_ptr<const FileFormat>>> known_;
};

}  // namespace kyr::parquet

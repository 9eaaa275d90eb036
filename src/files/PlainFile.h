#pragma once

#include <arrow/type_fwd.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "files/FileLayout.h"

namespace kyr::parquet {

/// Writes a new Parquet file of rows that are all known. It is smaller than a growing file.
/// \param rowGroups  a table for each row group
/// \param sync  whether to wait until the content is on the disk
/// \throws std::exception naming the file, which is removed then
void writePlainFile(const std::filesystem::path& path, const FileLayout& layout,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                    const std::vector<std::shared_ptr<::arrow::Table>>& rowGroups, bool sync);

}  // namespace kyr::parquet

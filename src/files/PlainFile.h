#pragma once

#include <arrow/type_fwd.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "files/FileLayout.h"

namespace kyr::parquet {

/// Writes a new Parquet file in one go, for rows that are all there: smaller than a growing one.
/// \param rowGroups  each a row group
/// \param sync  whether to wait until it is on the disk
/// \throws std::exception naming the file; none is left behind then
void writePlainFile(const std::filesystem::path& path, const FileLayout& layout,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                    const std::vector<std::shared_ptr<::arrow::Table>>& rowGroups, bool sync);

}  // namespace kyr::parquet

#pragma once

#include <arrow/type_fwd.h>

#include <filesystem>

namespace kyr::tool {

/// Puts \p schema, with the metadata of its fields, into the footer of a Parquet file that was
/// written without it. Readers based on Arrow find units and descriptions there.
/// \throws std::runtime_error naming the file if it cannot be changed
void addArrowSchema(const std::filesystem::path& file, const ::arrow::Schema& schema);

}  // namespace kyr::tool

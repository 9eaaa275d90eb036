#pragma once

#include <string>

#include "kyr/platform/Path.h"
#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief A unique path under the system's temporary directory; nothing is created.
///
/// The name is \p prefix, "_" and the base64 of 32 random bytes with every "/" as "_": 45
/// characters after the prefix.
KYR_PARQUET_EXPORT Path generateTempDirectoryName(const std::u16string& prefix);

/// \brief Create \p path and every missing directory above it.
/// \throws std::runtime_error "<path> already exists." if it does, whatever it is
/// \throws std::filesystem::filesystem_error if a directory cannot be created; those created before
///         it stay
KYR_PARQUET_EXPORT void createDirectory(const Path& path);

}  // namespace kyr::parquet

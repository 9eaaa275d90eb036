#pragma once

#include <functional>
#include <memory>

#include "kyr/platform/FileSystem.h"
#include "kyr/platform/export.h"

/// \brief A resumable walk over the entries of one directory, in the platform's order.
namespace kyr::parquet::FileSelector {

/// \brief Position of one walk. Made by create(), advanced by next().
struct Context {
  Path directory;
  directory_iterator iterator;
  bool started = false;  ///< whether the first entry has been handed out
};

/// \throws std::filesystem::filesystem_error if \p directory is missing or cannot be read
KYR_PARQUET_EXPORT std::unique_ptr<Context> create(const Path& directory);

/// \brief The next entry, or the end iterator for good once there is none.
/// \return a copy that shares the walk's position: use it before the next call
/// \throws std::invalid_argument if \p context is null
KYR_PARQUET_EXPORT directory_iterator next(Context* context);

/// \brief The next entry that \p filter accepts, or the end iterator.
/// \throws std::bad_function_call if \p filter is empty and there is an entry to test
KYR_PARQUET_EXPORT directory_iterator next(Context* context,
                                           std::function<bool(const directory_iterator&)> filter);

/// \brief Whether the entry is a file that begins with the Parquet magic "PAR1", whatever its name.
///
/// A file that cannot be opened or read is simply not one.
/// \throws std::filesystem::filesystem_error for an end iterator
KYR_PARQUET_EXPORT bool parquetFileFilter(const directory_iterator& it);

}  // namespace kyr::parquet::FileSelector

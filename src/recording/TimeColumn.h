#pragma once

#include <filesystem>

namespace kyr::recording {

/// Moves the "time" column of a data file into a time file of its own, where streamable signals have
/// it.
/// \return whether there is such a column; both files are left alone otherwise
/// \throws std::runtime_error naming the file that cannot be read or written
bool splitTimeColumn(const std::filesystem::path& dataFile, const std::filesystem::path& timeFile);

}  // namespace kyr::recording

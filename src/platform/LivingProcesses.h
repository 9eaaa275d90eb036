#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kyr {

/// When the oldest of this user's processes that have a library loaded was started; nothing if no
/// process has it but the calling one, which does not count.
/// \param library  the beginning of the name of its file
std::optional<std::filesystem::file_time_type> startOfOldestProcessWith(const std::string& library);

}  // namespace kyr

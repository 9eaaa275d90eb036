#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kyr::tool {

/// The absolute path of a file or folder, without "." and "..", and without a "/" at its end.
std::filesystem::path wholePath(const std::string& name);

/// What recordings are called beside each other: their folders without the way there, or as given
/// where several would be called the same.
std::vector<std::string> namesOfRuns(const std::vector<std::string>& folders);

/// Bytes of a file, or of all files below a folder. Files that vanish meanwhile do not count.
std::uint64_t bytesBelow(const std::filesystem::path& path);

}  // namespace kyr::tool

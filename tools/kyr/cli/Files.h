#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace kyr::tool {

/// The absolute path of a file or folder, without "." and "..", and without a "/" at its end.
std::filesystem::path wholePath(const std::string& name);

/// Bytes of a file, or of all files below a folder. Files that vanish meanwhile do not count.
std::uint64_t bytesBelow(const std::filesystem::path& path);

}  // namespace kyr::tool

#pragma once

#include <filesystem>

/// Files that have several names (hard links), such as a pool's file that a saved recording shares:
/// whoever writes into one of them in place would change the others. See copyIfLinked(), too.
namespace kyr {

/// Called before the file is written anew from its beginning: if it has other names, they keep it,
/// and \p path is removed.
/// \throws std::filesystem::filesystem_error if it cannot be removed
void removeIfLinked(const std::filesystem::path& path);

}  // namespace kyr

#pragma once

#include <string>
#include <vector>

#include "platform/Folder.h"

namespace kyr::recording {

/// A growing pack of which not all can be had.
struct DamagedPack {
  std::string name;
  std::string damage;
};

/// Gives the contents of a live recording that nobody writes any more files of their own, with the
/// rows that growing packs have and their files do not. The packs stay. A file that is damaged stays
/// as it is, and so do contents of which rows are missing in between.
///
/// If it is interrupted, it can be called again.
/// \param folder  of the recording
/// \throws std::system_error, std::runtime_error  naming a file that cannot be read or written
std::vector<DamagedPack> expandPacks(const Folder& folder);

}  // namespace kyr::recording

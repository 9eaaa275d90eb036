#pragma once

#include <functional>
#include <string>

#include "platform/Folder.h"
#include "recording/LivePacks.h"

namespace kyr::recording {

/// Keeps a file of the storage folder of which not all can be had, and notes what is wrong with it.
using KeepDamaged = std::function<void(const std::string& name, const std::string& damage)>;

/// Gives the contents of a live recording that nobody writes any more files of their own, with the
/// rows that growing packs have and their files do not. The packs stay. A file that is damaged
/// stays as it is, unless packs have more rows of its content from the first one on. A file whose
/// writing was interrupted is one of these, and is not kept. Contents of which rows are missing in
/// between stay as they are.
///
/// If it is interrupted, it can be called again.
/// \param folder  of the recording
/// \param packs  those of the recording, opened with checks of their batches
/// \param keep  called with packs that are damaged, and with damaged files before they are replaced
/// \throws std::system_error, std::runtime_error  naming a file that cannot be read or written
void expandPacks(const Folder& folder, const LivePacks& packs, const KeepDamaged& keep);

}  // namespace kyr::recording

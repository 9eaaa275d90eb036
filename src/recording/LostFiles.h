#pragma once

#include <string>

#include "platform/DiskFile.h"
#include "platform/Folder.h"

/// The folder `lost` of a recording has what a recovery cannot use and does not throw away. A file
/// that is there keeps its name: later ones of the same name get a number.
namespace kyr::recording {

constexpr const char* kLostFolder = "lost";

/// Gives a file of the storage folder a second name in `lost`, or copies it there. It may be called
/// again behind a crash. Nothing is ever written in place into a file that has two names.
/// \param folder  of the recording
/// \throws std::system_error if that fails
void keepAside(const Folder& folder, const std::string& name);

/// Moves a file or folder of the storage folder to `lost`.
/// \throws std::system_error if that fails
void moveAside(const Folder& folder, const std::string& name);

/// Copies a file to a new one of \p folder, which is on the disk when the call returns.
/// \throws std::system_error if that fails; there is no such file then
void copyInto(const Folder& folder, const std::string& name, const DiskFile& from);

}  // namespace kyr::recording

#pragma once

#include <string>
#include <vector>

#include "platform/Folder.h"

namespace kyr::recording {

/// Finds the same faults as verifyRecording(). Recovery calls it, because it must tell damage from
/// failures of the system.
/// \param checksNames  whether files that nothing names are faults
/// \throws std::system_error naming the file if the system cannot read it
std::vector<std::string> contentFaults(const Folder& folder, bool checksNames);

}  // namespace kyr::recording

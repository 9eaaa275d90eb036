#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kyr::recording {

/// Finds the same faults as verifyRecording(). Recovery calls it, because it must tell damage from
/// failures of the system.
/// \param checksNames  whether files that nothing names are faults
/// \throws std::system_error naming the file if the system cannot read it
std::vector<std::string> contentFaults(const std::filesystem::path& folder, bool checksNames);

}  // namespace kyr::recording

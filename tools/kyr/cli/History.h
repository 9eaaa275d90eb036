#pragma once

#include <string>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// The attribute that says how a recording came to be: a JSON array of steps, the last one at the
/// end. A step is an object with `tool`, `version`, and, if it read a file, `source`, the name of
/// the file without its folder, and `source_xxh3_128`, the checksum of its bytes.
constexpr const char* kHistoryAttribute = "history";

/// Adds a first step, unless the user gave a history.
/// \param command  such as "kyr import"
/// \param source  the file as the user named it; "-" for standard input
/// \param isComplete  whether the file is as it was when it was read
void addHistory(recording::Attributes& attributes, const std::string& command,
                const std::string& source, bool isComplete);

}  // namespace kyr::tool

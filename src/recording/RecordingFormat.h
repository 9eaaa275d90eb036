#pragma once

#include <string>
#include <string_view>

#include "kyr/recording/RecordingInfo.h"
#include "recording/StorageNames.h"

/// The text of recording.json; docs/format.md describes it for readers that are not ours.
namespace kyr::recording {

/// \throws std::invalid_argument naming a signal of which a text is no valid UTF-8, or the bytes
///         are more than 64 bits can count
std::string writeRecordingJson(const RecordingInfo& info);

/// \param source  name of the file for error texts
/// \throws std::runtime_error naming the source, the member that is wrong, and its value
RecordingInfo readRecordingJson(std::string_view text, const std::string& source);

}  // namespace kyr::recording

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// recording.json of a packed recording. There may be very many signals: the text is made and read
/// without a document in between, and has no white space.
/// \throws std::invalid_argument if a text of a signal is no valid UTF-8
std::string writePackedJson(const RecordingInfo& info);

/// Reads a text as writePackedJson() makes it, of which it does not check what one part says of
/// another. Empty for any other text, sound or not; that is left to those who can tell.
std::optional<RecordingInfo> readPackedJson(std::string_view text);

}  // namespace kyr::recording

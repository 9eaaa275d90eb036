#pragma once

#include <string>
#include <string_view>

#include "kyr/recording/RecordingInfo.h"
#include "schema/TypeNames.h"

/// The layout of a recording folder and the text of its recording.json; docs/format.md describes
/// both for readers that are not ours.
namespace kyr::recording {

/// The newest format that this library reads. It writes the oldest that has what is to be said: 2 if
/// there are packs, else 1.
constexpr int kFormatVersion = 2;

/// \throws std::invalid_argument if a text of a signal is no valid UTF-8
std::string writeRecordingJson(const RecordingInfo& info);

/// \param source  name of the file for error texts
/// \throws std::runtime_error naming the source and what is wrong
RecordingInfo readRecordingJson(const std::string& text, const std::string& source);

}  // namespace kyr::recording

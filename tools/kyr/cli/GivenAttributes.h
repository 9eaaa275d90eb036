#pragma once

#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace CLI {
class App;
}

namespace kyr::tool {

/// Adds --attribute to a command that makes a recording.
void addAttributeOption(CLI::App& command, std::vector<std::string>& attributes);

/// The attributes that the user gave as "NAME=VALUE". A value that is JSON counts as such, and as a
/// text otherwise.
/// \throws UsageError for one without a name or "="
recording::Attributes givenAttributes(const std::vector<std::string>& attributes);

/// What the user gave as a JSON value: itself if it is one, and as a text otherwise.
std::string jsonValue(const std::string& given);

/// A text as a JSON value.
std::string jsonText(const std::string& text);

}  // namespace kyr::tool

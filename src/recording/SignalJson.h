#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "kyr/recording/RecordingInfo.h"

/// What the JSON documents of recordings have in common.
namespace kyr::recording {

/// A signal without what its files alone tell: codec, number of samples, span of times.
nlohmann::json describedJson(const SignalInfo& signal);

/// \throws std::exception  saying what is missing or wrong
SignalInfo describedFromJson(const nlohmann::json& object);

/// Of the document without its own checksum, compact and with sorted keys.
std::string documentChecksum(nlohmann::json document);

/// \throws std::invalid_argument if a text of the signal is no valid UTF-8
void requireText(const SignalDescription& signal);

}  // namespace kyr::recording

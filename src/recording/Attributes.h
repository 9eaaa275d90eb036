#pragma once

#include "kyr/recording/RecordingInfo.h"
#include "schema/JsonMembers.h"

namespace kyr::recording {

/// Attributes as a JSON object, sorted by name, with values of any kind.
struct JsonAttributes {
  static void read(JsonReader& in, Attributes& attributes);
  static void write(JsonWriter& out, const Attributes& attributes);
};

/// The attributes with their values as JSON without white space.
/// \throws std::invalid_argument naming the attribute if its name is empty or no valid UTF-8, or
///         its value is no JSON
Attributes normalised(const Attributes& attributes);

}  // namespace kyr::recording

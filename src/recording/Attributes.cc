#include "recording/Attributes.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "platform/JsonReader.h"
#include "platform/JsonWriter.h"

namespace kyr::recording {

namespace {

// A JSON text as a parser and a writer that know nothing of its layout would repeat it, which is
// what the checksum of a document is made of. JsonReader limits the depth, which the other parser
// does not.
std::string normalisedValue(std::string_view text) {
  JsonReader in(text);
  in.skip();
  in.finish();
  return nlohmann::json::parse(text).dump();
}

}  // namespace

void JsonAttributes::read(JsonReader& in, Attributes& attributes) {
  attributes.clear();
  const bool isObject = in.takeObject([&](std::string_view key) {
    const std::string name(key);
    try {
      if (attributes.emplace(name, normalisedValue(in.skip())).second) return;
    } catch (const nlohmann::json::exception& error) {
      throw JsonValueError(name, error.what());
    }
    throw JsonValueError(name, "is there twice");
  });
  if (!isObject) refuseValue(in, "an object");
}

void JsonAttributes::write(JsonWriter& out, const Attributes& attributes) {
  out.beginObject();
  for (const auto& [name, value] : attributes) {
    const std::string quoted = nlohmann::json(name).dump();
    out.key(std::string_view(quoted).substr(1, quoted.size() - 2));
    out.value(value);
  }
  out.endObject();
}

Attributes normalised(const Attributes& attributes) {
  Attributes result;
  for (const auto& [name, value] : attributes) {
    try {
      static_cast<void>(nlohmann::json(name).dump());
      if (name.empty()) throw std::invalid_argument("its name is empty");
      result[name] = normalisedValue(value);
    } catch (const std::exception& error) {
      throw std::invalid_argument(fmt::format("attribute \"{}\": {}", name, error.what()));
    }
  }
  return result;
}

}  // namespace kyr::recording

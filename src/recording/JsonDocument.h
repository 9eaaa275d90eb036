#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "schema/JsonMembers.h"

/// What the JSON documents of recordings have in common: a format's name and version, and a
/// checksum of their own content.
namespace kyr::recording {

struct DocumentFormat {
  std::string_view name;
  int newestVersion;
  const char* thing;  ///< what such a document describes
};

/// What a document says of itself, as far as it says it.
struct DocumentHeader {
  std::string format;
  std::optional<std::int64_t> version;  ///< the largest number for one that is larger still
  bool hasValidChecksum = false;
};

/// \throws JsonSyntaxError
DocumentHeader readHeader(std::string_view text);

/// Whether the text has the checksum of its content.
/// \param text  a JSON object that JsonReader can read
bool hasValidChecksum(std::string_view text);

/// The text of a document with its checksum as the last member.
/// \param text  an object with members, as JsonWriter makes it
std::string withChecksum(std::string text, JsonWriter::Layout layout);

/// \throws std::runtime_error if the text is no document of the format, is damaged, or of a version
///         that is newer than those that are known here
void requireSound(std::string_view text, const DocumentFormat& format);

/// Reads a document, and names \p source in error texts.
/// \throws std::runtime_error naming the source, and the member that is wrong
template <typename T>
T readDocument(std::string_view text, const DocumentFormat& format, const std::string& source) {
  try {
    JsonReader in(text);
    T document;
    try {
      JsonValue<T>::read(in, document);
    } catch (const JsonValueError&) {
      // A document of another version, or a damaged one, is told for what it is.
      requireSound(text, format);
      throw;
    }
    in.finish();
    const bool isKnown =
        document.formatVersion >= 1 && document.formatVersion <= format.newestVersion;
    if (!isKnown || !hasValidChecksum(text)) requireSound(text, format);
    return document;
  } catch (const JsonSyntaxError& error) {
    throw std::runtime_error(source + ": damaged: " + error.what());
  } catch (const std::exception& error) {
    throw std::runtime_error(source + ": " + error.what());
  }
}

}  // namespace kyr::recording

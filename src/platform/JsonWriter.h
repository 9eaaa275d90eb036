#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace kyr {

/// Whether a character stands for itself in a JSON text. Those beyond ASCII do, too, but must be
/// valid UTF-8.
constexpr bool isPlainInJson(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
}

/// How many characters at the beginning of a text stand for themselves and are ASCII.
std::size_t plainLength(std::string_view text);

/// Makes a JSON text. The caller sees to it that it becomes a valid one.
class JsonWriter {
 public:
  enum class Layout {
    compact,   ///< no white space at all
    indented,  ///< a line for each value, indented by a blank for each level
  };

  /// \param size  of the text, roughly, if it may be a long one
  explicit JsonWriter(Layout layout, std::size_t size = 0)
      : isIndented_(layout == Layout::indented) {
    text_.reserve(size);
  }

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  /// \param name  of which all characters are plain
  void key(std::string_view name);

  void null() { raw("null"); }
  void number(std::int64_t value);
  void number(std::uint64_t value);
  /// \param value  is finite
  void number(double value);
  /// \throws std::exception if the text is no valid UTF-8
  void text(std::string_view value);
  /// \param json  the text of a value of any kind
  void value(std::string_view json) { raw(json); }

  std::string take() { return std::move(text_); }

 private:
  void open(char bracket);
  void close(char bracket);
  void raw(std::string_view value);
  void beginValue();
  void breakLine();

  // The text of a number, which is costly to make: neighbours in a document often have the same.
  struct KnownNumber {
    double value = 0;
    std::string text = "0.0";
  };

  bool isIndented_;
  std::string text_;
  std::size_t depth_ = 0;
  bool isFirst_ = true;    // in its array or object
  bool isMember_ = false;  // a key was written before
  KnownNumber known_[2];
  std::size_t oldest_ = 0;
};

}  // namespace kyr

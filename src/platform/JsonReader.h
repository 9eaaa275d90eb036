#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kyr {

/// A text that is no JSON, or is nested too deeply.
class JsonSyntaxError : public std::runtime_error {
 public:
  JsonSyntaxError(const std::string& what, std::size_t byte)
      : std::runtime_error(what), byte_(byte) {}

  /// Where the text is wrong, from 1 on; one more than the text has where it ends too early.
  std::size_t byte() const { return byte_; }

 private:
  std::size_t byte_;
};

/// Reads a JSON text value by value, without a document in between: a description of ten thousand
/// signals is read ten times faster so.
///
/// The grammar is RFC 8259's, to the letter. At most kMaxDepth arrays and objects may lie inside
/// each other, so that no text exhausts the stack.
///
/// Each take function reads the next value if it is of that kind, and otherwise returns false and
/// reads nothing. All throw JsonSyntaxError. The text must outlive the object.
class JsonReader {
 public:
  static constexpr int kMaxDepth = 64;

  explicit JsonReader(std::string_view text) : text_(text) {}

  bool takeNull();
  /// \param number  its text, of which the grammar is checked, but no range
  bool takeNumber(std::string_view& number);
  /// \param value  UTF-8, escape sequences resolved
  bool takeText(std::string& value);

  /// Calls \p visit for each element, which must read it.
  template <typename Visit>
  bool takeArray(Visit&& visit) {
    if (!open('[')) return false;
    if (!close(']')) {
      do {
        visit();
      } while (hasNext(']'));
    }
    --depth_;
    return true;
  }

  /// Calls \p visit with the name of each member; it must read the value. The name is valid until
  /// then.
  template <typename Visit>
  bool takeObject(Visit&& visit) {
    if (!open('{')) return false;
    if (!close('}')) {
      do {
        visit(key());
      } while (hasNext('}'));
    }
    --depth_;
    return true;
  }

  /// Reads any value. \return its text
  std::string_view skip();

  /// Requires that nothing follows.
  void finish();

  /// Where the next value begins.
  std::size_t position() {
    skipSpace();
    return at_;
  }
  /// How many characters follow the last value that was read.
  std::size_t remaining() const { return text_.size() - std::min(at_, text_.size()); }
  /// Goes back to where a value began, at the depth at which it lies.
  void rewind(std::size_t position, int depth) {
    at_ = position;
    depth_ = depth;
  }
  int depth() const { return depth_; }

 private:
  [[noreturn]] void fail() const;
  // An escape sequence that is cut off leads behind the end.
  bool atEnd() const { return at_ >= text_.size(); }
  char peek() {
    skipSpace();
    return atEnd() ? '\0' : text_[at_];
  }
  void skipSpace();
  bool open(char bracket);
  bool close(char bracket);
  // After a value: whether another one follows.
  bool hasNext(char bracket);
  bool takeWord(std::string_view word);
  std::string_view key();
  // Reads a text behind its quotation mark. \return its content, or its value in \p decoded
  std::string_view textAfterQuote(std::string& decoded);
  void skipDigits();

  std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
  std::string key_;  // a key with escape sequences, resolved
};

}  // namespace kyr

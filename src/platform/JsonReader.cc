#include "platform/JsonReader.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "platform/JsonWriter.h"

namespace kyr {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void JsonReader::fail() const {
  throw JsonSyntaxError(fmt::format("no valid JSON at byte {}", at_ + 1), at_ + 1);
}

void JsonReader::skipSpace() {
  while (!atEnd() &&
         (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\r' || text_[at_] == '\t')) {
    ++at_;
  }
}

bool JsonReader::open(char bracket) {
  if (peek() != bracket) return false;
  if (depth_ == kMaxDepth) {
    throw JsonSyntaxError(
        fmt::format("more than {} arrays and objects inside each other at byte {}", kMaxDepth,
                    at_ + 1),
        at_ + 1);
  }
  ++depth_;
  ++at_;
  return true;
}

bool JsonReader::close(char bracket) {
  if (peek() != bracket) return false;
  ++at_;
  return true;
}

bool JsonReader::hasNext(char bracket) {
  if (close(bracket)) return false;
  if (peek() != ',') fail();
  ++at_;
  return true;
}

bool JsonReader::takeWord(std::string_view word) {
  if (peek() != word.front()) return false;
  for (const char expected : word) {
    if (atEnd() || text_[at_] != expected) fail();
    ++at_;
  }
  return true;
}

bool JsonReader::takeNull() { return takeWord("null"); }

void JsonReader::skipDigits() {
  if (atEnd() || !isDigit(text_[at_])) fail();
  while (!atEnd() && isDigit(text_[at_])) ++at_;
}

bool JsonReader::takeNumber(std::string_view& number) {
  const char first = peek();
  if (first != '-' && !isDigit(first)) return false;
  const std::size_t begin = at_;
  if (first == '-') ++at_;
  if (!atEnd() && text_[at_] == '0') {
    ++at_;
  } else {
    skipDigits();
  }
  if (!atEnd() && text_[at_] == '.') {
    ++at_;
    skipDigits();
  }
  if (!atEnd() && (text_[at_] == 'e' || text_[at_] == 'E')) {
    ++at_;
    if (!atEnd() && (text_[at_] == '+' || text_[at_] == '-')) ++at_;
    skipDigits();
  }
  number = text_.substr(begin, at_ - begin);
  return true;
}

std::string_view JsonReader::textAfterQuote(std::string& decoded) {
  const std::size_t begin = at_;
  at_ += plainLength(text_.substr(at_));
  if (atEnd()) fail();
  if (text_[at_] == '"') return text_.substr(begin, at_++ - begin);
  // Escape sequences, and letters that are not ASCII, are left to the library.
  while (!atEnd() && text_[at_] != '"') at_ += text_[at_] == '\\' ? 2 : 1;
  if (at_ >= text_.size()) {
    at_ = text_.size();
    fail();
  }
  ++at_;
  const std::string_view token = text_.substr(begin - 1, at_ - begin + 1);
  const auto parsed = nlohmann::json::parse(token, nullptr, /*allow_exceptions=*/false);
  if (!parsed.is_string()) {
    at_ = begin - 1;
    fail();
  }
  parsed.get_to(decoded);
  return decoded;
}

bool JsonReader::takeText(std::string& value) {
  if (peek() != '"') return false;
  ++at_;
  const std::string_view text = textAfterQuote(value);
  if (text.data() != value.data()) value.assign(text);
  return true;
}

std::string_view JsonReader::key() {
  if (peek() != '"') fail();
  ++at_;
  const std::string_view key = textAfterQuote(key_);
  if (peek() != ':') fail();
  ++at_;
  return key;
}

std::string_view JsonReader::skip() {
  const std::size_t begin = position();
  std::string_view number;
  std::string text;
  const bool isValue = takeNumber(number) || takeText(text) || takeNull() || takeWord("true") ||
                       takeWord("false") || takeArray([this] { skip(); }) ||
                       takeObject([this](std::string_view) { skip(); });
  if (!isValue) fail();
  return text_.substr(begin, at_ - begin);
}

void JsonReader::finish() {
  skipSpace();
  if (!atEnd()) fail();
}

}  // namespace kyr

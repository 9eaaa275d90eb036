#include "kyr/platform/Path.h"

#include <arrow/result.h>
#include <arrow/util/utf8.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace kyr {

namespace {

constexpr bool isSeparator(char16_t c) {
  return c == u'/' || c == static_cast<char16_t>(std::filesystem::path::preferred_separator);
}

// The text in ASCII, with everything else as \xNN or \uNNNN. An error about ill-formed text must
// not contain it.
template <typename Text>
std::string printable(const Text& text) {
  std::string out;
  for (const auto unit : text) {
    const auto code = static_cast<std::uint32_t>(
        static_cast<std::make_unsigned_t<std::decay_t<decltype(unit)>>>(unit));
    if (code >= 0x20 && code < 0x7f) {
      out += static_cast<char>(code);
    } else {
      out += code > 0xff ? fmt::format("\\u{:04x}", code) : fmt::format("\\x{:02x}", code);
    }
  }
  return out;
}

// std::make_unsigned does not take char16_t, which is unsigned already.
std::string printable(std::u16string_view text) {
  return printable(std::vector<std::uint16_t>(text.begin(), text.end()));
}

}  // namespace

std::u16string toUtf16(std::string_view utf8) {
  auto converted = ::arrow::util::UTF8StringToUTF16(utf8);
  if (!converted.ok()) {
    throw std::invalid_argument(fmt::format("\"{}\" is not well-formed UTF-8", printable(utf8)));
  }
  return *std::move(converted);
}

std::string toUtf8(std::u16string_view utf16) {
  auto converted = ::arrow::util::UTF16StringToUTF8(utf16);
  if (!converted.ok()) {
    throw std::invalid_argument(fmt::format("\"{}\" is not well-formed UTF-16", printable(utf16)));
  }
  return *std::move(converted);
}

Path::Path(std::u16string text, bool isNative) : text_(std::move(text)), isNative_(isNative) {}

Path Path::fromNarrow(std::string_view utf8) { return Path(toUtf16(utf8)); }

Path Path::fromFilesystem(const std::filesystem::path& path) {
  return Path(toUtf16(path.native()), true);
}

std::string Path::toNarrow() const { return toUtf8(text_); }

std::filesystem::path Path::toFilesystem() const { return {toNarrow()}; }

Path Path::native() const {
  Path result(text_, true);
  std::replace_if(result.text_.begin(), result.text_.end(), isSeparator,
                  static_cast<char16_t>(std::filesystem::path::preferred_separator));
  return result;
}

Path Path::join(const Path& element) const {
  Path result = *this;
  if (!text_.empty() && !isSeparator(text_.back())) {
    result.text_ += static_cast<char16_t>(std::filesystem::path::preferred_separator);
  }
  result.text_ += element.text_;
  return result;
}

Path Path::join(std::string_view utf8Element) const { return join(fromNarrow(utf8Element)); }

Path Path::fileName() const {
  const auto last = std::find_if(text_.rbegin(), text_.rend(), isSeparator);
  return Path(std::u16string(last.base(), text_.end()), isNative_);
}

}  // namespace kyr

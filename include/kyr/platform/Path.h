#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief A file-system path as UTF-16 text, the form in which paths cross the library's boundary.
///
/// A value type. The text is kept exactly as given, so two paths are equal when their code units
/// are, whatever they name on disk. Nothing here touches the disk.
class KYR_PARQUET_EXPORT Path {
 public:
  Path() = default;

  /// \brief A path of any text. Ill-formed UTF-16 is reported by the first narrow conversion.
  /// \param isNative  whether \p text already uses the platform's own separators
  explicit Path(std::u16string text, bool isNative = false);

  /// \brief Path of a UTF-8 string.
  /// \throws std::invalid_argument if \p utf8 is not well-formed UTF-8
  static Path fromNarrow(std::string_view utf8);

  /// \brief Path of a file-system path, in native form.
  /// \throws std::invalid_argument if its name is not well-formed UTF-8
  static Path fromFilesystem(const std::filesystem::path& path);

  const std::u16string& text() const noexcept { return text_; }
  bool empty() const noexcept { return text_.empty(); }
  bool isNative() const noexcept { return isNative_; }

  /// \brief UTF-8 text.
  /// \throws std::invalid_argument if the text is not well-formed UTF-16 (a lone surrogate)
  std::string toNarrow() const;

  /// \throws std::invalid_argument as toNarrow()
  std::filesystem::path toFilesystem() const;

  /// \brief The same path with the platform's separators.
  Path native() const;

  /// \brief This path with one more element behind it, and with a separator between them.
  Path join(const Path& element) const;
  Path join(std::string_view utf8Element) const;

  /// \brief The text behind the last separator; empty if the path ends in one.
  Path fileName() const;

  friend bool operator==(const Path& a, const Path& b) noexcept { return a.text_ == b.text_; }
  friend bool operator!=(const Path& a, const Path& b) noexcept { return a.text_ != b.text_; }
  friend bool operator<(const Path& a, const Path& b) noexcept { return a.text_ < b.text_; }

 private:
  std::u16string text_;
  bool isNative_ = false;
};

/// \brief UTF-16 of a UTF-8 string.
/// \throws std::invalid_argument if \p utf8 is not well-formed
KYR_PARQUET_EXPORT std::u16string toUtf16(std::string_view utf8);

/// \brief UTF-8 of a UTF-16 string.
/// \throws std::invalid_argument if \p utf16 is not well-formed
KYR_PARQUET_EXPORT std::string toUtf8(std::u16string_view utf16);

}  // namespace kyr

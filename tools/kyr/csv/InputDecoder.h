#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kyr::tool {

/// Makes UTF-8 of the bytes of an input, piece by piece: unpacks gzip and zstd, which it recognises
/// by the first bytes, and converts other encodings.
///
/// Errors are std::runtime_error that name the input.
class InputDecoder {
 public:
  /// \param source  what messages call the input
  /// \param encoding  as iconv() knows it; empty for UTF-8, or UTF-16 that begins with its mark
  /// \throws UsageError if there is no such encoding
  InputDecoder(std::string source, const std::string& encoding);
  ~InputDecoder();
  InputDecoder(const InputDecoder&) = delete;
  InputDecoder& operator=(const InputDecoder&) = delete;

  /// Bytes at the beginning of an input that tell whether it needs decoding.
  static constexpr std::size_t kFirstBytes = 4;

  /// Whether the input is UTF-8 as it is.
  /// \param first  its first bytes, as many as there are up to kFirstBytes
  static bool isPlain(std::string_view first, const std::string& encoding);

  /// Appends what the next bytes say to \p text.
  void decode(std::string_view bytes, std::string& text);

  /// To be called behind the last bytes.
  /// \throws std::runtime_error if the input ends in the middle
  void finish(std::string& text);

 private:
  class Unpacker;
  class Converter;

  void start();
  void pass(std::string_view bytes, std::string& text);

  std::string source_;
  std::string encoding_;
  std::string first_;  // until there are enough bytes to tell what they are
  bool isStarted_ = false;
  std::unique_ptr<Unpacker> unpacker_;
  std::unique_ptr<Converter> converter_;
};

}  // namespace kyr::tool

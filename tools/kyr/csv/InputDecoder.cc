#include "csv/InputDecoder.h"

#include <arrow/util/compression.h>
#include <fmt/format.h>
#include <iconv.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"

namespace kyr::tool {

namespace {

using Codec = ::arrow::Compression;

constexpr std::size_t kPieceBytes = std::size_t{1} << 16U;

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

Codec::type packingOf(std::string_view first) {
  if (startsWith(first, "\x1f\x8b")) return Codec::GZIP;
  if (startsWith(first, "\x28\xb5\x2f\xfd")) return Codec::ZSTD;
  return Codec::UNCOMPRESSED;
}

bool isUtf16(std::string_view first) {
  return startsWith(first, "\xff\xfe") || startsWith(first, "\xfe\xff");
}

}  // namespace

// Several packed inputs may follow one another.
class InputDecoder::Unpacker {
 public:
  Unpacker(const std::string& source, Codec::type packing)
      : source_(source),
        codec_(check(::arrow::util::Codec::Create(packing))),
        unpacking_(check(codec_->MakeDecompressor())),
        piece_(kPieceBytes, '\0') {}

  template <typename Take>
  void unpack(std::string_view bytes, const Take& take) {
    while (!bytes.empty()) {
      if (unpacking_->IsFinished()) check(unpacking_->Reset());
      isWhole_ = false;
      const auto done = unpacking_->Decompress(static_cast<std::int64_t>(bytes.size()),
                                               reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                               static_cast<std::int64_t>(piece_.size()),
                                               reinterpret_cast<std::uint8_t*>(piece_.data()));
      if (!done.ok()) {
        throw std::runtime_error(
            fmt::format("{} cannot be unpacked: {}", source_, done.status().message()));
      }
      bytes.remove_prefix(static_cast<std::size_t>(done->bytes_read));
      take(std::string_view(piece_.data(), static_cast<std::size_t>(done->bytes_written)));
      if (done->bytes_read == 0 && done->bytes_written == 0) piece_.resize(2 * piece_.size());
      isWhole_ = unpacking_->IsFinished();
    }
  }

  void finish() const {
    if (!isWhole_) throw std::runtime_error(source_ + " cannot be unpacked: its end is missing");
  }

 private:
  std::string source_;
  std::unique_ptr<::arrow::util::Codec> codec_;
  std::shared_ptr<::arrow::util::Decompressor> unpacking_;
  std::string piece_;
  bool isWhole_ = true;
};

class InputDecoder::Converter {
 public:
  Converter(const std::string& source, const std::string& encoding)
      : source_(source), encoding_(encoding), handle_(::iconv_open("UTF-8", encoding.c_str())) {
    if (handle_ == kNoHandle) {
      throw UsageError(fmt::format("--encoding {}: there is no such encoding", encoding));
    }
  }
  ~Converter() { ::iconv_close(handle_); }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  void convert(std::string_view bytes, std::string& text) {
    rest_ += bytes;
    char* from = rest_.data();
    std::size_t left = rest_.size();
    std::array<char, kPieceBytes> piece{};
    while (left > 0) {
      char* to = piece.data();
      std::size_t room = piece.size();
      const std::size_t result = ::iconv(handle_, &from, &left, &to, &room);
      const int error = errno;
      text.append(piece.data(), piece.size() - room);
      if (result != static_cast<std::size_t>(-1) || error == E2BIG) continue;
      if (error == EINVAL) break;  // a part of a character
      throw std::runtime_error(
          fmt::format("{} is no text in the encoding {} (--encoding names "
                      "another)",
                      source_, encoding_));
    }
    rest_.erase(0, rest_.size() - left);
  }

  void finish() const {
    if (rest_.empty()) return;
    throw std::runtime_error(source_ + " ends in the middle of a character");
  }

 private:
  // This is how iconv() says that it failed.
  inline static const iconv_t kNoHandle =
      reinterpret_cast<iconv_t>(-1);  // NOLINT(performance-no-int-to-ptr)

  std::string source_;
  std::string encoding_;
  iconv_t handle_;
  std::string rest_;  // a part of a character
};

InputDecoder::InputDecoder(std::string source, const std::string& encoding)
    : source_(std::move(source)), encoding_(encoding) {
  if (!encoding_.empty()) converter_ = std::make_unique<Converter>(source_, encoding_);
}

InputDecoder::~InputDecoder() = default;

bool InputDecoder::isPlain(std::string_view first, const std::string& encoding) {
  return encoding.empty() && packingOf(first) == Codec::UNCOMPRESSED && !isUtf16(first);
}

void InputDecoder::start() {
  isStarted_ = true;
  const Codec::type packing = packingOf(first_);
  if (packing != Codec::UNCOMPRESSED) unpacker_ = std::make_unique<Unpacker>(source_, packing);
}

void InputDecoder::pass(std::string_view bytes, std::string& text) {
  if (converter_) {
    converter_->convert(bytes, text);
  } else {
    text += bytes;
  }
}

void InputDecoder::decode(std::string_view bytes, std::string& text) {
  std::string begin;
  if (!isStarted_) {
    first_ += bytes;
    if (first_.size() < kFirstBytes) return;
    start();
    begin = std::move(first_);
    bytes = begin;
    if (!unpacker_ && !converter_ && isUtf16(bytes)) {
      converter_ = std::make_unique<Converter>(source_, "UTF-16");
    }
  }
  if (!unpacker_) return pass(bytes, text);
  unpacker_->unpack(bytes, [&](std::string_view piece) { pass(piece, text); });
}

void InputDecoder::finish(std::string& text) {
  if (!isStarted_) {
    start();
    const std::string begin = std::move(first_);
    if (unpacker_) {
      unpacker_->unpack(begin, [&](std::string_view piece) { pass(piece, text); });
    } else {
      pass(begin, text);
    }
  }
  if (unpacker_) unpacker_->finish();
  if (converter_) converter_->finish();
}

}  // namespace kyr::tool

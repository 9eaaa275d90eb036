#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kyr::parquet {

// A header has a type in its lower bits; a byte of a number has seven bits of it.
constexpr unsigned kTypeBits = 4;
constexpr unsigned kTypeMask = 0xf;
constexpr unsigned kVarintBits = 7;
constexpr unsigned kVarintMask = 0x7f;

/// Reads a struct of Thrift's compact protocol, in which Parquet metadata are serialized. Bytes
/// that are no such struct are a ::parquet::ParquetException; nothing is read beyond them.
class CompactReader {
 public:
  enum Type : int {
    stop = 0,
    yes = 1,
    no = 2,
    byte = 3,
    i16 = 4,
    i32 = 5,
    i64 = 6,
    real = 7,
    binary = 8,
    list = 9,
    set = 10,
    map = 11,
    structure = 12
  };

  struct Field {
    int id = 0;
    int type = stop;
  };
  struct List {
    int type = stop;  ///< of the elements
    std::size_t size = 0;
  };

  explicit CompactReader(std::string_view bytes) : bytes_(bytes) {}

  std::size_t position() const { return position_; }
  bool atEnd() const { return position_ == bytes_.size(); }

  /// The next field of a struct. Behind the last one comes a field of type stop.
  /// \param lastId  id of the field before; 0 for the first field
  Field field(int lastId) {
    const unsigned header = octet();
    const int type = static_cast<int>(header & kTypeMask);
    if (type == stop) return {};
    const unsigned step = header >> kTypeBits;
    if (step > 0) return {lastId + static_cast<int>(step), type};
    return {static_cast<int>(static_cast<std::int16_t>(integer())), type};
  }
  List listHeader();
  std::int64_t integer() {
    const std::uint64_t zigzag = varint();
    return static_cast<std::int64_t>((zigzag >> 1U) ^ (~(zigzag & 1U) + 1U));
  }
  void skip(int type) { skip(type, 0); }

 private:
  [[noreturn]] void refuse(const char* what) const;
  std::uint8_t octet() {
    if (atEnd()) refuse("the end");
    return static_cast<std::uint8_t>(bytes_[position_++]);
  }
  std::uint64_t varint() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 64; shift += kVarintBits) {
      const std::uint8_t next = octet();
      value |= static_cast<std::uint64_t>(next & kVarintMask) << shift;
      if (next <= kVarintMask) return value;
    }
    refuse("a number of too many bytes");
  }
  void take(std::uint64_t count);
  void skip(int type, int depth) {
    if (type == i16 || type == i32 || type == i64) {
      varint();
    } else {
      skipOther(type, depth);
    }
  }
  void skipOther(int type, int depth);
  void skipElements(int type, std::size_t count, int depth);
  void skipMap(int depth);

  std::string_view bytes_;
  std::size_t position_ = 0;
};

/// Append a number, or the header of a list, in the same protocol.
void putVarint(std::string& out, std::uint64_t value);
void putInteger(std::string& out, std::int64_t value);
void putListHeader(std::string& out, int type, std::size_t size);

}  // namespace kyr::parquet

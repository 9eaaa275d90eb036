#include <gmock/gmock.h>
#include <parquet/encoding.h>

#include <random>
#include <vector>

#include "files/DeltaEncoder.h"

namespace kyr::parquet {
namespace {

// What Parquet's own decoder makes of the values, which are added in two pieces.
template <typename Type, typename Value>
std::vector<typename Type::c_type> decoded(const std::vector<Value>& values, std::size_t first) {
  DeltaEncoder<typename Type::c_type> encoder(values.size());
  encoder.add(values.data(), first);
  encoder.add(values.data() + first, values.size() - first);
  const std::string bytes = encoder.finish();
  const auto decoder =
      ::parquet::MakeTypedDecoder<Type>(::parquet::Encoding::DELTA_BINARY_PACKED, nullptr);
  decoder->SetData(static_cast<int>(values.size()),
                   reinterpret_cast<const std::uint8_t*>(bytes.data()),
                   static_cast<int>(bytes.size()));
  std::vector<typename Type::c_type> result(values.size() + 1);
  result.resize(
      static_cast<std::size_t>(decoder->Decode(result.data(), static_cast<int>(result.size()))));
  return result;
}

template <typename Type, typename Value>
void expectAllWidths() {
  using Stored = typename Type::c_type;
  std::mt19937_64 random(1);
  for (const std::size_t count : {0U, 1U, 2U, 33U, 128U, 129U, 130U, 257U, 1000U}) {
    for (unsigned width = 0; width <= 8 * sizeof(Value); ++width) {
      std::vector<Value> values(count);
      std::vector<Stored> expected;
      for (Value& value : values) {
        value = width == 0 ? Value{7} : static_cast<Value>(random() >> (64 - width));
        expected.push_back(static_cast<Stored>(value));
      }
      for (const std::size_t first : {std::size_t{0}, count / 3, count}) {
        ASSERT_EQ((decoded<Type>(values, first)), expected) << count << " of " << width << " bits";
      }
    }
  }
}

TEST(DeltaEncoderTest, ParquetDecodesNumbersOfAllWidths) {
  expectAllWidths<::parquet::Int32Type, std::int8_t>();
  expectAllWidths<::parquet::Int32Type, std::uint16_t>();
  expectAllWidths<::parquet::Int32Type, std::int32_t>();
  expectAllWidths<::parquet::Int32Type, std::uint32_t>();
  expectAllWidths<::parquet::Int64Type, std::int64_t>();
  expectAllWidths<::parquet::Int64Type, std::uint64_t>();
}

}  // namespace
}  // namespace kyr::parquet

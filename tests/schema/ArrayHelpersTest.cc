#include <gmock/gmock.h>
#include <parquet/exception.h>

#include <limits>
#include <stdexcept>

#include "kyr/arrow/ArrayHelpers.h"
#include "schema/ArrayMemory.h"
#include "support/ParquetFiles.h"

namespace kyr::arrow {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

std::shared_ptr<::arrow::Array> json(const std::shared_ptr<::arrow::DataType>& type,
                                     const std::string& text) {
  return test::column(type, {text})->chunk(0);
}

TEST(ArrayHelpers, CopiesAreCopiesAndBorrowedMemoryIsNot) {
  std::vector<char> values{0, 1, 2, -128};
  const auto booleans = getArrowArray<bool>(values);
  const auto copy = getArrowArray<char>(values);
  const auto* memory = reinterpret_cast<const unsigned char*>(values.data());
  const auto borrowed = getArrowArrayZeroCopy<char>(memory, 3);
  values[1] = 7;
  EXPECT_TRUE(booleans->Equals(json(::arrow::boolean(), "[false, true, true, true]")));
  EXPECT_EQ(booleans->data()->buffers[1]->size(), 1);
  EXPECT_TRUE(copy->Equals(json(::arrow::int8(), "[0, 1, 2, -128]")));
  EXPECT_TRUE(borrowed->Equals(json(::arrow::int8(), "[0, 7, 2]")));
  EXPECT_EQ(borrowed->data()->buffers[1]->data(), memory);
  for (const auto& empty : {getArrowArray<char>({}), getArrowArrayZeroCopy<char>(nullptr, 0)}) {
    EXPECT_TRUE(empty->Equals(json(::arrow::int8(), "[]")));
  }
  EXPECT_EQ(getArrowArray<bool>({})->length(), 0);
}

TEST(ArrayHelpers, SingleValuesAreInt8OrRefused) {
  const auto array = json(::arrow::int8(), "[1, -128, null]");
  EXPECT_EQ(getScalarValueAtIndex<char>(array, 1), -128);
  EXPECT_EQ(getScalarValueAtIndex<char>(array->Slice(1), 0), -128);
  EXPECT_EQ(getScalarValue<char>(::arrow::MakeScalar(std::int8_t{5})), 5);
  for (const auto beyond : {3UL, std::numeric_limits<unsigned long>::max()}) {
    EXPECT_THROW(getScalarValueAtIndex<char>(array, beyond), ::parquet::ParquetStatusException);
  }
  EXPECT_THROW(getScalarValueAtIndex<char>(array, 2), std::invalid_argument);
  EXPECT_THROW(getScalarValueAtIndex<char>(nullptr, 0), std::invalid_argument);
  EXPECT_THROW(getScalarValue<char>(nullptr), std::invalid_argument);
  EXPECT_THAT([] { getScalarValue<char>(::arrow::MakeScalar(std::uint8_t{5})); },
              ThrowsMessage<std::invalid_argument>(HasSubstr("uint8 5")));
}

TEST(MakeArrayZeroCopy, SharesTheBufferForNumbersAndIsSilentForTheRest) {
  alignas(8) const std::uint8_t memory[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  const auto buffer = borrowBuffer(memory, sizeof(memory));
  for (const auto& [type, length] :
       std::vector<std::pair<std::shared_ptr<::arrow::DataType>, int>>{{::arrow::uint8(), 10},
                                                                       {::arrow::int8(), 10},
                                                                       {::arrow::uint16(), 5},
                                                                       {::arrow::int16(), 5},
                                                                       {::arrow::uint32(), 2},
                                                                       {::arrow::int32(), 2},
                                                                       {::arrow::uint64(), 1},
                                                                       {::arrow::int64(), 1},
                                                                       {::arrow::float32(), 2},
                                                                       {::arrow::float64(), 1}}) {
    SCOPED_TRACE(type->ToString());
    const auto array = makeArrayZeroCopy(buffer, type);
    EXPECT_EQ(array->length(), length);
    EXPECT_EQ(array->null_count(), 0);
    EXPECT_EQ(array->data()->buffers[1], buffer);
    EXPECT_EQ(makeArrayZeroCopy(borrowBuffer(nullptr, 0), type)->length(), 0);
  }
  for (const auto& type :
       {::arrow::boolean(), ::arrow::utf8(), ::arrow::binary(), ::arrow::list(::arrow::int8()),
        ::arrow::float16(), ::arrow::date32(), ::arrow::null()}) {
    EXPECT_EQ(makeArrayZeroCopy(buffer, type), nullptr) << type->ToString();
  }
}

}  // namespace
}  // namespace kyr::arrow

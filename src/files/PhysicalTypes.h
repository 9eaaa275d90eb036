#pragma once

#include <arrow/type_fwd.h>
#include <parquet/schema.h>
#include <parquet/types.h>

#include <cstddef>
#include <memory>
#include <type_traits>

/// How Parquet stores the number types.
namespace kyr::parquet {

/// The Parquet type of numbers of type \p Value. Parquet has no integers of fewer than 32 bits.
template <typename Value>
using PhysicalType = std::conditional_t<
    std::is_same_v<Value, double>, ::parquet::DoubleType,
    std::conditional_t<
        std::is_same_v<Value, float>, ::parquet::FloatType,
        std::conditional_t<sizeof(Value) == 8, ::parquet::Int64Type, ::parquet::Int32Type>>>;

/// Bytes of a value in a plain page; 0 for types whose values are no numbers of fixed width.
std::size_t physicalWidth(::parquet::Type::type type);

/// The type of the numbers of a column, which the file stores as they are in memory or, if they are
/// small integers, widened to 32 bits. Empty for lists and columns of anything else.
std::shared_ptr<::arrow::DataType> numberTypeOf(const ::parquet::ColumnDescriptor& column);

}  // namespace kyr::parquet

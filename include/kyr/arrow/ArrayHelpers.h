#pragma once

#include <arrow/type_fwd.h>

#include <memory>
#include <vector>

#include "kyr/platform/export.h"

/// \brief Arrow arrays from plain memory, and single values back. Instances exist for the types
/// named at each function.
namespace kyr::arrow {

/// \brief A copy of \p values as an array without nulls.
///
/// bool: each byte is one value, non-zero meaning true; the result is bit-packed. char: int8.
/// \throws parquet::ParquetStatusException if Arrow cannot allocate it
template <typename T>
std::shared_ptr<::arrow::Array> getArrowArray(const std::vector<char>& values);
template <>
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Array> getArrowArray<bool>(
    const std::vector<char>& values);
template <>
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Array> getArrowArray<char>(
    const std::vector<char>& values);

/// \brief \p length bytes at \p data as an int8 array, not copied (char).
///
/// The memory must stay alive and unchanged as long as the array or a table built on it is in use.
template <typename T>
std::shared_ptr<::arrow::Array> getArrowArrayZeroCopy(const unsigned char* data,
                                                      unsigned long length);
template <>
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Array> getArrowArrayZeroCopy<char>(
    const unsigned char* data, unsigned long length);

/// \brief The value of an int8 scalar (char).
/// \throws std::invalid_argument if the scalar is empty, null or of another type
template <typename T>
T getScalarValue(std::shared_ptr<::arrow::Scalar> scalar);
template <>
KYR_PARQUET_EXPORT char getScalarValue<char>(std::shared_ptr<::arrow::Scalar> scalar);

/// \brief The value at \p index of an int8 array (char).
/// \throws parquet::ParquetStatusException if the index is out of range
/// \throws std::invalid_argument if the array is empty or of another type, or the value is null
template <typename T>
T getScalarValueAtIndex(std::shared_ptr<::arrow::Array> array, unsigned long index);
template <>
KYR_PARQUET_EXPORT char getScalarValueAtIndex<char>(std::shared_ptr<::arrow::Array> array,
                                                    unsigned long index);

}  // namespace kyr::arrow

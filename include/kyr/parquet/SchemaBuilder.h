#pragma once

#include <arrow/type_fwd.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "kyr/platform/export.h"

/// \brief The Arrow schema of each kind of signal.
///
/// T below is the Arrow type of one element: float64, float32, int8 to uint64, int8 for `Boolean`
/// and `Null`, binary for `ByteString` and `Binary`. Every field is nullable and, like the schema,
/// carries no metadata; the child field of every list is called "item". A time column comes first
/// ("time": float64), a dimension column last ("dimension": list of uint64).
///
/// The functions return an empty pointer for a type outside of `KYRSignalDataType` or a category
/// outside of `KYRSignalCategory`. Test the result before you hand it to Arrow, which dereferences
/// it.
namespace kyr::parquet::schemaBuilder {

/// \brief Schema of a signal of \p category whose data column is called \p name.
///
/// `Bus` and `VarDimBus` ignore \p type.
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getSchema(KYRSignalCategory category,
                                                              KYRSignalDataType type,
                                                              bool includeTime,
                                                              const std::string& name);

/// \brief (time); name: T
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getScalarSchema(const std::string& name,
                                                                    KYRSignalDataType type,
                                                                    bool omitTime);

/// \brief (time); name: list of T, or binary when \p type is `Binary`
///
/// There is no dimension column: the shape of a fixed-dimension signal is kept by its owner.
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getFixedDimSchema(const std::string& name,
                                                                      KYRSignalDataType type,
                                                                      bool omitTime);

/// \brief (time); name: list of T, or binary when \p type is `Binary`; dimension
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getVarDimSchema(const std::string& name,
                                                                    KYRSignalDataType type,
                                                                    bool omitTime);

/// \brief (time); name: binary
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getBusSchema(const std::string& name,
                                                                 bool omitTime);

/// \brief (time); name: binary; dimension
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getVarDimBusSchema(const std::string& name,
                                                                       bool omitTime);

/// \brief name: utf8
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getStringSchema(const std::string& name);

/// \brief name: max(1, \p dimensionCount) nested list levels of T
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getSchemaWithDimensionsPreserved(
    KYRSignalDataType type, const std::string& name, int dimensionCount);

/// \brief \p type wrapped in \p levels lists; \p type itself when \p levels is 0 or less
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::DataType> createNestedListType(
    int levels, std::shared_ptr<::arrow::DataType> type);

/// \brief The columns of many signals side by side: category, type, includeTime and name of each.
///
/// Nothing is merged: two signals with a time column give two columns called "time".
/// \throws std::invalid_argument naming the column whose category or type is unknown
KYR_PARQUET_EXPORT std::shared_ptr<::arrow::Schema> getCustomSchema(
    std::vector<std::tuple<KYRSignalCategory, KYRSignalDataType, bool, std::string>> columns);

}  // namespace kyr::parquet::schemaBuilder

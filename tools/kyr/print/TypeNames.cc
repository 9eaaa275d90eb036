#include "print/TypeNames.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kyr::tool {

namespace {

constexpr std::size_t kColumnTypes = 12;

// The types that a CSV column can have come first.
constexpr std::array<std::pair<KYRSignalDataType, std::string_view>, 16> kTypes{{
    {Double, "double"},
    {Single, "single"},
    {Int8, "int8"},
    {UInt8, "uint8"},
    {Int16, "int16"},
    {UInt16, "uint16"},
    {Int32, "int32"},
    {UInt32, "uint32"},
    {Int64, "int64"},
    {UInt64, "uint64"},
    {Boolean, "boolean"},
    {ByteString, "text"},
    {UInt64Alt, "uint64alt"},
    {UInt32Alt, "uint32alt"},
    {Null, "null"},
    {Binary, "binary"},
}};

constexpr std::array<std::pair<KYRSignalCategory, std::string_view>, 5> kCategories{{
    {Scalar, "scalar"},
    {FixedDim, "matrix"},
    {VarDim, "variable matrix"},
    {Bus, "bus"},
    {VarDimBus, "variable bus"},
}};

template <typename Names, typename Value>
std::string_view nameOf(const Names& names, Value value) {
  const auto found = std::find_if(names.begin(), names.end(),
                                  [value](const auto& entry) { return entry.first == value; });
  return found == names.end() ? "unknown" : found->second;
}

}  // namespace

std::string_view typeName(KYRSignalDataType type) { return nameOf(kTypes, type); }

std::string_view categoryName(KYRSignalCategory category) { return nameOf(kCategories, category); }

std::optional<KYRSignalDataType> columnType(std::string_view name) {
  for (std::size_t i = 0; i < kColumnTypes; ++i) {
    if (kTypes[i].second == name) return kTypes[i].first;
  }
  return std::nullopt;
}

std::string columnTypeNames() {
  std::string names;
  for (std::size_t i = 0; i < kColumnTypes; ++i) {
    if (i > 0) names += i + 1 < kColumnTypes ? ", " : " or ";
    names += kTypes[i].second;
  }
  return names;
}

}  // namespace kyr::tool

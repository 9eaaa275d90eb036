#include "export/ArrowCells.h"

#include <arrow/api.h>
#include <arrow/csv/converter.h>
#include <arrow/csv/options.h>
#include <arrow/csv/parser.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>

#include "cli/Errors.h"

namespace kyr::tool {

namespace {

using ::arrow::csv::BlockParser;

// Converters refer to it.
const ::arrow::csv::ConvertOptions& convertOptions() {
  static const auto options = [] {
    auto result = ::arrow::csv::ConvertOptions::Defaults();
    result.null_values = {""};
    return result;
  }();
  return options;
}

std::shared_ptr<::arrow::DataType> typeOf(CellKind kind) {
  switch (kind) {
    case CellKind::empty:
      return ::arrow::null();
    case CellKind::integer:
      return ::arrow::int64();
    case CellKind::boolean:
      return ::arrow::boolean();
    case CellKind::date:
      return ::arrow::date32();
    case CellKind::time:
      return ::arrow::time32(::arrow::TimeUnit::SECOND);
    case CellKind::timestamp:
      return ::arrow::timestamp(::arrow::TimeUnit::SECOND);
    case CellKind::nanoseconds:
      return ::arrow::timestamp(::arrow::TimeUnit::NANO);
    case CellKind::real:
      return ::arrow::float64();
    default:
      return ::arrow::binary();
  }
}

template <typename ArrayType>
void appendWords(const ArrayType& numbers, CellValues& cells) {
  for (std::int64_t i = 0; i < numbers.length(); ++i) {
    if (numbers.IsNull(i)) continue;
    const auto value = numbers.Value(i);
    std::uint64_t bits = 0;
    static_assert(sizeof(value) == sizeof(bits));
    std::memcpy(&bits, &value, sizeof(bits));
    cells.words.push_back(bits);
    if constexpr (std::is_floating_point_v<decltype(value)>) {
      cells.isHuge = cells.isHuge || std::abs(value) >= kHuge;
    }
  }
}

void append(const ::arrow::Array& array, CellValues& cells) {
  if (array.null_count() > 0 && array.type_id() != ::arrow::Type::NA) {
    for (std::int64_t i = 0; i < array.length(); ++i) {
      if (array.IsNull(i)) cells.missing.push_back(static_cast<std::uint32_t>(i));
    }
  }
  switch (array.type_id()) {
    case ::arrow::Type::NA:
      for (std::uint32_t i = 0; i < array.length(); ++i) cells.missing.push_back(i);
      break;
    case ::arrow::Type::INT64:
      appendWords(static_cast<const ::arrow::Int64Array&>(array), cells);
      break;
    case ::arrow::Type::DOUBLE:
      appendWords(static_cast<const ::arrow::DoubleArray&>(array), cells);
      break;
    case ::arrow::Type::BOOL: {
      const auto& flags = static_cast<const ::arrow::BooleanArray&>(array);
      for (std::int64_t i = 0; i < flags.length(); ++i) {
        if (flags.IsValid(i)) cells.bytes.push_back(flags.Value(i) ? 1 : 0);
      }
      break;
    }
    default:
      break;
  }
}

void infer(const BlockParser& parser, std::size_t column, CellValues& cells) {
  for (; cells.kind != CellKind::text;
       cells.kind = static_cast<CellKind>(static_cast<int>(cells.kind) + 1)) {
    const auto converter =
        check(::arrow::csv::Converter::Make(typeOf(cells.kind), convertOptions()));
    const auto array = converter->Convert(parser, static_cast<std::int32_t>(column));
    throwIfOutOfMemory(array.status());
    if (array.ok()) return append(**array, cells);
  }
}

void parseCells(const BlockParser& parser, std::size_t column, CellParser parse,
                CellValues& cells) {
  std::uint32_t row = 0;
  check(parser.VisitColumn(static_cast<std::int32_t>(column),
                           [&](const std::uint8_t* data, std::uint32_t size, bool) {
                             const std::string_view cell(reinterpret_cast<const char*>(data), size);
                             if (cell.empty()) {
                               cells.missing.push_back(row);
                             } else if (!cells.misfit && !parse(cell, cells.bytes)) {
                               cells.misfit = row;
                             }
                             ++row;
                             return ::arrow::Status::OK();
                           }));
}

}  // namespace

void readWithArrow(std::string_view text, const std::vector<CellPlan>& plans,
                   const std::vector<std::size_t>& columns, BlockValues& values) {
  auto options = ::arrow::csv::ParseOptions::Defaults();
  options.newlines_in_values = true;
  BlockParser parser(options, static_cast<std::int32_t>(plans.size()), /*first_row=*/-1,
                     std::numeric_limits<std::int32_t>::max());
  std::uint32_t parsed = 0;
  const ::arrow::Status status = parser.ParseFinal(text, &parsed);
  throwIfOutOfMemory(status);
  if (!status.ok()) {
    values.failure = status.message();
    return;
  }
  values.rows = static_cast<std::uint32_t>(parser.num_rows());
  for (const std::size_t column : columns) {
    CellValues& cells = values.columns[column];
    clear(plans[column].kind, cells);
    if (plans[column].parse) {
      parseCells(parser, column, plans[column].parse, cells);
    } else {
      infer(parser, column, cells);
    }
  }
}

}  // namespace kyr::tool

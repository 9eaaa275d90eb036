#include "csv/CsvHeader.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cli/Errors.h"
#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/HeaderNames.h"
#include "csv/TimeColumn.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

void requireSignals(const std::string& source, const CsvLayout& layout) {
  if (layout.names.size() > 1) return;
  throw std::runtime_error(fmt::format(
      "{}: there is only one column, {}, and it holds the times, so that there is no signal to "
      "store (--no-time stores it over the numbers of its rows, --delimiter tells what separates "
      "columns)",
      source, inQuotes(layout.names[0])));
}

// Times have a column of their own, which is no signal.
void nameColumns(const CsvLayout& layout, CsvHeader& header) {
  std::vector<std::string> others = layout.names;
  const std::size_t time = header.timePlace.value_or(others.size());
  if (header.timePlace) others.erase(others.begin() + static_cast<std::ptrdiff_t>(time));
  const std::vector<HeaderName> names = uniqueNames(others);
  for (std::size_t i = 0; i < names.size(); ++i) {
    CsvColumn column;
    column.place = i < time ? i : i + 1;
    column.id = static_cast<int>(i);
    column.name = names[i].name;
    column.unit = names[i].unit;
    if (column.unit.empty() && column.place < layout.units.size()) {
      column.unit = layout.units[column.place];
    }
    header.columns.push_back(std::move(column));
  }
}

CsvColumn& columnCalled(const std::string& source, const std::vector<std::string>& cells,
                        CsvHeader& header, const std::string& name) {
  const auto byName = std::find_if(header.columns.begin(), header.columns.end(),
                                   [&](const CsvColumn& column) { return column.name == name; });
  if (byName != header.columns.end()) return *byName;
  const auto byHeader =
      std::find_if(header.columns.begin(), header.columns.end(),
                   [&](const CsvColumn& column) { return cells[column.place] == name; });
  if (byHeader != header.columns.end()) return *byHeader;
  throw std::runtime_error(fmt::format(
      "{}: there is no signal {} for --type: {}", source, inQuotes(name),
      name == header.timeName ? "times are always double" : "the names are " + firstNames(cells)));
}

void applyTypes(const std::string& source, const std::vector<std::string>& cells,
                const std::vector<std::string>& types, CsvHeader& header) {
  for (const std::string& entry : types) {
    const std::size_t equals = entry.rfind('=');
    const auto type = equals == std::string::npos
                          ? std::nullopt
                          : columnType(std::string_view(entry).substr(equals + 1));
    if (!type) {
      throw UsageError(
          fmt::format("--type {}: give NAME=TYPE, with TYPE one of {}", entry, columnTypeNames()));
    }
    CsvColumn& column = columnCalled(source, cells, header, entry.substr(0, equals));
    if (column.isGiven && column.type != *type) {
      throw UsageError(fmt::format("--type {}: the column has a type already", entry));
    }
    column.type = *type;
    column.isGiven = true;
  }
}

}  // namespace

CsvHeader describeColumns(const std::string& source, const CsvLayout& layout,
                          const CsvOptions& options) {
  CsvHeader header;
  header.notes = layout.notes;
  header.width = layout.names.size();
  if (!options.hasNoTime) {
    requireSignals(source, layout);
    TimeColumn time = findTimeColumn(source, layout, options, header.notes);
    header.timePlace = time.place;
    header.timeName = std::move(time.name);
    header.timeForm = std::move(time.form);
  }
  nameColumns(layout, header);
  applyTypes(source, layout.names, options.types, header);
  return header;
}

}  // namespace kyr::tool

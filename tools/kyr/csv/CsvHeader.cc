#include "csv/CsvHeader.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cli/Errors.h"
#include "cli/Text.h"
#include "csv/CsvMessages.h"
#include "csv/HeaderNames.h"
#include "kyr/platform/Path.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

// The first names of the header, to show a user who mistyped one.
std::string firstNames(const std::vector<std::string>& header) {
  constexpr std::size_t kShown = 5;
  std::string names;
  for (std::size_t i = 0; i < std::min(header.size(), kShown); ++i) {
    names += (i > 0 ? ", " : "") + inQuotes(header[i]);
  }
  return header.size() > kShown ? names + ", ..." : names;
}

CsvHeader nameColumns(const std::string& source, const std::vector<std::string>& header,
                      const CsvOptions& options) {
  CsvHeader result;
  if (!options.timeName.empty()) {
    const auto isTime = [&](const std::string& cell) {
      return cell == options.timeName || splitHeader(cell).name == options.timeName;
    };
    const auto found = std::find_if(header.begin(), header.end(), isTime);
    if (found == header.end()) {
      throw std::runtime_error(fmt::format("{}: there is no column {} for --time: the names are {}",
                                           source, inQuotes(options.timeName), firstNames(header)));
    }
    result.timePlace = static_cast<std::size_t>(found - header.begin());
  }
  if (header.size() == 1) {
    throw std::runtime_error(
        fmt::format("{}: there is only one column, {}: a time column and others are "
                    "needed, with commas between them",
                    source, inQuotes(header[0])));
  }
  std::vector<std::string> others = header;
  others.erase(others.begin() + static_cast<std::ptrdiff_t>(result.timePlace));
  const std::vector<HeaderName> names = uniqueNames(others);
  for (std::size_t i = 0; i < names.size(); ++i) {
    CsvColumn column;
    column.place = i < result.timePlace ? i : i + 1;
    column.id = static_cast<int>(i);
    column.name = names[i].name;
    column.unit = names[i].unit;
    result.columns.push_back(std::move(column));
  }
  HeaderName time = splitHeader(header[result.timePlace]);
  result.timeName = std::move(time.name);
  result.timeUnit = std::move(time.unit);
  return result;
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

void addCsvOptions(CLI::App& command, CsvOptions& options) {
  command.add_option("--time", options.timeName, "Column of the times; the first one unless given")
      ->type_name("NAME");
  command
      .add_option("--type", options.types,
                  "Store the signal NAME as " + columnTypeNames() + "; may be given repeatedly")
      ->type_name("NAME=TYPE")
      ->allow_extra_args(false);
}

std::size_t byteOrderMarkSize(const std::string& source, std::string_view text) {
  const auto startsWith = [text](std::string_view mark) {
    return text.substr(0, mark.size()) == mark;
  };
  if (startsWith("\xff\xfe") || startsWith("\xfe\xff")) {
    throw std::runtime_error(source + " is UTF-16 text: save it as UTF-8");
  }
  constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";
  return startsWith(kUtf8Mark) ? kUtf8Mark.size() : 0;
}

std::vector<std::string> headerCells(const std::string& source, const CsvRow& row,
                                     const CsvDialect& dialect) {
  const std::string line = describeLine(source, row.line);
  if (row.isUnclosed) throw std::runtime_error(line + ": " + kUnclosedQuote);
  try {
    static_cast<void>(toUtf16(row.text));
  } catch (const std::invalid_argument&) {
    throw std::runtime_error(line + ": the header is not UTF-8 text");
  }
  std::vector<std::string> cells;
  splitRow(row.text, dialect, cells);
  for (std::string& cell : cells) cell = std::string(trimmed(cell));
  return cells;
}

void throwNoHeader(const std::string& source) {
  throw std::runtime_error(source + " is empty: the first line must name the columns");
}

CsvHeader namedColumns(const std::string& source, const std::vector<std::string>& cells,
                       const CsvOptions& options) {
  CsvHeader header = nameColumns(source, cells, options);
  applyTypes(source, cells, options.types, header);
  return header;
}

}  // namespace kyr::tool

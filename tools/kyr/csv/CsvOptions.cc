#include "csv/CsvOptions.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <array>
#include <string_view>
#include <utility>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

char delimiterCalled(const std::string& text) {
  constexpr std::array<std::pair<std::string_view, char>, 6> kNames{{{"comma", ','},
                                                                     {"semicolon", ';'},
                                                                     {"tab", '\t'},
                                                                     {"\\t", '\t'},
                                                                     {"space", ' '},
                                                                     {"pipe", '|'}}};
  for (const auto& [name, delimiter] : kNames) {
    if (text == name) return delimiter;
  }
  const bool isUsable = text.size() == 1 && text.find_first_of("\r\n\"'.") == std::string::npos;
  if (isUsable) return text.front();
  throw UsageError(fmt::format(
      "--delimiter {}: give one character, or comma, semicolon, tab, space or pipe", text));
}

void addLayoutOptions(CLI::App& command, CsvOptions& options) {
  command
      .add_option("-d,--delimiter", options.delimiter,
                  "What separates cells: a character, comma, semicolon, tab, space or pipe")
      ->type_name("CHAR");
  command.add_option("--decimal", options.decimal, "The decimal mark of numbers")
      ->type_name(".|,")
      ->check(oneOf({".", ","}));
  command.add_option("--quote", options.quote, "What encloses cells with delimiters or line ends")
      ->type_name("\"|'")
      ->check(oneOf({"\"", "'"}));
  command
      .add_option("--encoding", options.encoding,
                  "Encoding of the text, such as latin1 or utf-16; UTF-8 unless given")
      ->type_name("NAME");
  CLI::Option* header =
      command.add_option("--header", options.headerLine, "Line, from 1 on, that names the columns")
          ->type_name("LINE")
          ->check(isAboveZero());
  command.add_flag("--no-header", options.hasNoHeader, "The first row holds values already")
      ->excludes(header);
  command.add_option("--skip", options.skippedLines, "Leave out the first N lines")
      ->type_name("N")
      ->check(isCount())
      ->excludes(header);
}

void addTimeOptions(CLI::App& command, CsvOptions& options) {
  CLI::Option* noTime = command.add_flag("--no-time", options.hasNoTime,
                                         "There is no time column; rows are numbered instead");
  command
      .add_option("-t,--time", options.timeName,
                  "Column of the times; unless given one called time, or else the first one")
      ->type_name("NAME")
      ->excludes(noTime);
  command
      .add_option("--time-unit", options.timeUnit,
                  "Unit of times that are numbers; s unless the column's name says otherwise")
      ->type_name("s|ms|us|ns|min|h|d")
      ->check(oneOf({"s", "ms", "us", "ns", "min", "h", "d"}))
      ->excludes(noTime);
  command
      .add_option(
          "--time-format", options.timeFormat,
          "How times are written: number, iso, clock (hh:mm:ss), unix (numbers since 1970), "
          "or a pattern such as \"%d.%m.%Y %H:%M:%S.%f\"")
      ->type_name("FORMAT")
      ->excludes(noTime);
}

}  // namespace

void addCsvOptions(CLI::App& command, CsvOptions& options) {
  addLayoutOptions(command, options);
  addTimeOptions(command, options);
  command
      .add_option("--missing", options.missing,
                  "Another text that stands for no value; may be given repeatedly")
      ->type_name("TEXT")
      ->allow_extra_args(false);
  command
      .add_option("--text", options.text,
                  "Columns of text: store (unless given) them, or skip them")
      ->type_name("store|skip")
      ->check(oneOf({"store", "skip"}));
  command
      .add_option("--ragged", options.ragged,
                  "Rows with another number of cells than the header: refuse (unless given); pad: "
                  "take missing cells as empty; stop: end before the first one")
      ->type_name("refuse|pad|stop")
      ->check(oneOf({"refuse", "pad", "stop"}));
  command
      .add_option("--type", options.types,
                  "Store the signal NAME as " + columnTypeNames() + "; may be given repeatedly")
      ->type_name("NAME=TYPE")
      ->allow_extra_args(false);
}

CsvDialect givenDialect(const CsvOptions& options) {
  CsvDialect dialect;
  if (!options.delimiter.empty()) dialect.delimiter = delimiterCalled(options.delimiter);
  if (!options.decimal.empty()) dialect.decimalMark = options.decimal.front();
  if (!options.quote.empty()) dialect.quote = options.quote.front();
  dialect.missing = options.missing;
  if (options.ragged == "pad") dialect.ragged = RaggedRows::pad;
  if (options.ragged == "stop") dialect.ragged = RaggedRows::stop;
  return dialect;
}

}  // namespace kyr::tool

#pragma once

#include <arrow/util/type_fwd.h>

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The library's options, which the tool reads and sets through the host's methods as a script
/// would.
namespace kyr::tool {

struct Setting {
  std::string name;
  std::string value;    ///< as the process has it now, such as "true"
  std::string meaning;  ///< one sentence
  std::string values;   ///< all that it takes, with blanks between them; empty for a number
};

/// All options, in the order in which they are shown.
std::vector<Setting> currentSettings();

/// Names of the codecs that Parquet can write files with, with blanks between them.
std::string writableCodecs();

/// Adds "--set NAME=VALUE" to a command that writes Parquet files.
void addSetOption(CLI::App& command, std::vector<std::string>& settings);

/// Adds "--compression CODEC", short for "--set Compression=CODEC".
void addCompressionOption(CLI::App& command, std::vector<std::string>& settings);

/// The codec that was set, if one was. Without one the library chooses.
std::optional<::arrow::Compression::type> chosenCodec();

/// Set options from texts "NAME=VALUE", for the rest of the process.
/// \throws UsageError  for an unknown name, a name given twice, a value of the wrong kind, and one
///         that Parquet cannot write files with; nothing is changed then
void applySettings(const std::vector<std::string>& settings);

}  // namespace kyr::tool

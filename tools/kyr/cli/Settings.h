#pragma once

#include <arrow/util/type_fwd.h>

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The options of the library. The tool reads and sets them through the methods of the host, as a
/// script does.
namespace kyr::tool {

struct Setting {
  std::string name;
  std::string value;    ///< current value, such as "true"
  std::string meaning;  ///< one sentence
  std::string values;   ///< all possible values, with blanks between them; empty for a number
};

/// All options, in the order in which kyr options shows them.
std::vector<Setting> currentSettings();

/// Names of the codecs that Parquet files can be written with, with blanks between them.
std::string writableCodecs();

/// Adds "--set NAME=VALUE" to a command that writes Parquet files.
void addSetOption(CLI::App& command, std::vector<std::string>& settings);

/// Adds "--compression CODEC", short for "--set Compression=CODEC".
void addCompressionOption(CLI::App& command, std::vector<std::string>& settings);

/// The codec that the user chose. If there is none, the library chooses.
std::optional<::arrow::Compression::type> chosenCodec();

/// Refuses the setting SharedTimeColumn=false for a command that makes a recording: its pool stores
/// times in files that signals share.
/// \throws UsageError
void requireSharedTimes();

/// Sets options from texts "NAME=VALUE", for the rest of the process.
/// \throws UsageError  for an unknown name, a name given twice, a value of the wrong kind, and a
///         value that Parquet cannot write files with; nothing is changed then
void applySettings(const std::vector<std::string>& settings);

}  // namespace kyr::tool

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "csv/ColumnStore.h"
#include "csv/CsvTable.h"

namespace kyr::tool {

struct ImportOptions {
  std::string file;
  std::string folder;
  CsvOptions columns;
  std::vector<std::string> settings;    ///< options of the library, "NAME=VALUE"
  std::optional<StreamOptions> stream;  ///< how signals are streamed; empty for whole files
  std::size_t packBelow = 0;            ///< see recording::SaveOptions
  bool isStrict = false;                ///< whether what cannot be stored is an error
  bool replaces = false;                ///< whether an existing recording is replaced
};

/// Store a CSV file as a recording. What cannot be stored is told on standard error.
void importCsv(const ImportOptions& options);

}  // namespace kyr::tool

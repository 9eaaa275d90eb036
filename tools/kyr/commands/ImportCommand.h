#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "csv/ColumnStore.h"
#include "csv/CsvTable.h"

namespace kyr::tool {

struct ImportOptions {
  std::string file;
  std::string folder;
  CsvOptions csv;
  std::vector<std::string> settings;  ///< options of the library, "NAME=VALUE"
  bool streams = false;               ///< whether signals are streamed
  StreamOptions stream;
  std::size_t packBelow = 0;  ///< see recording::SaveOptions; 0 if it is not given
  bool hasNoPacks = false;
  std::string like;                     ///< the recording whose files are to be shared, if any
  std::vector<std::string> attributes;  ///< "NAME=VALUE"
  bool isQuiet = false;                 ///< whether only warnings are told
  bool isStrict = false;                ///< whether a loss is an error
  bool replaces = false;                ///< whether an existing recording is replaced
};

/// Stores a CSV file as a recording. Tells on standard error what cannot be stored.
void importCsv(const ImportOptions& options);

}  // namespace kyr::tool

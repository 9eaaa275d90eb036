#pragma once

#include <arrow/util/type_fwd.h>

#include <optional>
#include <string>
#include <vector>

#include "cli/RowWindow.h"
#include "kyr/platform/Links.h"

namespace kyr::tool {

enum class ExportFormat { parquet, arrow, csv };

/// Common times for all signals.
struct ResampleOptions {
  std::optional<double> step;  ///< [s]; without it, all times of all signals
  bool isLinear = false;       ///< whether to interpolate numbers instead of holding them
};

struct ExportOptions {
  std::string folder;
  std::string out;  ///< "-" for standard output
  std::vector<std::string> signals;
  ExportFormat format = ExportFormat::parquet;
  std::optional<::arrow::Compression::type> codec;
  bool isLong = false;
  bool isPartitioned = false;  ///< whether each signal gets a file in a folder; only with isLong
  std::optional<ResampleOptions> resample;
  Window window;
  bool isStrict = false;
  bool replaces = false;
  Links links = Links::refused;

  bool writesToStandardOutput() const { return out == "-"; }
};

}  // namespace kyr::tool

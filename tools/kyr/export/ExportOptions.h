#pragma once

#include <arrow/util/type_fwd.h>

#include <optional>
#include <string>
#include <vector>

namespace kyr::tool {

enum class ExportFormat { parquet, arrow, csv };

/// One common grid of times for all signals.
struct ResampleOptions {
  std::optional<double> step;  ///< [s]; all times of all signals without it
  bool isLinear = false;       ///< whether numbers are interpolated; else the previous one is held
};

struct ExportOptions {
  std::string folder;
  std::string out;  ///< "-" for standard output
  std::vector<std::string> signals;
  ExportFormat format = ExportFormat::parquet;
  std::optional<::arrow::Compression::type> codec;
  bool isLong = false;
  bool isPartitioned = false;  ///< a folder of files, one for each signal; only with isLong
  std::optional<ResampleOptions> resample;
  bool isStrict = false;
  bool replaces = false;

  bool writesToStandardOutput() const { return out == "-"; }
};

}  // namespace kyr::tool

#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/Output.h"

namespace kyr::tool {

/// What a cell holds, which JSON writes in different ways.
enum class CellType { number, truth, text };

/// How rows are printed, if not as CSV.
class RowFormat {
 public:
  virtual ~RowFormat() = default;

  /// To be called first.
  /// \param names  of the columns, of which the first has the times
  virtual void header(Output& out, const std::vector<std::string>& names,
                      const std::vector<CellType>& types) = 0;
  /// \param cells  one for each column; none where a signal has no sample
  virtual void row(Output& out, const std::vector<std::optional<std::string>>& cells) = 0;
  /// To be called last.
  virtual void end(Output& /*out*/) {}
};

/// \param name  json, ndjson or table; null for csv
std::unique_ptr<RowFormat> rowFormatCalled(std::string_view name);

}  // namespace kyr::tool

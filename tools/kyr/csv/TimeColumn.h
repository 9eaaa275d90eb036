#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "csv/CsvLayout.h"
#include "csv/CsvOptions.h"
#include "csv/TimeForm.h"

namespace kyr::tool {

/// The column of the times, and how they are written.
struct TimeColumn {
  std::size_t place = 0;
  std::string name;
  TimeForm form;
};

/// Whether a header surely names a column of times.
bool isTimeName(const std::string& header);

/// Finds the time column of a text.
/// \param notes  gets a sentence each on what the user may not expect
/// \throws std::runtime_error if there is no column as the options name it
TimeColumn findTimeColumn(const std::string& source, const CsvLayout& layout,
                          const CsvOptions& options, std::vector<std::string>& notes);

}  // namespace kyr::tool

#pragma once

#include <map>
#include <string>
#include <vector>

#include "view/ToleranceBand.h"
#include "view/ViewedRuns.h"

namespace kyr::tool {

struct ReportOptions {
  std::vector<std::string> signals;  ///< names; the first ones of the recordings if there are none
  std::size_t columns = 1000;        ///< of the envelopes
  /// Names that signals have in other recordings than the first, and the names to show.
  std::map<std::string, std::string> otherNames = {};
  /// Around signals of the first recording, by their ids; drawn as a band behind the curves.
  std::map<int, Tolerance> tolerances = {};
};

/// The page and what it shows in one HTML file, which needs no server.
///
/// Each signal of each recording takes at most 43 kB for 1,000 columns, twice that if its values
/// are beyond float32, and 400 kB if it is text. At most 200 signals are inside.
/// \throws std::runtime_error if a name is unknown, or there are too many signals
std::string reportPage(ViewedRuns& runs, const ReportOptions& options);

/// Writes the page to a file, which is whole or not there.
/// \param replaces  whether an older file may be replaced
void writeReport(ViewedRuns& runs, const ReportOptions& options, const std::string& file,
                 bool replaces);

/// A file of the page; null if there is none of that name.
const std::string_view* pageFile(std::string_view name);

}  // namespace kyr::tool

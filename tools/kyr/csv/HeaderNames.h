#pragma once

#include <string>
#include <string_view>
#include <vector>

/// How a CSV header spells the names and units of its columns.
namespace kyr::tool {

struct HeaderName {
  std::string name;
  std::string unit;
};

/// Name and unit of a header cell: "h [m]", "h[m]", "h (m)", "h(m)"; without a unit the name alone.
///
/// Not taken for units: what follows "der", as in "der(h)", and plain numbers, which are indices as
/// in "x[3]" or the count that uniqueNames() adds; " [1]" is a unit. Empty brackets, "h []", say
/// that there is no unit and that all before them is the name.
HeaderName splitHeader(std::string_view header);

/// The header cell that splitHeader() takes apart into \p name and \p unit.
std::string joinHeader(const std::string& name, const std::string& unit);

/// Names and units of header cells, each name once.
///
/// Cells that would lose their difference with the unit keep all of their text as the name: "u[a]"
/// and "u[b]" are no units. The second "x" becomes "x (2)", a cell without text "column 3".
std::vector<HeaderName> uniqueNames(const std::vector<std::string>& headers);

}  // namespace kyr::tool

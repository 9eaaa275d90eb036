#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The names and units in the cells of a CSV header.
namespace kyr::tool {

struct HeaderName {
  std::string name;
  std::string unit;
};

/// Splits a header cell into name and unit: "h [m]", "h[m]", "h (m)", "h(m)", or "h" without a
/// unit.
///
/// Text behind "der" is no unit, as in "der(h)". A plain number is no unit either: it is an index
/// as in "x[3]", or the count that uniqueNames() adds. But " [1]" is a unit. Empty brackets, "h
/// []", mean that there is no unit and that everything before them is the name.
HeaderName splitHeader(std::string_view header);

/// The header cell that splitHeader() splits into \p name and \p unit.
std::string joinHeader(const std::string& name, const std::string& unit);

/// Splits header cells so that each name occurs once.
///
/// Cells that would have the same name without the unit keep their whole text as the name, such as
/// "u[a]" and "u[b]". The second "x" becomes "x (2)". A cell without text becomes "column 3".
std::vector<HeaderName> uniqueNames(const std::vector<std::string>& headers);

}  // namespace kyr::tool

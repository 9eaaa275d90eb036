#pragma once

#include <string>

#include "view/PlotPanels.h"

namespace kyr::tool {

/// A picture as an SVG file, with a panel of \p width by 200 pixels for each unit. Names cannot be
/// more than text in it.
std::string svgPlot(const PlotPicture& picture, double width);

}  // namespace kyr::tool

#pragma once

#include <cstddef>
#include <string>

#include "view/PlotPanels.h"

namespace kyr::tool {

struct TerminalSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

/// A picture for a terminal: lines of braille characters, each of 2 by 4 dots, with axes and a
/// legend.
/// \param hasColors  whether to use escape sequences for colours
std::string braillePlot(const PlotPicture& picture, const TerminalSize& size, bool hasColors);

}  // namespace kyr::tool

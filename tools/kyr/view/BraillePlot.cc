#include "view/BraillePlot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "view/AxisTicks.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kLabelWidth = 11;

// Dots of the screen, and the curve that each character shows.
class Screen {
 public:
  Screen(std::size_t columns, std::size_t rows)
      : columns_(columns), rows_(rows), dots_(columns * rows), curves_(columns * rows) {}

  int width() const { return static_cast<int>(columns_) * 2; }
  int height() const { return static_cast<int>(rows_) * 4; }

  void line(int x0, int y0, int x1, int y1, std::size_t curve) {
    const int steps = std::max({std::abs(x1 - x0), std::abs(y1 - y0), 1});
    for (int i = 0; i <= steps; ++i) {
      const double part = static_cast<double>(i) / steps;
      set(static_cast<int>(std::lround(x0 + part * (x1 - x0))),
          static_cast<int>(std::lround(y0 + part * (y1 - y0))), curve);
    }
  }

  std::string row(std::size_t row, bool hasColors) const {
    std::string text;
    std::size_t current = kNoCurve;
    for (std::size_t column = 0; column < columns_; ++column) {
      const std::size_t at = row * columns_ + column;
      const std::size_t curve = dots_[at] == 0 ? kNoCurve : curves_[at];
      if (hasColors && curve != current && curve != kNoCurve) text += colorOf(curve);
      if (curve != kNoCurve) current = curve;
      appendBraille(text, dots_[at]);
    }
    if (hasColors && current != kNoCurve) text += "\033[0m";
    return text;
  }

  static std::string colorOf(std::size_t curve) {
    constexpr int kColors[] = {36, 33, 35, 32, 34, 31};
    return fmt::format("\033[{}m", kColors[curve % std::size(kColors)]);
  }

 private:
  static constexpr std::size_t kNoCurve = SIZE_MAX;

  void set(int x, int y, std::size_t curve) {
    if (x < 0 || y < 0 || x >= width() || y >= height()) return;
    // Bits of the dots of a braille character, by column and row.
    constexpr std::uint8_t kBits[2][4] = {{0x01, 0x02, 0x04, 0x40}, {0x08, 0x10, 0x20, 0x80}};
    const std::size_t at =
        static_cast<std::size_t>(y / 4) * columns_ + static_cast<std::size_t>(x / 2);
    dots_[at] = static_cast<std::uint8_t>(dots_[at] | kBits[x % 2][y % 4]);
    curves_[at] = curve;
  }

  // U+2800 and the bits, in UTF-8.
  static void appendBraille(std::string& text, std::uint8_t bits) {
    text += '\xe2';
    text += static_cast<char>(0xa0 | (bits >> 6U));
    text += static_cast<char>(0x80 | (bits & 0x3fU));
  }

  std::size_t columns_;
  std::size_t rows_;
  std::vector<std::uint8_t> dots_;
  std::vector<std::size_t> curves_;
};

// A place between 0 and \p length, or a little outside for what lies outside.
int placeOf(double part, int length) {
  const double place = part * (length - 1);
  return static_cast<int>(std::lround(std::clamp(place, -1.0, static_cast<double>(length))));
}

void draw(Screen& screen, const PlotCurve& curve, const PlotPanel& panel,
          const PlotPicture& picture) {
  bool isInterrupted = true;
  int lastX = 0;
  int lastY = 0;
  for (const PlotPoint& point : curve.points) {
    if (!std::isfinite(point.value)) {
      isInterrupted = true;
      continue;
    }
    const int x = placeOf(partOf(point.time, picture.from, picture.to), screen.width());
    const int y = placeOf(1 - partOf(point.value, panel.low, panel.high), screen.height());
    if (isInterrupted) {
      lastX = x;
      lastY = y;
    }
    if (curve.isSteps) {
      screen.line(lastX, lastY, x, lastY, curve.number);
      screen.line(x, lastY, x, y, curve.number);
    } else {
      screen.line(lastX, lastY, x, y, curve.number);
    }
    lastX = x;
    lastY = y;
    isInterrupted = false;
  }
}

// The text of the tick in each row, if there is one.
std::vector<std::string> rowLabels(const PlotPanel& panel, std::size_t rows) {
  std::vector<std::string> labels(rows);
  for (const AxisTick& tick : axisTicks(panel.low, panel.high, static_cast<double>(rows) / 3)) {
    const double part = 1 - partOf(tick.value, panel.low, panel.high);
    labels[static_cast<std::size_t>(placeOf(part, static_cast<int>(rows)))] = tick.text;
  }
  return labels;
}

std::string timeLabels(const PlotPicture& picture, std::size_t columns) {
  std::string text(kLabelWidth + 1 + columns, ' ');
  std::size_t end = 0;
  for (const AxisTick& tick :
       axisTicks(picture.from, picture.to, static_cast<double>(columns) / 14)) {
    const auto place = static_cast<std::size_t>(
        placeOf(partOf(tick.value, picture.from, picture.to), static_cast<int>(columns)));
    const std::size_t center = kLabelWidth + 1 + place;
    const std::size_t begin = center - std::min(center, tick.text.size() / 2);
    if (begin < end || begin + tick.text.size() > text.size()) continue;
    text.replace(begin, tick.text.size(), tick.text);
    end = begin + tick.text.size() + 1;
  }
  return text.substr(0, text.find_last_not_of(' ') + 1) + " s\n";
}

// Cuts between characters, none of which is wider than a column in most names.
std::string cut(const std::string& text, std::size_t columns) {
  std::string result;
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isStart = (static_cast<unsigned char>(text[i]) & 0xc0U) != 0x80U;
    if (isStart && ++count > columns) return result + "…";
    result += text[i];
  }
  return result;
}

// The text of each span behind a mark where it begins, and dots for several values.
std::string bandRow(const PlotBand& band, const PlotPicture& picture, std::size_t columns) {
  std::vector<std::string> cells(columns, " ");
  const auto cellOf = [&](double time) {
    const int place = placeOf(partOf(time, picture.from, picture.to), static_cast<int>(columns));
    return std::min(columns - 1, static_cast<std::size_t>(std::max(0, place)));
  };
  for (const recording::ValueSpan& span : band.spans) {
    std::size_t cell = cellOf(span.from);
    const std::size_t end = cellOf(span.to);
    std::fill(cells.begin() + static_cast<std::ptrdiff_t>(cell), cells.end(), " ");
    if (span.isMixed) {
      while (cell < end) cells[cell++] = "░";
    }
    cells[cell] = span.isMixed ? "░" : "▏";
    for (std::size_t i = 0; i < span.text.size(); ++i) {
      const bool isStart = (static_cast<unsigned char>(span.text[i]) & 0xc0U) != 0x80U;
      if (!isStart) {
        cells[cell] += span.text[i];
      } else if (++cell < columns) {
        cells[cell] = span.text[i];
      } else {
        break;
      }
    }
  }
  std::string row;
  for (const std::string& cell : cells) row += cell;
  return row.substr(0, row.find_last_not_of(' ') + 1);
}

std::string legendOf(const std::string& label, std::size_t curve, const TerminalSize& size,
                     bool hasColors) {
  const std::string mark = hasColors ? Screen::colorOf(curve) + "──\033[0m" : "──";
  return fmt::format("{} {}\n", mark, cut(label, std::max<std::size_t>(size.columns, 8) - 4));
}

}  // namespace

std::string braillePlot(const PlotPicture& picture, const TerminalSize& size, bool hasColors) {
  const std::size_t columns =
      std::max<std::size_t>(size.columns, kLabelWidth + 20) - kLabelWidth - 2;
  std::size_t legend = 0;
  for (const PlotPanel& panel : picture.panels) legend += panel.curves.size();
  const std::size_t others = legend + 2 * picture.bands.size() + 3;
  const std::size_t space = size.rows > others ? size.rows - others : 0;
  const std::size_t rows =
      std::max<std::size_t>(4, space / std::max<std::size_t>(1, picture.panels.size()));
  std::string text;
  for (const PlotPanel& panel : picture.panels) {
    for (const PlotCurve& curve : panel.curves) {
      text += legendOf(curve.label, curve.number, size, hasColors);
    }
    Screen screen(columns, rows);
    for (const PlotCurve& curve : panel.curves) draw(screen, curve, panel, picture);
    const std::vector<std::string> labels = rowLabels(panel, rows);
    for (std::size_t row = 0; row < rows; ++row) {
      text += fmt::format("{:>{}}{}{}\n", labels[row], kLabelWidth, labels[row].empty() ? "│" : "┤",
                          screen.row(row, hasColors));
    }
  }
  for (const PlotBand& band : picture.bands) {
    text += legendOf(band.label, band.number, size, hasColors);
    text += fmt::format("{:>{}}│{}\n", "", kLabelWidth, bandRow(band, picture, columns));
  }
  return text + timeLabels(picture, columns);
}

}  // namespace kyr::tool

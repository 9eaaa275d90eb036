#include "view/SvgPlot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "view/AxisTicks.h"

namespace kyr::tool {

namespace {

constexpr double kPanelHeight = 200;
constexpr double kBandHeight = 22;
constexpr double kLeft = 70;
constexpr double kRight = 16;
constexpr double kHead = 24;    // names above a panel
constexpr double kBottom = 30;  // times below all panels

// Okabe and Ito's, which colour-blind people tell apart.
constexpr const char* kColors[] = {"#0072b2", "#d55e00", "#00805f", "#b0568a",
                                   "#8a6d00", "#2f8fc4", "#5a4fcf", "#3d3d3d"};

const char* colorOf(std::size_t number) { return kColors[number % std::size(kColors)]; }

std::string escaped(const std::string& text, std::size_t most) {
  std::string result;
  std::size_t characters = 0;
  for (const char c : text) {
    const bool isStart = (static_cast<unsigned char>(c) & 0xc0U) != 0x80U;
    if (isStart && ++characters > most) return result + "…";
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += c;
    }
    // XML has neither U+FFFE nor U+FFFF.
    const std::size_t end = result.size();
    if (end >= 3 && result.compare(end - 3, 2, "\xef\xbf") == 0) {
      const auto last = static_cast<unsigned char>(result.back());
      if (last >= 0xbe) result.replace(end - 3, 3, "\xef\xbf\xbd");
    }
  }
  return result;
}

struct Place {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

class SvgText {
 public:
  void text(double x, double y, const char* anchor, const char* color,
            const std::string& escapedText, const char* more = "") {
    out_ +=
        fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\" fill=\"{}\"{}>{}</text>\n",
                    x, y, anchor, color, more, escapedText);
  }
  void path(const std::string& corners, const char* color, double width) {
    if (corners.empty()) return;
    out_ += fmt::format(
        "<path d=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"{}\" "
        "stroke-linejoin=\"round\" stroke-linecap=\"round\"/>\n",
        corners, color, width);
  }
  void append(const std::string& text) { out_ += text; }
  const std::string& str() const { return out_; }

 private:
  std::string out_;
};

std::string cornersOf(const PlotCurve& curve, const PlotPanel& panel, const PlotPicture& picture,
                      const Place& place) {
  constexpr double kFar = 1e5;
  std::string corners;
  bool isInterrupted = true;
  for (const PlotPoint& point : curve.points) {
    if (!std::isfinite(point.value)) {
      isInterrupted = true;
      continue;
    }
    const double part = partOf(point.time, picture.from, picture.to);
    const double x = std::clamp(place.x + part * place.width, -kFar, kFar);
    const double height = (1 - partOf(point.value, panel.low, panel.high)) * place.height;
    const double y = std::clamp(place.y + height, -kFar, kFar);
    if (isInterrupted) {
      corners += fmt::format("M{:.1f} {:.1f}h0", x, y);  // a lone point is a dot
    } else if (curve.isSteps) {
      corners += fmt::format("H{:.1f}V{:.1f}", x, y);
    } else {
      corners += fmt::format("L{:.1f} {:.1f}", x, y);
    }
    isInterrupted = false;
  }
  return corners;
}

void drawNames(SvgText& svg, const PlotPanel& panel, const Place& place) {
  constexpr double kCharacter = 7;
  double x = place.x;
  for (const PlotCurve& curve : panel.curves) {
    const double free = place.x + place.width - x - 30;
    const auto most = static_cast<std::size_t>(std::max(0.0, free / kCharacter));
    if (most < 3) break;
    svg.path(fmt::format("M{:.1f} {:.1f}h16", x, place.y - 10), colorOf(curve.number), 3);
    svg.text(x + 22, place.y - 6, "start", "#1c2127", escaped(curve.label, most));
    x += 42 + kCharacter * static_cast<double>(std::min(most, curve.label.size()));
  }
}

void drawPanel(SvgText& svg, const PlotPanel& panel, const PlotPicture& picture, const Place& place,
               std::size_t number) {
  drawNames(svg, panel, place);
  std::string grid;
  for (const AxisTick& tick : axisTicks(panel.low, panel.high, place.height / 40)) {
    const double y = place.y + (1 - partOf(tick.value, panel.low, panel.high)) * place.height;
    grid += fmt::format("M{:.1f} {:.1f}h{:.1f}", place.x, y, place.width);
    svg.text(place.x - 6, y + 4, "end", "#5b6570", tick.text);
  }
  for (const AxisTick& tick : axisTicks(picture.from, picture.to, place.width / 90)) {
    const double x = place.x + partOf(tick.value, picture.from, picture.to) * place.width;
    grid += fmt::format("M{:.1f} {:.1f}v{:.1f}", x, place.y, place.height);
  }
  svg.path(grid, "#e3e6ea", 1);
  svg.append(
      fmt::format("<clipPath id=\"panel{0}\"><rect x=\"{1:.1f}\" y=\"{2:.1f}\" width=\"{3:.1f}\" "
                  "height=\"{4:.1f}\"/></clipPath>\n<g clip-path=\"url(#panel{0})\">\n",
                  number, place.x, place.y - 1, place.width, place.height + 2));
  for (const PlotCurve& curve : panel.curves) {
    svg.path(cornersOf(curve, panel, picture, place), colorOf(curve.number), 1.5);
  }
  svg.append("</g>\n");
  svg.path(fmt::format("M{:.1f} {:.1f}v{:.1f}h{:.1f}", place.x, place.y, place.height, place.width),
           "#9aa5b1", 1);
}

void drawBand(SvgText& svg, const PlotBand& band, const PlotPicture& picture, const Place& place) {
  constexpr double kCharacter = 7;
  const auto mostOf = [](double width) {
    return static_cast<std::size_t>(std::max(0.0, width / kCharacter));
  };
  svg.path(fmt::format("M{:.1f} {:.1f}h16", place.x, place.y - 10), colorOf(band.number), 3);
  svg.text(place.x + 22, place.y - 6, "start", "#1c2127",
           escaped(band.label, mostOf(place.width - 30)));
  const auto xOf = [&](double time) {
    return place.x + std::clamp(partOf(time, picture.from, picture.to), 0.0, 1.0) * place.width;
  };
  for (const recording::ValueSpan& span : band.spans) {
    const double x = xOf(span.from);
    const double width = std::max(1.0, xOf(span.to) - x);
    svg.append(fmt::format(
        "<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"{:.1f}\" height=\"{:.1f}\" fill=\"{}\" "
        "fill-opacity=\"{}\"/>\n",
        x, place.y, width, kBandHeight - 4, colorOf(band.number), span.isMixed ? 0.45 : 0.22));
    svg.path(fmt::format("M{:.1f} {:.1f}v{:.1f}", x, place.y, kBandHeight - 4),
             colorOf(band.number), 1);
    if (const std::size_t most = mostOf(width - 8); most > 1 && !span.text.empty()) {
      svg.text(x + 4, place.y + 13, "start", "#1c2127", escaped(span.text, most));
    }
  }
}

}  // namespace

std::string svgPlot(const PlotPicture& picture, double width) {
  const auto count = static_cast<double>(picture.panels.size());
  const auto bands = static_cast<double>(picture.bands.size());
  const double height = count * (kHead + kPanelHeight) + bands * (kHead + kBandHeight) + kBottom;
  SvgText svg;
  svg.append(fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
      "viewBox=\"0 0 {0} {1}\" font-family=\"system-ui, sans-serif\" font-size=\"12\">\n"
      "<rect width=\"{0}\" height=\"{1}\" fill=\"#ffffff\"/>\n",
      width, height));
  Place place{kLeft, kHead, width - kLeft - kRight, kPanelHeight - 10};
  std::size_t number = 0;
  for (const PlotPanel& panel : picture.panels) {
    drawPanel(svg, panel, picture, place, number++);
    place.y += kHead + kPanelHeight;
  }
  for (const PlotBand& band : picture.bands) {
    drawBand(svg, band, picture, place);
    place.y += kHead + kBandHeight;
  }
  for (const AxisTick& tick : axisTicks(picture.from, picture.to, place.width / 90)) {
    const double x = place.x + partOf(tick.value, picture.from, picture.to) * place.width;
    svg.text(x, height - kBottom + 8, "middle", "#5b6570", tick.text);
  }
  svg.text(width - kRight, height - 5, "end", "#5b6570", "time [s]");
  svg.append("</svg>\n");
  return svg.str();
}

}  // namespace kyr::tool

#include "view/PlotPanels.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "cli/Text.h"

namespace kyr::tool {

namespace {

using recording::RecordingReader;
using recording::SignalInfo;

constexpr double kMost = std::numeric_limits<double>::max();

void chooseWindow(PlotPicture& picture, const RecordingReader& reader, const PlotRequest& request) {
  picture.from = kMost;
  picture.to = -kMost;
  for (const SignalInfo& signal : request.signals) {
    const auto span = shownSpan(reader, signal);
    if (!span) continue;
    picture.from = std::clamp(span->from, -kMost, picture.from);
    picture.to = std::clamp(span->to, picture.to, kMost);
  }
  const bool isKnown = request.from && request.to;
  if (picture.from > picture.to && !isKnown) {
    throw std::runtime_error(
        "the signals have no rows with finite times to draw; --from and --to choose a window");
  }
  picture.from = request.from.value_or(picture.from);
  picture.to = request.to.value_or(picture.to);
  if (picture.from > picture.to) throw std::runtime_error("there are no rows in that window");
  if (picture.from == picture.to) {
    const double room = std::max(0.5, std::abs(picture.to) * 1e-9);
    picture.from -= room;
    picture.to += room;
  }
}

// Includes all finite values.
void chooseRange(PlotPanel& panel) {
  panel.low = kMost;
  panel.high = -kMost;
  for (const PlotCurve& curve : panel.curves) {
    for (const PlotPoint& point : curve.points) {
      if (!std::isfinite(point.value)) continue;
      panel.low = std::min(panel.low, point.value);
      panel.high = std::max(panel.high, point.value);
    }
  }
  if (panel.low > panel.high) {
    panel.low = 0;
    panel.high = 1;
  }
  constexpr double kRoom = 0.1;  // half of it on each side
  const double half = panel.high / 2 - panel.low / 2;
  const double room = half > 0 ? half * kRoom : std::max(0.5, std::abs(panel.high) * kRoom);
  panel.low = std::max(-kMost, panel.low - room);
  panel.high = std::min(kMost, panel.high + room);
}

PlotPanel& panelOf(PlotPicture& picture, const std::string& unit) {
  for (PlotPanel& panel : picture.panels) {
    if (panel.unit == unit) return panel;
  }
  PlotPanel& panel = picture.panels.emplace_back();
  panel.unit = unit;
  return panel;
}

// Blobs may be no text at all. JSON replaces bytes that are no UTF-8.
std::string shownText(const std::string& bytes) {
  using nlohmann::json;
  const auto replace = json::error_handler_t::replace;
  return singleLine(
      json::parse(json(bytes).dump(-1, ' ', /*ensure_ascii=*/false, replace)).get<std::string>());
}

std::vector<recording::ValueSpan> textsOf(const RecordingReader& reader, int id,
                                          const PlotPicture& picture, std::size_t columns) {
  auto spans = reader.spans(id, picture.from, picture.to, columns);
  for (recording::ValueSpan& span : spans) {
    span.text = span.isMixed ? "" : shownText(span.text);
  }
  return spans;
}

}  // namespace

PlotPicture readPicture(const RecordingReader& reader, const PlotRequest& request) {
  PlotPicture picture;
  chooseWindow(picture, reader, request);
  std::size_t number = 0;
  for (const SignalInfo& signal : request.signals) {
    if (isText(signal)) {
      picture.bands.push_back({singleLine(signal.name), number++,
                               textsOf(reader, signal.signalId, picture, request.columns)});
      continue;
    }
    PlotCurve curve;
    curve.label = singleLine(signal.name);
    if (signal.category != Scalar) curve.label += fmt::format("[{}]", request.element);
    if (!signal.unit.empty()) curve.label += fmt::format(" [{}]", singleLine(signal.unit));
    curve.number = number++;
    curve.isSteps = !hasFractions(signal);
    const std::uint64_t element = signal.category == Scalar ? 0 : request.element;
    curve.points = pointsOf(
        reader.envelope(signal.signalId, picture.from, picture.to, request.columns, element));
    panelOf(picture, singleLine(signal.unit)).curves.push_back(std::move(curve));
  }
  for (PlotPanel& panel : picture.panels) chooseRange(panel);
  return picture;
}

double partOf(double value, double from, double to) {
  return (value / 2 - from / 2) / (to / 2 - from / 2);
}

}  // namespace kyr::tool

#include "view/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cli/PendingOutput.h"
#include "cli/Text.h"
#include "view/PageFiles.h"
#include "view/PlotPanels.h"

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;

constexpr std::size_t kMostSignals = 200;
constexpr std::size_t kSignalsUnlessNamed = 8;

std::string base64(std::string_view bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    for (std::size_t k = 0; k < 3; ++k) {
      group = group << 8U | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += k <= count ? kDigits[(group >> (18 - 6 * k)) & 63U] : '=';
    }
  }
  return text;
}

template <typename Number>
void put(std::string& bytes, double value) {
  const auto number = static_cast<Number>(value);
  bytes.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

// Points as the page decodes them: times as parts of the window, all as float32. Values that would
// not fit into that are kept as float64.
ordered_json packed(const std::string& points, double from, double to) {
  std::vector<double> numbers(points.size() / sizeof(double));
  std::memcpy(numbers.data(), points.data(), numbers.size() * sizeof(double));
  const bool isWide = std::any_of(numbers.begin() + 2, numbers.end(), [](double number) {
    return std::isfinite(number) && std::abs(number) > std::numeric_limits<float>::max();
  });
  std::string bytes;
  for (std::size_t i = 2; i < numbers.size(); ++i) {
    const double number = i % 2 == 0 ? partOf(numbers[i], from, to) : numbers[i];
    if (isWide) {
      put<double>(bytes, number);
    } else {
      put<float>(bytes, number);
    }
  }
  return {{"from", from},
          {"to", to},
          {"rows", numbers[0]},
          {"wide", isWide},
          {"points", base64(bytes)}};
}

// The tolerance around the points of a curve, packed as they are.
ordered_json packedBand(const std::string& points, double from, double to, std::size_t columns,
                        const Tolerance& tolerance, bool holds) {
  std::vector<double> numbers(points.size() / sizeof(double));
  std::memcpy(numbers.data(), points.data(), numbers.size() * sizeof(double));
  std::vector<PlotPoint> corners;
  for (std::size_t i = 2; i + 1 < numbers.size(); i += 2) {
    corners.push_back({numbers[i], numbers[i + 1]});
  }
  std::string bytes;
  put<double>(bytes, 0);
  put<double>(bytes, 0);
  for (const PlotPoint& point : toleranceBand(corners, from, to, columns, tolerance, holds)) {
    put<double>(bytes, point.time);
    put<double>(bytes, point.value);
  }
  return packed(bytes, from, to);
}

// Signals get the names that they are shown by.
void rename(ordered_json& runs, const std::map<std::string, std::string>& otherNames) {
  for (std::size_t run = 1; run < runs.size(); ++run) {
    for (ordered_json& signal : runs[run]["signals"]) {
      const auto found = otherNames.find(signal["name"].get<std::string>());
      if (found != otherNames.end()) signal["name"] = found->second;
    }
  }
}

// Text is cut, because a report is bounded.
ordered_json cut(ordered_json spans) {
  constexpr std::size_t kMostBytes = 48;
  for (ordered_json& span : spans) {
    if (span.contains("text")) {
      span["text"] = span["text"].get_ref<const std::string&>().substr(0, kMostBytes);
    }
  }
  return spans;
}

bool isAmong(const std::vector<std::string>& names, const ordered_json& name) {
  return std::find(names.begin(), names.end(), name.get_ref<const std::string&>()) != names.end();
}

// The names, or those of the first signals that can be drawn.
std::vector<std::string> namesOf(const ordered_json& runs, const ReportOptions& options) {
  if (!options.signals.empty()) return options.signals;
  std::vector<std::string> names;
  for (const ordered_json& run : runs) {
    for (const ordered_json& signal : run["signals"]) {
      if (names.size() >= kSignalsUnlessNamed) return names;
      if (signal.contains("from") && !isAmong(names, signal["name"])) {
        names.push_back(signal["name"]);
      }
    }
  }
  return names;
}

ordered_json dataOf(ViewedRuns& viewed, const ReportOptions& options) {
  ordered_json runs = viewed.runs();
  rename(runs, options.otherNames);
  const std::vector<std::string> names = namesOf(runs, options);
  ordered_json points = ordered_json::object();
  ordered_json spans = ordered_json::object();
  std::size_t count = 0;
  for (std::size_t run = 0; run < runs.size(); ++run) {
    ordered_json kept = ordered_json::array();
    for (ordered_json& signal : runs[run]["signals"]) {
      if (!isAmong(names, signal["name"])) continue;
      if (++count > kMostSignals) {
        throw std::runtime_error(
            fmt::format("a report holds {} signals of all recordings together", kMostSignals));
      }
      if (signal.contains("from")) {
        const ViewedSignal viewedSignal{run, signal["id"], 0};
        const double from = signal["from"];
        const double end = signal["to"];
        const double to = end > from ? end : from + std::max(1.0, std::abs(from) * 1e-9);
        const std::string key = fmt::format("{}/{}", run, signal["id"].get<int>());
        const bool isBand = signal["kind"] == "boolean" || signal["kind"] == "text";
        if (isBand) {
          spans[key] = cut(viewed.spans(viewedSignal, {from, to, options.columns}));
        } else {
          const std::string read = viewed.points(viewedSignal, {from, to, options.columns});
          points[key] = packed(read, from, to);
          const auto tolerance = options.tolerances.find(viewedSignal.id);
          if (run == 0 && tolerance != options.tolerances.end()) {
            points[key]["tolerance"] =
                packedBand(read, from, to, options.columns, tolerance->second,
                           /*holds=*/signal["kind"] == "integer");
          }
        }
      }
      kept.push_back(signal);
    }
    runs[run]["signals"] = std::move(kept);
    runs[run]["state"] = "finished";  // nothing follows in a report
  }
  if (!runs.empty()) runs[0]["open"] = names;
  return {{"runs", std::move(runs)}, {"points", std::move(points)}, {"spans", std::move(spans)}};
}

// The modules as one: their imports are gone, because all names are there already.
std::string allModules() {
  std::string all;
  for (std::size_t i = 0; i < kPageFileCount; ++i) {
    if (kPageFiles[i].name.find(".js") == std::string_view::npos) continue;
    std::string_view rest = kPageFiles[i].text;
    while (!rest.empty()) {
      const std::size_t end = std::min(rest.find('\n'), rest.size() - 1) + 1;
      std::string_view line = rest.substr(0, end);
      rest.remove_prefix(end);
      if (line.substr(0, 7) == "import ") continue;
      if (line.substr(0, 7) == "export ") line.remove_prefix(7);
      all += line;
    }
  }
  return all;
}

void replace(std::string& text, std::string_view from, std::string_view to) {
  const std::size_t at = text.find(from);
  if (at == std::string::npos) throw std::logic_error("the page lacks " + std::string(from));
  text.replace(at, from.size(), to);
}

// JSON in which no text can end the element of the page that it stands in.
std::string harmless(const ordered_json& data) {
  const std::string text =
      data.dump(-1, ' ', /*ensure_ascii=*/false, nlohmann::json::error_handler_t::replace);
  std::string safe;
  for (const char c : text) {
    if (c == '<') {
      safe += "\\u003c";
    } else {
      safe += c;
    }
  }
  return safe;
}

}  // namespace

const std::string_view* pageFile(std::string_view name) {
  for (std::size_t i = 0; i < kPageFileCount; ++i) {
    if (kPageFiles[i].name == name) return &kPageFiles[i].text;
  }
  return nullptr;
}

std::string reportPage(ViewedRuns& runs, const ReportOptions& options) {
  std::string page(*pageFile("index.html"));
  replace(page, "<meta charset=\"utf-8\">",
          "<meta charset=\"utf-8\">\n<meta http-equiv=\"Content-Security-Policy\" "
          "content=\"default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; "
          "img-src data: blob:; base-uri 'none'; form-action 'none'\">");
  replace(page, "<link rel=\"stylesheet\" href=\"style.css\">",
          fmt::format("<style>\n{}</style>", *pageFile("style.css")));
  replace(page, "<script type=\"module\" src=\"main.js\"></script>",
          fmt::format("<script type=\"application/json\" id=\"data\">{}</script>\n"
                      "<script type=\"module\">\n{}</script>",
                      harmless(dataOf(runs, options)), allModules()));
  return page;
}

void writeReport(ViewedRuns& runs, const ReportOptions& options, const std::string& file,
                 bool replaces) {
  PendingOutput output(file, PendingOutput::Kind::file, replaces);
  const std::string page = reportPage(runs, options);
  std::ofstream out(output.path(), std::ios::binary);
  out.write(page.data(), static_cast<std::streamsize>(page.size()));
  out.close();
  if (!out) throw std::runtime_error(file + " cannot be written");
  output.publish();
}

}  // namespace kyr::tool

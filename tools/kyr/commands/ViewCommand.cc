#include <fmt/format.h>
#include <spawn.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "view/HttpServer.h"
#include "view/Report.h"
#include "view/ViewedRuns.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX declares it nowhere

namespace kyr::tool {

namespace {

using nlohmann::ordered_json;

struct ViewOptions {
  std::vector<std::string> folders;
  std::vector<std::string> signals;
  std::uint16_t port = 0;
  bool staysClosed = false;
  std::string report;
  bool replaces = false;
  Links links = Links::refused;
};

HttpResponse jsonResponse(const ordered_json& json) {
  return {200, "application/json",
          json.dump(-1, ' ', /*ensure_ascii=*/false, ordered_json::error_handler_t::replace)};
}

HttpResponse fileResponse(const std::string& name) {
  const std::string_view* const text = pageFile(name.empty() ? "index.html" : name);
  if (text == nullptr) return {404, "text/plain; charset=utf-8", "There is no such page."};
  const auto endsWith = [&](std::string_view end) {
    return name.size() >= end.size() &&
           name.compare(name.size() - end.size(), end.size(), end) == 0;
  };
  const char* const type = endsWith(".js")    ? "text/javascript; charset=utf-8"
                           : endsWith(".css") ? "text/css; charset=utf-8"
                                              : "text/html; charset=utf-8";
  return {200, type, std::string(*text)};
}

ViewedSignal signalOf(const HttpRequest& request, const std::string& id,
                      const std::string& element) {
  const std::uint64_t number = queryCount(request, id);
  if (number > INT32_MAX) throw std::runtime_error("signals have smaller numbers");
  return {static_cast<std::size_t>(queryCount(request, "run")), static_cast<int>(number),
          queryCount(request, element, 0)};
}

ViewedWindow windowOf(const HttpRequest& request) {
  constexpr std::uint64_t kMostColumns = 20'000;
  const std::uint64_t columns = queryCount(request, "columns");
  if (columns == 0 || columns > kMostColumns) {
    throw std::runtime_error(fmt::format("there are 1 to {} columns", kMostColumns));
  }
  return {queryNumber(request, "from"), queryNumber(request, "to"),
          static_cast<std::size_t>(columns)};
}

HttpResponse respond(ViewedRuns& runs, const ViewOptions& options, const HttpRequest& request) {
  constexpr const char* kBytes = "application/octet-stream";
  if (request.path == "runs") {
    ordered_json json = runs.runs();
    json[0]["open"] = options.signals;
    return jsonResponse(json);
  }
  if (request.path == "states") return jsonResponse(runs.states());
  const auto signal = [&] { return signalOf(request, "id", "element"); };
  if (request.path == "points") return {200, kBytes, runs.points(signal(), windowOf(request))};
  if (request.path == "spans") return jsonResponse(runs.spans(signal(), windowOf(request)));
  if (request.path == "pairs") {
    return {200, kBytes,
            runs.pairs(signal(), signalOf(request, "y", "yElement"), windowOf(request))};
  }
  if (request.path == "rows") {
    return {200, kBytes,
            runs.rows(signal(), queryNumber(request, "from"), queryNumber(request, "to"))};
  }
  return fileResponse(request.path);
}

// A browser that cannot be started is no failure: the address is printed.
void openBrowser(const std::string& address) {
  if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) return;
  std::string program = "xdg-open";
  std::string argument = address;
  char* const arguments[] = {program.data(), argument.data(), nullptr};
  pid_t child = 0;
  (void)::posix_spawnp(&child, program.c_str(), nullptr, nullptr, arguments, environ);
}

void requireSignals(const ordered_json& runs, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    bool isKnown = false;
    for (const ordered_json& run : runs) {
      for (const ordered_json& signal : run["signals"]) isKnown |= signal["name"] == name;
    }
    if (!isKnown) {
      throw std::runtime_error(
          fmt::format("none of the recordings has a signal {}", inQuotes(name)));
    }
  }
}

int runView(const ViewOptions& options) {
  allowManyFiles();
  ViewedRuns runs(options.folders, options.links);
  requireSignals(runs.runs(), options.signals);
  if (!options.report.empty()) {
    writeReport(runs, {options.signals}, options.report, options.replaces);
    return 0;
  }
  HttpServer server(options.port,
                    [&](const HttpRequest& request) { return respond(runs, options, request); });
  Output out;
  out.print("{}\nCtrl-C ends it.\n", server.address());
  out.flush();
  if (!options.staysClosed) openBrowser(server.address());
  server.run();
  return 0;
}

}  // namespace

void addViewCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("view", "Look at recordings in the browser");
  const auto options = std::make_shared<ViewOptions>();
  command->add_option("FOLDER", options->folders, "Recordings; several are drawn over each other")
      ->required()
      ->type_name("");
  command
      ->add_option("--signal", options->signals,
                   "Plot this signal at once; may be given repeatedly")
      ->type_name("NAME")
      ->allow_extra_args(false);
  auto* report = command
                     ->add_option("--html", options->report,
                                  "Write the page with the plots to FILE instead of serving it")
                     ->type_name("FILE");
  command->add_option("--port", options->port, "Port to serve at; any that is free unless given")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65'535).description(""))
      ->excludes(report);
  command->add_flag("--no-open", options->staysClosed, "Print the address and open no browser")
      ->excludes(report);
  command->add_flag("--force", options->replaces, "Replace the file of --html")->needs(report);
  addLinksOption(*command, options->links);
  command->footer(R"help(
The page is served to this machine only, at an address that nobody can guess, until Ctrl-C. From
another machine, forward the port: ssh -L 9000:127.0.0.1:PORT HOST, and open the printed address
with 9000 in place of PORT. Only what is drawn is read, so that long recordings open at once. A
recording that is being written is followed.

--html makes one file for e-mail and CI: the page with the signals of --signal in it, or with the
first 8. Each signal takes at most 43 kB, at 1,000 points across.

Examples:
  kyr view run
  kyr view run run42 --signal speed
  kyr view run --no-open --port 8642
  kyr view run --signal speed --signal torque --html report.html)help");
  setAction(*command, action, options, runView);
}

}  // namespace kyr::tool

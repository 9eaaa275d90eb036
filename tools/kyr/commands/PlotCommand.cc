#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/PendingOutput.h"
#include "cli/SignalSelection.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingReader.h"
#include "view/BraillePlot.h"
#include "view/PlotPanels.h"
#include "view/SvgPlot.h"

namespace kyr::tool {

namespace {

struct PlotOptions {
  std::string folder;
  std::vector<std::string> signals;
  std::optional<double> from;
  std::optional<double> to;
  std::uint64_t element = 0;
  std::string file;
  bool replaces = false;
  Links links = Links::refused;
};

constexpr double kSvgWidth = 900;

TerminalSize terminalSize() {
  TerminalSize size;
  winsize window{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 && window.ws_row > 0) {
    size.columns = window.ws_col;
    size.rows = window.ws_row;
  }
  return size;
}

bool hasColors() {
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr &&
         (terminal == nullptr || std::string(terminal) != "dumb");
}

void writeSvg(const PlotPicture& picture, const PlotOptions& options) {
  PendingOutput file(options.file, PendingOutput::Kind::file, options.replaces);
  std::ofstream out(file.path(), std::ios::binary);
  out << svgPlot(picture, kSvgWidth);
  out.close();
  if (!out) throw std::runtime_error(options.file + " cannot be written");
  file.publish();
}

int runPlot(const PlotOptions& options) {
  if (options.from && options.to && !(*options.from < *options.to)) {
    throw UsageError("--from must be before --to");
  }
  recording::ReaderOptions reading;
  reading.links = options.links;
  const recording::RecordingReader reader(Path::fromNarrow(options.folder), reading);
  const TerminalSize size = terminalSize();
  PlotRequest request;
  request.signals = chosenSignals(reader, options.signals, options.folder);
  request.from = options.from;
  request.to = options.to;
  request.element = options.element;
  constexpr std::size_t kMostColumns = 8'000;  // of terminals that tell nonsense, too
  if (options.file.empty()) request.columns = std::min(kMostColumns, 2 * size.columns);
  const PlotPicture picture = readPicture(reader, request);
  if (!options.file.empty()) {
    writeSvg(picture, options);
    return 0;
  }
  Output out;
  out.print("{}", braillePlot(picture, size, hasColors()));
  out.flush();
  return 0;
}

}  // namespace

void addPlotCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("plot", "Draw signals in the terminal, or to an SVG file");
  const auto options = std::make_shared<PlotOptions>();
  addRecordingArgument(*command, options->folder);
  command->add_option("SIGNAL", options->signals, "Names, ids or patterns ('floor1_*') of signals")
      ->required()
      ->type_name("");
  command->add_option("--from", options->from, "Begin at this time [s]")->type_name("T");
  command->add_option("--to", options->to, "End at this time [s]")->type_name("T");
  command->add_option("--element", options->element, "Element of matrices, counted from 0")
      ->type_name("N");
  auto* file =
      command->add_option("-o,--output", options->file, "Write an SVG file in place of text")
          ->type_name("FILE");
  command->add_flag("--force", options->replaces, "Replace FILE")->needs(file);
  addLinksOption(*command, options->links);
  command->footer(R"help(
Each unit has its own axis. A plot shows the smallest and largest value at each place across, so
that no peak is lost however many rows there are. The terminal gets as much as fits into it, in
colours unless the variable NO_COLOR is set. Signals of text are drawn as bands.

Examples:
  kyr plot run speed
  kyr plot run speed torque --from 10 --to 20
  kyr plot run speed -o speed.svg)help");
  setAction(*command, action, options, runPlot);
}

}  // namespace kyr::tool

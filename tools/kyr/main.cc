#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Process.h"
#include "cli/Usage.h"
#include "commands/Commands.h"
#include "kyr/platform/TraceEventFile.h"

namespace kyr::tool {

namespace {

// Traces the work of the library while the object lives, if the user named a file.
class Tracing {
 public:
  explicit Tracing(const std::string& file) {
    if (!file.empty()) {
      installTraceService(std::make_shared<TraceEventFile>(Path::fromNarrow(file)));
    }
  }
  ~Tracing() { installTraceService(nullptr); }
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;
};

void addCommands(CLI::App& app, Action& action) {
  addImportCommand(app, action);
  addRecordCommand(app, action);
  addRecoverCommand(app, action);
  addInfoCommand(app, action);
  addCatCommand(app, action);
  addViewCommand(app, action);
  addPlotCommand(app, action);
  addStatsCommand(app, action);
  addExportCommand(app, action);
  addDiffCommand(app, action);
  addSetCommand(app, action);
  addCutCommand(app, action);
  addMergeCommand(app, action);
  addAppendCommand(app, action);
  addRepackCommand(app, action);
  addDedupCommand(app, action);
  addSqlCommand(app, action);
  addVerifyCommand(app, action);
  addGcCommand(app, action);
  addOptionsCommand(app, action);
  addDemoCommand(app, action);
  addCompletionCommand(app, action);
  addManualCommand(app, action);
  addHelpCommand(app, action);
}

int run(int argc, char** argv) {
  CLI::App app("Stores recorded signals of simulations as Parquet files and reads them back.",
               "kyr");
  app.formatter(helpFormatter());
  app.group("Commands");
  app.set_help_flag("-h,--help", "Show this help");
  app.set_version_flag("-v,--version", "kyr " KYR_VERSION, "Show the version");
  app.require_subcommand(1);
  app.fallthrough();
  std::string traceFile;
  app.add_option("--trace", traceFile,
                 "Write what the library does to FILE, in the trace event format")
      ->type_name("FILE");
  app.footer(R"help(
Exit codes: 0 done, 1 failed, 2 wrong usage. kyr recover: 3 if something is lost.
kyr diff: 0 equal, 1 different, 2 wrong usage, 3 failed.

Examples:
  kyr demo
  kyr import run.csv run
  simulator | kyr record - run42
  kyr cat run speed --from 10 --to 20
  kyr export run run.parquet
Each command has a help of its own: kyr help import.)help");
  Action action;
  addCommands(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // --help or --version
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    throw UsageError(describeWrongUsage(app, error));
  }
  const Tracing tracing(traceFile);
  return action();
}

}  // namespace

}  // namespace kyr::tool

int main(int argc, char** argv) {
  kyr::tool::prepareProcess();
  kyr::tool::noteInterrupts();
  try {
    return kyr::tool::run(argc, argv);
  } catch (...) {
    return kyr::tool::reportCurrentException();
  }
}

#include <parquet/exception.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "commands/Commands.h"
#include "kyr/platform/TraceEventFile.h"

namespace kyr::tool {

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;
constexpr const char* kNoMemory = "there is not enough memory";

int fail(const std::string& message, int exitCode) {
  tell(message);
  return exitCode;
}

// Traces the library's work for as long as it lives, if there is a file for it.
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

std::string textOf(const std::filesystem::filesystem_error& error) {
  if (error.path1().empty()) return error.what();
  return error.path1().string() + ": " + error.code().message();
}

int run(int argc, char** argv) {
  CLI::App app("Stores recorded signals of simulations as Parquet files, and reads them back.",
               "kyr");
  app.set_version_flag("--version", "kyr " KYR_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  std::string traceFile;
  app.add_option("--trace", traceFile,
                 "Write what the library does to FILE, in the trace event format")
      ->type_name("FILE");
  app.footer(R"help(
Exit codes: 0 done, 1 failed, 2 wrong usage; kyr recover: 3 something is lost.

Examples:
  kyr demo
  kyr import run.csv run
  simulator | kyr record - run42
  kyr cat run speed --from 10 --to 20
  kyr export run run.parquet
Each command has its own --help.)help");
  Action action;
  addImportCommand(app, action);
  addRecordCommand(app, action);
  addRecoverCommand(app, action);
  addInfoCommand(app, action);
  addCatCommand(app, action);
  addExportCommand(app, action);
  addVerifyCommand(app, action);
  addGcCommand(app, action);
  addOptionsCommand(app, action);
  addDemoCommand(app, action);
  addCompletionCommand(app, action);
  addManualCommand(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // --help or --version
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    return fail(std::string(error.what()) + " (kyr --help tells more)", kWrongUsage);
  }
  const Tracing tracing(traceFile);
  return action();
}

// Errors as exit codes.
int runGuarded(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const OutputClosed&) {
    return 0;
  } catch (const Interrupted&) {
    endByInterrupt();
  } catch (const UsageError& error) {
    return fail(error.what(), kWrongUsage);
  } catch (const std::filesystem::filesystem_error& error) {
    return fail(textOf(error), kFailed);
  } catch (const std::bad_alloc&) {
    return fail(kNoMemory, kFailed);
  } catch (const ::parquet::ParquetStatusException& error) {
    return fail(error.status().IsOutOfMemory() ? kNoMemory : error.what(), kFailed);
  } catch (const std::exception& error) {
    return fail(error.what(), kFailed);
  }
}

}  // namespace

}  // namespace kyr::tool

int main(int argc, char** argv) {
  // A reader that goes away is seen when writing; see OutputClosed.
  std::signal(SIGPIPE, SIG_IGN);
  kyr::tool::noteInterrupts();
  return kyr::tool::runGuarded(argc, argv);
}

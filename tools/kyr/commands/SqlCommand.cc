#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Files.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/SignalSelection.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingReader.h"
#include "sql/SqlViews.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX declares it nowhere

namespace kyr::tool {

namespace {

struct SqlOptions {
  std::vector<std::string> folders;
  std::vector<std::string> signals;
  std::string query;
  std::string format = "table";
};

// DuckDB in a process of its own, which reads the statements from its standard input.
class DuckDb {
 public:
  explicit DuckDb(const std::string& format) {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throw systemError("a pipe", "made", errno);
    input_ = pipe[1];
    letSignalsEndCalls();
    const int error = start(format, pipe[0]);
    ::close(pipe[0]);
    if (error == 0) return;
    ::close(input_);
    throw systemError("duckdb, the program that --command needs,", "run", error);
  }
  ~DuckDb() {
    closeInput();
    if (process_ > 0) ::waitpid(process_, nullptr, 0);
  }
  DuckDb(const DuckDb&) = delete;
  DuckDb& operator=(const DuckDb&) = delete;

  void run(std::string_view statements) {
    while (!statements.empty()) {
      const ssize_t written = ::write(input_, statements.data(), statements.size());
      if (written < 0 && errno == EINTR && !isInterrupted()) continue;
      if (written < 0) return;  // It has ended and said why, or is to end.
      statements.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  /// \return whether all statements were right
  /// \throws OutputClosed, Interrupted
  bool finish() {
    closeInput();
    const std::optional<int> status = end();
    stopIfInterrupted();
    if (status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGPIPE) throw OutputClosed();
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
  }

 private:
  // A signal ends write() and waitpid(), which would go on otherwise.
  static void letSignalsEndCalls() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
      struct sigaction action {};
      ::sigaction(signal, nullptr, &action);
      action.sa_flags &= ~SA_RESTART;
      ::sigaction(signal, &action, nullptr);
    }
  }

  // Returns a value of errno, 0 for success.
  int start(const std::string& format, int input) {
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    // This process ignores some signals, and DuckDB is to end by them.
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGPIPE, SIGXFSZ}) ::sigaddset(&signals, signal);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::vector<std::string> words{"duckdb", "-bail", "-batch"};
    if (format != "table") words.push_back("-" + format);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int error =
        ::posix_spawnp(&process_, "duckdb", &actions, &attributes, arguments.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
  }

  void closeInput() {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
  }

  // Waits for the end of the process. It is told of a signal that only this one got.
  std::optional<int> end() {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0) {
      if (errno != EINTR) return std::nullopt;
      if (isInterrupted()) ::kill(process_, SIGTERM);
    }
    process_ = -1;
    return status;
  }

  pid_t process_ = -1;
  int input_ = -1;
};

int runSql(const SqlOptions& options) {
  SqlViews views;
  const std::vector<std::string> names = namesOfRuns(options.folders);
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string& folder = options.folders[i];
    const recording::RecordingReader reader(Path::fromNarrow(folder));
    views.add(names[i], folder, reader,
              distinctSignals(chosenSignals(reader, options.signals, folder)));
  }
  const std::string text = views.text(options.query);
  if (options.query.empty()) {
    Output out;
    out.print("{}", text);
    out.flush();
    return 0;
  }
  DuckDb duckDb(options.format);
  duckDb.run(text);
  // The line feed ends a comment.
  duckDb.run(options.query + "\n;\n");
  return duckDb.finish() ? 0 : 1;
}

}  // namespace

void addSqlCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("sql", "Query recordings with DuckDB");
  const auto options = std::make_shared<SqlOptions>();
  command->add_option("FOLDER", options->folders, "Recordings")->required()->type_name("");
  command
      ->add_option("--signal", options->signals,
                   "Only this signal, or those that match a pattern; may be given repeatedly")
      ->type_name("NAME")
      ->allow_extra_args(false);
  auto* query = command
                    ->add_option("-c,--command", options->query,
                                 "Run a query with the program duckdb, and print the result")
                    ->type_name("QUERY")
                    ->check(CLI::Validator(
                        [](const std::string& text) {
                          return text.empty() ? std::string("give a query") : std::string();
                        },
                        ""));
  command->add_option("--format", options->format, "Format of the result")
      ->type_name("FORMAT")
      ->check(oneOf({"table", "csv", "json", "markdown"}))
      ->needs(query);
  command->footer(R"help(
Prints SQL that gives DuckDB views of the recordings, which read their files where they are:
  one for each signal, under its name: run, time, value; shape, too, for matrices of any size
  samples    run, id, signal, time, value of all scalar numbers, as float64
  table_1    and so on, one for each time vector: run, time, and a column for each signal;
             up to 500 signals share a table
  signals    a table: name, unit, description, type, rows and times of each signal, and the names
             of the views that have it
What several recordings have alike is one view; run is the name of the folder. Numbers of different
types become float64 there if one of them is floating-point.
DuckDB takes upper and lower case as equal. Names that differ in nothing else get their unit or id
behind them, and so do signals called run, time, samples, signals or table_1.
DuckDB compares nothing with checksums: kyr verify does.

Examples:
  kyr sql run > views.sql
  kyr sql run -c 'select max(value) from speed'
  kyr sql run run42 -c 'select run, avg(value) from torque group by run' --format csv)help");
  setAction(*command, action, options, runSql);
}

}  // namespace kyr::tool

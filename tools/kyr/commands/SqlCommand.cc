#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Files.h"
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

// Runs DuckDB, which reads the statements from its standard input.
class DuckDb {
 public:
  explicit DuckDb(const std::string& format) {
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) throwError("a pipe");
    input_ = pipe[1];
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, pipe[0], STDIN_FILENO);
    std::vector<std::string> words{"duckdb", "-bail", "-batch"};
    if (format != "table") words.push_back("-" + format);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    errno = ::posix_spawnp(&process_, "duckdb", &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[0]);
    if (errno == 0) return;
    ::close(input_);
    throwError("duckdb, which has to be installed for --command, cannot be run");
  }
  ~DuckDb() {
    if (input_ >= 0) ::close(input_);
    if (process_ > 0) ::waitpid(process_, nullptr, 0);
  }
  DuckDb(const DuckDb&) = delete;
  DuckDb& operator=(const DuckDb&) = delete;

  void run(std::string_view statements) {
    while (!statements.empty()) {
      const ssize_t written = ::write(input_, statements.data(), statements.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return;  // it has ended, and said why
      statements.remove_prefix(static_cast<std::size_t>(written));
    }
  }

  /// \return whether all statements were right
  bool finish() {
    ::close(std::exchange(input_, -1));
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  [[noreturn]] static void throwError(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
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
    views.add(names[i], folder, reader, chosenSignals(reader, options.signals, folder));
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
                   "Only this signal, or those that match a pattern; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  auto* query = command
                    ->add_option("-c,--command", options->query,
                                 "Run a query with the program duckdb, and print the result")
                    ->type_name("QUERY");
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
  signals    a table: name, unit, description, type, rows and times of each signal
What several recordings have alike is one view; run is the name of the folder. DuckDB takes upper
and lower case as equal; names that differ in nothing else get their unit or id behind them. DuckDB
compares nothing with checksums: kyr verify does.

Examples:
  kyr sql run > views.sql
  kyr sql run -c 'select max(value) from speed'
  kyr sql run run42 -c 'select run, avg(value) from torque group by run' --format csv)help");
  setAction(*command, action, options, runSql);
}

}  // namespace kyr::tool

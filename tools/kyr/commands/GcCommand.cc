#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Files.h"
#include "cli/Output.h"
#include "cli/RecordingFolder.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/WorkingFolder.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

struct GcOptions {
  std::string folder;
  bool isStale = false;
  bool isDry = false;
};

// Removes things, and says what it removes.
class Collector {
 public:
  Collector(Output& out, bool isDry) : out_(out), isDry_(isDry) {}

  // A folder with all that is in it.
  void collect(const fs::path& folder) {
    const std::uint64_t bytes = bytesBelow(folder);
    if (!isDry_) fs::remove_all(folder);
    note(folder.string(), bytes);
  }

  void collectUnused(const Path& folder) {
    for (const recording::Leftover& file : recording::collectUnusedFiles(folder, isDry_)) {
      const std::string name = file.path.toNarrow();
      file.inTheWay.empty() ? note(name, file.bytes) : leaveAlone(name, file.inTheWay);
    }
  }

  void collect(const recording::Leftover& leftover) {
    const std::string name = leftover.path.toNarrow();
    if (!leftover.inTheWay.empty()) {
      leaveAlone(name, leftover.inTheWay);
    } else if (isDry_ || recording::removeLeftover(leftover)) {
      note(name, leftover.bytes);
    }
  }

  void leaveAlone(const std::string& name, const std::string& reason) {
    out_.print("left alone {}: {}\n", name, reason);
  }

  void printSum(const std::string& folder) {
    out_.print("{}: {} {}, {}\n", folder, verb(), counted(count_, "item"), byteCount(bytes_));
  }

 private:
  const char* verb() const { return isDry_ ? "would remove" : "removed"; }

  void note(const std::string& name, std::uint64_t bytes) {
    out_.print("{} {}: {}\n", verb(), name, byteCount(bytes));
    ++count_;
    bytes_ += bytes;
  }

  Output& out_;
  bool isDry_;
  std::size_t count_ = 0;
  std::uint64_t bytes_ = 0;
};

std::vector<recording::Leftover> leftovers(const Path& folder) {
  auto found = recording::findLeftovers(folder);
  for (auto& leftover : recording::findTemporaryLeftovers()) found.push_back(std::move(leftover));
  return found;
}

// What `kyr record --force` left when it was killed. It is useless only if another recording has
// taken the place of the old one.
void collectReplaced(const std::string& folder, Collector& collector) {
  for (const fs::path& replaced : replacedRecordings(folder)) {
    if (isRecording(folder)) {
      collector.collect(replaced);
    } else {
      collector.leaveAlone(replaced.string(),
                           "it is the recording that was in " + folder + ": rename it to keep it");
    }
  }
}

int runGc(const GcOptions& options) {
  const Path path = Path::fromNarrow(options.folder);
  Output out;
  Collector collector(out, options.isDry);
  // An import or a save that was killed may have left folders beside a recording that never was.
  if (!options.isStale || fs::exists(path.toFilesystem())) collector.collectUnused(path);
  if (options.isStale) {
    for (const recording::Leftover& leftover : leftovers(path)) collector.collect(leftover);
    collectReplaced(options.folder, collector);
  }
  collector.printSum(options.folder);
  out.flush();
  return 0;
}

}  // namespace

void addGcCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("gc", "Remove files that a recording does not need");
  const auto options = std::make_shared<GcOptions>();
  addRecordingArgument(*command, options->folder);
  command->add_flag(
      "--stale", options->isStale,
      "Also remove what commands that were killed left beside the recording and among "
      "temporary files");
  command->add_flag("-n,--dry-run", options->isDry,
                    "Say what would be removed, and remove nothing");
  command->footer(R"help(
Removes files in FOLDER/storage that recording.json does not name, and says which. Nothing else in
the folder is touched, and nothing to which a symbolic link leads. Files that kyr did not make are
left alone. A recording that is still being written is refused.

With --stale, FOLDER need not exist. These folders are removed as well: FOLDER.saving-* and
FOLDER.importing-*, and in the folder for temporary files kyr-* and empty parquetStorage_*. So is
the old recording in FOLDER.replaced-* if FOLDER holds a recording. Folders that a process uses are
left alone, and those that hold anything that kyr did not make; symbolic links are not followed.
Older versions of kyr do not lock FOLDER.saving-*: none of them must be saving the recording
meanwhile.

Examples:
  kyr gc run --dry-run
  kyr gc run --stale)help");
  setAction(*command, action, options, runGc);
}

}  // namespace kyr::tool

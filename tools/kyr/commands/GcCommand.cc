#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Files.h"
#include "cli/Output.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingInfo.h"
#include "kyr/recording/WorkingFolder.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

struct GcOptions {
  std::string folder;
  bool isStale = false;
  bool isDry = false;
};

// Files in the storage that belong to no signal.
std::vector<fs::path> strayFiles(const fs::path& folder, const recording::RecordingInfo& info) {
  std::set<std::string> named;
  for (const recording::FileInfo& file : info.files) named.insert(std::to_string(file.storageId));
  for (const recording::PackInfo& pack : info.packs) {
    named.insert("pack-" + std::to_string(pack.number) + ".parquet");
  }
  std::vector<fs::path> strays;
  for (const auto& entry : fs::directory_iterator(folder / "storage")) {
    const bool isFile = fs::is_regular_file(entry.symlink_status());
    if (isFile && named.count(entry.path().filename().string()) == 0) {
      strays.push_back(entry.path());
    }
  }
  std::sort(strays.begin(), strays.end());
  return strays;
}

// Removes things, and says what it removes.
class Collector {
 public:
  Collector(Output& out, bool isDry) : out_(out), isDry_(isDry) {}

  void collect(const fs::path& stray) {
    const std::uint64_t bytes = fs::file_size(stray);
    if (!isDry_) fs::remove(stray);
    note(stray.string(), bytes);
  }

  void collect(const recording::Leftover& leftover) {
    const std::string name = leftover.path.toNarrow();
    if (!leftover.inTheWay.empty()) {
      out_.print("left alone {}: {}\n", name, leftover.inTheWay);
    } else if (isDry_ || recording::removeLeftover(leftover)) {
      note(name, leftover.bytes);
    }
  }

  std::size_t count() const { return count_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  void note(const std::string& name, std::uint64_t bytes) {
    out_.print("{} {}: {}\n", isDry_ ? "would remove" : "removed", name, byteCount(bytes));
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

int runGc(const GcOptions& options) {
  const Path path = Path::fromNarrow(options.folder);
  const fs::path folder = path.toFilesystem();
  Output out;
  Collector collector(out, options.isDry);
  // An import or a save that was killed may have left folders beside a recording that never was.
  if (!options.isStale || fs::exists(folder)) {
    // Refuses recordings that are being written.
    const recording::RecordingInfo info = recording::describeRecording(path);
    for (const fs::path& stray : strayFiles(folder, info)) collector.collect(stray);
  }
  if (options.isStale) {
    for (const recording::Leftover& leftover : leftovers(path)) collector.collect(leftover);
  }
  out.print("{}: {}, {}\n", options.folder, counted(collector.count(), "stray"),
            byteCount(collector.bytes()));
  out.flush();
  return 0;
}

}  // namespace

void addGcCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("gc", "Remove files that a recording does not need");
  const auto options = std::make_shared<GcOptions>();
  addRecordingArgument(*command, options->folder);
  command->add_flag("--stale", options->isStale,
                    "Also remove what imports and saves that were killed left beside the recording "
                    "and among temporary files");
  command->add_flag("--dry-run", options->isDry, "Say what would be removed, and remove nothing");
  command->footer(R"help(
Removes files in FOLDER/storage that recording.json does not name, and says which. Nothing else in
the folder is touched. A recording that is still being written is refused.

With --stale, FOLDER need not exist. These folders are removed as well: FOLDER.saving-* and
FOLDER.importing-*, and in the folder for temporary files kyr-* and empty parquetStorage_*. Those
that a process uses are left alone, and those that hold anything that kyr did not make; symbolic
links are not followed. Older versions of kyr do not lock FOLDER.saving-*: none of them must be
saving the recording meanwhile.

Examples:
  kyr gc run --dry-run
  kyr gc run --stale)help");
  setAction(*command, action, options, runGc);
}

}  // namespace kyr::tool

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

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

struct GcOptions {
  std::string folder;
  bool stale = false;
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
  return strays;
}

// Folders that killed saves left beside the recording.
std::vector<fs::path> staleFolders(const fs::path& folder) {
  const fs::path whole = wholePath(fs::weakly_canonical(fs::absolute(folder)).string());
  const std::string prefix = whole.filename().string() + ".saving-";
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(whole.parent_path())) {
    const std::string name = entry.path().filename().string();
    if (name.compare(0, prefix.size(), prefix) == 0 && fs::is_directory(entry.symlink_status())) {
      found.push_back(entry.path());
    }
  }
  return found;
}

int runGc(const GcOptions& options) {
  const Path path = Path::fromNarrow(options.folder);
  const fs::path folder = path.toFilesystem();
  // This refuses recordings that are being written.
  const recording::RecordingInfo info = recording::describeRecording(path);
  std::vector<fs::path> garbage = strayFiles(folder, info);
  if (options.stale) {
    for (fs::path& stale : staleFolders(folder)) garbage.push_back(std::move(stale));
  }
  std::sort(garbage.begin(), garbage.end());
  Output out;
  std::uint64_t bytes = 0;
  for (const fs::path& item : garbage) {
    const std::uint64_t size = bytesBelow(item);
    if (!options.isDry) fs::remove_all(item);
    bytes += size;
    out.print("{} {}: {}\n", options.isDry ? "would remove" : "removed", item.string(),
              byteCount(size));
  }
  out.print("{}: {}, {}\n", options.folder, counted(garbage.size(), "stray"), byteCount(bytes));
  out.flush();
  return 0;
}

}  // namespace

void addGcCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("gc", "Remove files that a recording does not need");
  const auto options = std::make_shared<GcOptions>();
  addRecordingArgument(*command, options->folder);
  command->add_flag("--stale", options->stale,
                    "Also remove the folders FOLDER.saving-* that killed saves left. Nobody may be "
                    "saving the recording meanwhile");
  command->add_flag("--dry-run", options->isDry, "Say what would be removed, and remove nothing");
  command->footer(R"help(
Removes files in FOLDER/storage that recording.json does not name, and says which. Nothing else in
the folder is touched. A recording that is still being written is refused.

Examples:
  kyr gc run --dry-run
  kyr gc run --stale)help");
  setAction(*command, action, options, runGc);
}

}  // namespace kyr::tool

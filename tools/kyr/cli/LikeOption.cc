#include "cli/LikeOption.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <system_error>
#include <utility>

#include "cli/Errors.h"
#include "cli/Text.h"

namespace kyr::tool {

void addLikeOption(CLI::App& command, std::string& folder) {
  command
      .add_option("--like", folder,
                  "Share the files of what is equal with this recording, as kyr dedup does")
      ->type_name("FOLDER");
}

LikeOption::LikeOption(std::string like, std::string folder)
    : like_(std::move(like)), folder_(std::move(folder)) {
  if (like_.empty()) return;
  std::error_code ignored;
  if (std::filesystem::equivalent(like_, folder_, ignored)) {
    throw UsageError("--like: " + like_ + " is the recording that is to be made");
  }
  deduplicator_.add(Path::fromNarrow(like_));
}

std::string LikeOption::share() {
  if (like_.empty()) return "";
  const auto report = deduplicator_.deduplicate(Path::fromNarrow(folder_));
  if (!report.leftAlone.empty()) {
    return fmt::format("{}: shares no file with {}: {}\n", folder_, like_, report.leftAlone);
  }
  return fmt::format("{}: shares {} of {} with {}, {} saved\n", folder_,
                     grouped(report.sharedContents), counted(report.contents, "content"), like_,
                     byteCount(report.savedBytes));
}

}  // namespace kyr::tool

#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "cli/Interrupt.h"

namespace kyr::tool {

/// A new file or folder. It is written under a temporary name beside its own and renamed when it is
/// whole, so that nobody ever sees a part of it. The destructor removes it unless it was published.
///
/// If the process is killed in between, `<name>.exporting-*` is left, with a long name cut. It can
/// be deleted. A second interrupt removes a file, but does not shorten the removal of a folder.
class PendingOutput {
 public:
  enum class Kind { file, folder };

  /// \param replaces  whether to replace a file of that name, or a folder of partitions
  /// \throws std::runtime_error if it could not be made or published; nothing is made then
  PendingOutput(std::string name, Kind kind, bool replaces);
  ~PendingOutput();
  PendingOutput(const PendingOutput&) = delete;
  PendingOutput& operator=(const PendingOutput&) = delete;

  /// Where to write: an empty folder or file.
  const std::filesystem::path& path() const { return pending_; }

  /// Flushes it to disk and gives it its name, in one step.
  /// \throws std::runtime_error if the name was taken meanwhile, or the disk fails
  void publish();

 private:
  void make();
  void checkTarget() const;
  void keepMode() const;
  void publishNew();
  void replace();

  std::string name_;
  Kind kind_;
  bool replaces_;
  std::filesystem::path target_;
  std::filesystem::path pending_;
  std::optional<UnfinishedOutput> unfinished_;
};

}  // namespace kyr::tool

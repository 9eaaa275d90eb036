#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "cli/Interrupt.h"

namespace kyr::tool {

/// A new file or folder, written under another name beside its own and renamed when it is whole, so
/// that nobody ever sees a part of it. Unless it is published, it is removed with the object.
///
/// Killed in between, `<name>.exporting-*` is left, which can be deleted; a long name is cut there. A
/// second interrupt removes the file, and does not shorten the removal of a folder.
class PendingOutput {
 public:
  enum class Kind { file, folder };

  /// \param replaces  whether a file of that name is replaced, or a folder that holds nothing but
  ///         partitions
  /// \throws std::runtime_error if it could not be made or published; nothing is made then
  PendingOutput(std::string name, Kind kind, bool replaces);
  ~PendingOutput();
  PendingOutput(const PendingOutput&) = delete;
  PendingOutput& operator=(const PendingOutput&) = delete;

  /// Where to write: an empty folder or file.
  const std::filesystem::path& path() const { return pending_; }

  /// Flush it to disk and give it its name, in one step.
  /// \throws std::runtime_error if another has taken the name meanwhile, or the disk fails
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

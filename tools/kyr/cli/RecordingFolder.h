#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// The folder in which a command makes a new recording.
namespace kyr::tool {

/// Whether the folder holds a recording, finished or not.
bool isRecording(const std::filesystem::path& folder);

/// To be called before the work, so that the user need not wait for the refusal.
/// \param replaces  whether an older recording may be replaced
/// \throws UsageError, std::runtime_error if no recording can be made there
void checkNewRecording(const std::string& folder, bool replaces);

/// The same for commands that save a finished recording, which takes the place of no other than a
/// finished one.
void checkSavedRecording(const std::string& folder, bool replaces);

/// The older recordings that processes left beside \p folder when they were killed while a
/// ReplacedRecording lived.
std::vector<std::filesystem::path> replacedRecordings(const std::string& folder);

/// An older recording that gives way to a new one in the same folder. It keeps another name until
/// the new one has begun.
class ReplacedRecording {
 public:
  /// Moves the recording aside, if the folder has one.
  /// \throws std::runtime_error if the folder holds other files, or its recording is being written
  explicit ReplacedRecording(const std::string& folder);

  /// Moves the recording back unless it was removed.
  ~ReplacedRecording();
  ReplacedRecording(const ReplacedRecording&) = delete;
  ReplacedRecording& operator=(const ReplacedRecording&) = delete;

  void remove();

  /// Moves the recording back to the place of the new one, which is removed.
  /// \return false if there is none to move back; the new one stays
  bool restore();

 private:
  std::filesystem::path folder_;
  std::filesystem::path aside_;  ///< empty if there is nothing to move back
};

}  // namespace kyr::tool

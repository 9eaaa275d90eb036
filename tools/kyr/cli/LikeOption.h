#pragma once

#include <string>

#include "kyr/recording/Deduplication.h"

namespace CLI {
class App;
}

namespace kyr::tool {

/// Adds --like to a command that makes a recording.
void addLikeOption(CLI::App& command, std::string& folder);

/// The recording of --like, whose files a new one is to share.
class LikeOption {
 public:
  /// \param like  what was given; empty if the option was not
  /// \param folder  of the new recording
  /// \throws std::runtime_error if there is no finished recording; UsageError if it is the new one
  LikeOption(std::string like, std::string folder);

  /// Lets the new recording share the files, once it is complete.
  /// \return a line on what that brought, with its line end; empty without the option
  std::string share();

 private:
  std::string like_;
  std::string folder_;
  recording::Deduplicator deduplicator_;
};

}  // namespace kyr::tool

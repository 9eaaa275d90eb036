#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kyr::tool {

/// What a command cannot carry over. It is never left out in silence: the user gets a warning, or
/// the command fails if it is strict.
class Losses {
 public:
  /// \param done  what the command does, "written"
  Losses(bool isStrict, std::string done) : isStrict_(isStrict), done_(std::move(done)) {}

  void add(std::string text) { texts_.push_back(std::move(text)); }

  /// Tells what was added since the last call.
  /// \throws std::runtime_error if there is something and the command is strict
  void settle();

 private:
  bool isStrict_;
  std::string done_;
  std::vector<std::string> texts_;
};

}  // namespace kyr::tool

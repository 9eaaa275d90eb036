#pragma once

#include <string>
#include <vector>

namespace kyr::tool {

/// What a command cannot carry over. Nothing is left out without a word: it is either a warning, or
/// the end of the command if that is strict.
class Losses {
 public:
  explicit Losses(bool isStrict) : isStrict_(isStrict) {}

  void add(std::string text) { texts_.push_back(std::move(text)); }

  /// Tell what was added since the last call.
  /// \throws std::runtime_error if there is something and it may not be
  void settle();

 private:
  bool isStrict_;
  std::vector<std::string> texts_;
};

}  // namespace kyr::tool

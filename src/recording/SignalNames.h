#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::recording {

/// Finds signals by what they are called.
class SignalNames {
 public:
  /// \param signals  must outlive the object
  explicit SignalNames(const std::vector<SignalInfo>& signals);

  /// Ids of the signals of that name, ascending.
  std::vector<int> called(const std::string& name) const;
  /// Ids of the signals whose names match a pattern (matchesPattern()), ascending.
  std::vector<int> matching(std::string_view pattern) const;
  /// The name that is most like another one; empty if none is like it.
  std::string nearest(std::string_view name) const;

 private:
  const std::vector<SignalInfo>& signals_;
  std::unordered_multimap<std::string_view, int> ids_;
};

/// Whether a name matches a pattern as in a shell: "*" stands for any characters, "?" for one,
/// "[a-z]" for one of a set, "[!a-z]" for one that is not in it; "\" takes the special meaning from
/// the next character. Both are UTF-8.
bool matchesPattern(std::string_view name, std::string_view pattern);

}  // namespace kyr::recording

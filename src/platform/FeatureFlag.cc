#include "kyr/platform/FeatureFlag.h"

#include <unordered_set>

namespace kyr {

namespace {

std::unordered_set<std::string>& enabledFlags() {
  static std::unordered_set<std::string> flags;
  return flags;
}

}  // namespace

bool FeatureFlag::isEnabled(const std::string& name) { return enabledFlags().count(name) > 0; }

void FeatureFlag::set(const std::string& name, bool enabled) {
  if (enabled) {
    enabledFlags().insert(name);
  } else {
    enabledFlags().erase(name);
  }
}

}  // namespace kyr

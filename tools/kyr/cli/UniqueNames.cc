#include "cli/UniqueNames.h"

#include <fmt/format.h>

#include "cli/Text.h"

namespace kyr::tool {

using recording::SignalInfo;

std::string withUnit(const SignalInfo& signal) {
  return fmt::format("{} [{}]", signal.name, signal.unit);
}

UniqueNames::UniqueNames(const std::vector<std::string>& taken, Letters letters)
    : letters_(letters) {
  for (const std::string& name : taken) ++uses_[key(name)];
}

void UniqueNames::add(const SignalInfo& signal) {
  ++uses_[key(signal.name)];
  ++spellings_[key(withUnit(signal))];
}

std::string UniqueNames::nameOf(const SignalInfo& signal) {
  const bool isItsAlone = !signal.name.empty() && usesOf(signal.name) == 1;
  std::string name = isItsAlone ? signal.name : withUnit(signal);
  const auto isFree = [&] {
    return given_.count(key(name)) == 0 && (isItsAlone || usesOf(name) == 0);
  };
  const bool isToldApart =
      isItsAlone || (!signal.name.empty() && !signal.unit.empty() && spellings_[key(name)] == 1);
  if (!isToldApart || !isFree()) {
    name = signal.name.empty() ? "signal" : signal.name;
    do name += fmt::format(" ({})", signal.signalId);
    while (!isFree());
  }
  given_.insert(key(name));
  return name;
}

std::string UniqueNames::key(const std::string& name) const {
  return letters_ == Letters::equalInAnyCase ? lowerCase(name) : name;
}

int UniqueNames::usesOf(const std::string& name) const {
  const auto found = uses_.find(key(name));
  return found == uses_.end() ? 0 : found->second;
}

}  // namespace kyr::tool

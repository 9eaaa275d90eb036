#include "cli/SignalSelection.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <stdexcept>

#include "cli/Text.h"
#include "csv/HeaderNames.h"

namespace kyr::tool {

using recording::SignalInfo;

const SignalInfo& signalCalled(const std::vector<SignalInfo>& all, const std::string& name,
                               const std::string& folder) {
  const SignalInfo* found = nullptr;
  for (const SignalInfo& signal : all) {
    if (signal.name != name && joinHeader(signal.name, signal.unit) != name) continue;
    if (found) {
      throw std::runtime_error(
          fmt::format("{}: the signals {} and {} are both called {}: name one "
                      "by its number",
                      folder, found->signalId, signal.signalId, inQuotes(name)));
    }
    found = &signal;
  }
  if (found) return *found;
  for (const SignalInfo& signal : all) {
    if (std::to_string(signal.signalId) == name) return signal;
  }
  throw std::runtime_error(fmt::format("{}: there is no signal {}: kyr info {} lists them", folder,
                                       inQuotes(name), folder));
}

std::vector<SignalInfo> chosenSignals(const recording::RecordingReader& reader,
                                      const std::vector<std::string>& names,
                                      const std::string& folder) {
  const std::vector<SignalInfo>& all = reader.signals();
  if (names.empty()) return all;
  std::vector<SignalInfo> signals;
  signals.reserve(names.size());
  for (const std::string& name : names) {
    const auto isCalledSo = [&](const SignalInfo& signal) {
      return signal.name == name || joinHeader(signal.name, signal.unit) == name;
    };
    const bool isPattern = name.find_first_of("*?[") != std::string::npos &&
                           std::none_of(all.begin(), all.end(), isCalledSo);
    const std::vector<int> ids = isPattern ? reader.matching(name) : std::vector<int>();
    for (const int id : ids) signals.push_back(reader.signal(id));
    if (ids.empty()) signals.push_back(signalCalled(all, name, folder));
  }
  return signals;
}

std::vector<SignalInfo> distinctSignals(std::vector<SignalInfo> signals) {
  std::set<int> ids;
  const auto isRepeated = [&](const SignalInfo& signal) {
    return !ids.insert(signal.signalId).second;
  };
  signals.erase(std::remove_if(signals.begin(), signals.end(), isRepeated), signals.end());
  return signals;
}

}  // namespace kyr::tool

#include "recording/ComparisonPairs.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "recording/SignalNames.h"

namespace kyr::recording {

namespace {

using Signals = std::vector<SignalInfo>;

// Signals that have no counterpart yet, by name and ascending id.
using NamedSignals = std::unordered_map<std::string_view, std::vector<const SignalInfo*>>;

NamedSignals byName(const Signals& signals) {
  NamedSignals all;
  for (const SignalInfo& signal : signals) all[signal.name].push_back(&signal);
  return all;
}

void requireName(const Signals& signals, const std::string& name, std::string_view where) {
  const SignalNames names(signals);
  if (!names.called(name).empty()) return;
  const std::string nearest = names.nearest(name);
  throw std::invalid_argument(
      fmt::format("no signal of the {} is called \"{}\"{}", where, name,
                  nearest.empty() ? "" : fmt::format("; one is called \"{}\"", nearest)));
}

const std::string& nameOf(const SignalPair& pair) {
  return (pair.reference ? pair.reference : pair.other)->name;
}

// Names and patterns. A name that some signal has is no pattern.
class NameFilter {
 public:
  NameFilter(const std::vector<std::string>& texts, const NamedSignals& reference,
             const NamedSignals& other) {
    for (const std::string& text : texts) {
      const bool isName = reference.count(text) + other.count(text) > 0;
      if (isName) names_.insert(text);
      if (!isName) patterns_.push_back(text);
    }
  }

  bool has(const std::string& name) const {
    return names_.count(name) > 0 ||
           std::any_of(patterns_.begin(), patterns_.end(),
                       [&](const std::string& pattern) { return matchesPattern(name, pattern); });
  }

 private:
  std::unordered_set<std::string> names_;
  std::vector<std::string> patterns_;
};

// A name that is mistyped must not make recordings equal.
void requireUse(const std::vector<std::string>& texts, const std::vector<SignalPair>& pairs) {
  for (const std::string& text : texts) {
    const auto isUsed = [&](const SignalPair& pair) {
      const std::string& name = nameOf(pair);
      return name == text || matchesPattern(name, text);
    };
    if (std::any_of(pairs.begin(), pairs.end(), isUsed)) continue;
    throw std::invalid_argument(
        fmt::format("neither recording has a signal that is called \"{}\", or matches it", text));
  }
}

// Takes the first signal with that unit, or the first one of all if no unit is given.
const SignalInfo* take(NamedSignals& signals, const std::string& name, const std::string* unit) {
  const auto found = signals.find(name);
  if (found == signals.end()) return nullptr;
  auto& candidates = found->second;
  const auto chosen = std::find_if(
      candidates.begin(), candidates.end(),
      [unit](const SignalInfo* candidate) { return unit == nullptr || candidate->unit == *unit; });
  if (chosen == candidates.end()) return nullptr;
  const SignalInfo* const signal = *chosen;
  candidates.erase(chosen);
  return signal;
}

}  // namespace

std::vector<SignalPair> pairSignals(const Signals& reference, const Signals& other,
                                    const ComparisonOptions& options) {
  for (const auto& [name, otherName] : options.otherNames) {
    requireName(reference, name, "reference");
    requireName(other, otherName, "other recording");
  }
  NamedSignals others = byName(other);
  const NamedSignals references = byName(reference);
  const NameFilter chosen(options.signals, references, others);
  const NameFilter ignored(options.ignored, references, others);
  std::vector<SignalPair> pairs;
  for (const SignalInfo& signal : reference) pairs.push_back({&signal, nullptr});
  for (const bool byUnit : {true, false}) {
    for (SignalPair& pair : pairs) {
      if (pair.other != nullptr) continue;
      const auto renamed = options.otherNames.find(pair.reference->name);
      const std::string& name =
          renamed == options.otherNames.end() ? pair.reference->name : renamed->second;
      pair.other = take(others, name, byUnit ? &pair.reference->unit : nullptr);
    }
  }
  std::unordered_set<const SignalInfo*> taken;
  for (const SignalPair& pair : pairs) taken.insert(pair.other);
  for (const SignalInfo& signal : other) {
    if (taken.count(&signal) == 0) pairs.push_back({nullptr, &signal});
  }
  requireUse(options.signals, pairs);
  const auto isLeftOut = [&](const SignalPair& pair) {
    const std::string& name = nameOf(pair);
    return (!options.signals.empty() && !chosen.has(name)) || ignored.has(name);
  };
  pairs.erase(std::remove_if(pairs.begin(), pairs.end(), isLeftOut), pairs.end());
  return pairs;
}

}  // namespace kyr::recording

#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// "speed [m/s]".
std::string withUnit(const recording::SignalInfo& signal);

/// Gives each of several signals a name of its own: its own name where no other has it, or else the
/// name with the unit, or else with the id.
class UniqueNames {
 public:
  enum class Letters { differByCase, equalInAnyCase };

  /// \param taken  names that no signal gets
  UniqueNames(const std::vector<std::string>& taken, Letters letters);

  /// Takes note of a signal. All are to be added before the first nameOf().
  void add(const recording::SignalInfo& signal);
  /// To be called once for each signal.
  std::string nameOf(const recording::SignalInfo& signal);

 private:
  std::string key(const std::string& name) const;
  int usesOf(const std::string& name) const;

  Letters letters_;
  std::map<std::string, int> uses_;
  std::map<std::string, int> spellings_;  // with units
  std::set<std::string> given_;
};

}  // namespace kyr::tool

#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace kyr::recording {

/// What is wrong with a recording, in the order in which it is told.
class Faults {
 public:
  /// \param tellsFailures  whether failures of the system are told as faults, or thrown
  explicit Faults(bool tellsFailures) : tellsFailures_(tellsFailures) {}

  bool tellsFailures() const { return tellsFailures_; }

  template <typename... Args>
  void tell(fmt::format_string<Args...> format, Args&&... args) {
    texts_.push_back(fmt::format(format, std::forward<Args>(args)...));
  }

  /// Makes what \p check throws a fault of what \p name tells.
  template <typename Name, typename Check>
  void telling(Name&& name, Check&& check) {
    try {
      check();
    } catch (const std::system_error& error) {
      if (!tellsFailures_) throw;
      tell("{}: {}", name(), error.what());
    } catch (const std::exception& error) {
      tell("{}: {}", name(), error.what());
    }
  }

  void add(Faults& later) {
    std::move(later.texts_.begin(), later.texts_.end(), std::back_inserter(texts_));
    later.texts_.clear();
  }

  std::vector<std::string> take() { return std::move(texts_); }

 private:
  bool tellsFailures_;
  std::vector<std::string> texts_;
};

}  // namespace kyr::recording

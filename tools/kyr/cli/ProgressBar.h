#pragma once

#include <chrono>
#include <string>

namespace kyr::tool {

/// A line on standard error that shows how far long work is. Nothing is shown during the first
/// second, or if standard error is no terminal.
class ProgressBar {
 public:
  ProgressBar();
  ~ProgressBar() { hide(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// \param what  "reading"
  /// \param part  the part of the work that is done, from 0 to 1
  void show(const char* what, double part);

  /// Removes the line until it is shown again.
  void hide();

 private:
  using Clock = std::chrono::steady_clock;

  bool isTerminal_;
  bool isShown_ = false;
  Clock::time_point next_;
};

}  // namespace kyr::tool

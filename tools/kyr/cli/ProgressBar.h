#pragma once

#include <chrono>
#include <string>

namespace kyr::tool {

/// A line on standard error that shows how far long work is. Nothing is shown if standard error is
/// no terminal, and during the first second.
class ProgressBar {
 public:
  ProgressBar();
  ~ProgressBar() { hide(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// \param what  "reading"
  /// \param part  that is done, from 0 to 1
  void show(const char* what, double part);

  /// Wipe the line away, until it is shown again.
  void hide();

 private:
  using Clock = std::chrono::steady_clock;

  bool isTerminal_;
  bool isShown_ = false;
  Clock::time_point next_;
};

}  // namespace kyr::tool

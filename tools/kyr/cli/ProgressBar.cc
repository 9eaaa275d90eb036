#include "cli/ProgressBar.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kyr::tool {

ProgressBar::ProgressBar()
    : isTerminal_(isatty(STDERR_FILENO) != 0), next_(Clock::now() + std::chrono::seconds(1)) {}

void ProgressBar::hide() {
  if (isShown_) std::fputs("\r\x1b[K", stderr);
  isShown_ = false;
}

void ProgressBar::show(const char* what, double part) {
  if (!isTerminal_ || Clock::now() < next_) return;
  next_ = Clock::now() + std::chrono::milliseconds(100);
  isShown_ = true;
  constexpr int kWidth = 40;
  const double bounded = std::clamp(part, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(bounded * kWidth);
  const std::string line = fmt::format("\r\x1b[K{:<8} [{:<{}}] {:3.0f}%", what,
                                       std::string(filled, '#'), kWidth, bounded * 100);
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace kyr::tool

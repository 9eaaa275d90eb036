#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "kyr/recording/RecordingReader.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kyr::tool {

/// The rows that a command takes have times in [from, to] and numbers in [firstRow, endRow).
struct Window {
  double from = -std::numeric_limits<double>::infinity();
  double to = std::numeric_limits<double>::infinity();
  std::uint64_t firstRow = 0;
  std::uint64_t endRow = std::numeric_limits<std::uint64_t>::max();
  /// Only the first or the last ones of these rows are taken.
  std::optional<std::uint64_t> head;
  std::optional<std::uint64_t> tail;

  bool hasAllTimes() const;
  bool isIn(double time) const { return hasAllTimes() || (time >= from && time <= to); }
};

/// What the user gave.
struct WindowOptions {
  std::optional<double> from;
  std::optional<double> to;
  std::string rows;
};

/// Adds --from and --to.
void addTimeOptions(CLI::App& command, WindowOptions& options);

/// Adds --from, --to and --rows.
/// \return --rows
CLI::Option* addWindowOptions(CLI::App& command, WindowOptions& options);

/// \throws UsageError if the window is empty, or is no window
Window windowOf(const WindowOptions& options);

}  // namespace kyr::tool

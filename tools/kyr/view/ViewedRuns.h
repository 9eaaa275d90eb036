#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// A part of a signal of one of the recordings.
struct ViewedSignal {
  std::size_t run = 0;
  int id = 0;
  std::uint64_t element = 0;
};

/// [from, to] in so many columns.
struct ViewedWindow {
  double from = 0;
  double to = 0;
  std::size_t columns = 0;
};

/// The recordings that a page shows, in the form in which it gets them. Any number of threads may
/// ask. What goes wrong with a recording is a standard exception.
class ViewedRuns {
 public:
  ViewedRuns(const std::vector<std::string>& folders, Links links);

  /// Names of all recordings, and for each its signals, state and revision.
  nlohmann::ordered_json runs();
  /// State, revision and span of each recording, after live ones were refreshed, and the fault of
  /// one that can be read no more.
  nlohmann::ordered_json states();

  /// The number of rows in the window and 0, and then times and values of the points to draw, as
  /// float64 of this machine.
  std::string points(const ViewedSignal& signal, const ViewedWindow& window);
  /// Spans of equal values.
  nlohmann::ordered_json spans(const ViewedSignal& signal, const ViewedWindow& window);
  /// The number of rows in the window, 1 if the times of the signals differ and 0 otherwise, and
  /// then pairs of their values as float64; see pairsOf().
  std::string pairs(const ViewedSignal& x, const ViewedSignal& y, const ViewedWindow& window);
  /// The number of rows in [from, to], and behind it their times and values unless they are more
  /// than 1,000,000, as float64.
  std::string rows(const ViewedSignal& signal, double from, double to);

 private:
  struct LockedReader {
    LockedReader(const std::string& folder, Links links);

    std::mutex mutex;
    recording::RecordingReader reader;
  };
  // Signals are spread over several readers, so that threads need not wait for each other.
  struct Run {
    Run(std::string folder, std::string shownName, Links links);
    LockedReader& readerFor(int id);

    std::string folder;
    std::string name;
    std::deque<LockedReader> readers;
    std::atomic<std::uint64_t> revision = 0;
  };

  Run& run(std::size_t index);

  std::deque<Run> runs_;
};

}  // namespace kyr::tool

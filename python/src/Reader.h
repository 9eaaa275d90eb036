#pragma once

#include <nanobind/nanobind.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "ForkLock.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::python {

/// \brief A RecordingReader that any number of Python's threads may use, one after the other.
class Reader {
 public:
  Reader(const nanobind::bytes& folder, bool checks, bool followsLinks);

  /// \brief Runs \p action on the reader, without the interpreter's lock.
  /// \throws ClosedError after close()
  template <typename Action>
  auto use(Action&& action) {
    const nanobind::gil_scoped_release release;
    const std::lock_guard guard(lock_.mutex());
    return std::forward<Action>(action)(open());
  }

  void close();
  bool isClosed();
  /// \brief Takes note of what a live recording got. True if anything is new.
  bool refresh();
  /// \brief How often refresh() found anything new.
  std::uint64_t changes();

 private:
  recording::RecordingReader& open();

  std::string folder_;
  ForkLock lock_;
  std::optional<recording::RecordingReader> reader_;
  std::uint64_t changes_ = 0;
};

/// \brief The first of the signals that share the times of signal \p id; itself without times.
int timesId(const recording::RecordingReader& reader, int id);

}  // namespace kyr::python

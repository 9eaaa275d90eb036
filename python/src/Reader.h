#pragma once

#include <nanobind/nanobind.h>

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
  Reader(const nanobind::bytes& folder, bool checks);

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

 private:
  recording::RecordingReader& open();

  std::string folder_;
  ForkLock lock_;
  std::optional<recording::RecordingReader> reader_;
};

}  // namespace kyr::python

#pragma once

#include <cstdint>
#include <mutex>

namespace kyr::python {

/// \brief The lock of one Python object, which os.fork() leaves in order.
///
/// A fork waits until no other thread holds such a lock. So the child finds every object between
/// two calls, never in the middle of one.
///
/// Never wait for it with the interpreter's lock taken: the thread that has it may wait for that
/// one.
class ForkLock {
 public:
  ForkLock();
  ~ForkLock();
  ForkLock(const ForkLock&) = delete;
  ForkLock& operator=(const ForkLock&) = delete;

  std::mutex& mutex() { return mutex_; }

  /// \brief Whether this process is not the one that made the object.
  bool isOfParent() const;

 private:
  std::mutex mutex_;
  std::uint64_t forks_;
};

}  // namespace kyr::python

#include "ForkLock.h"

#include <pthread.h>

#include <atomic>
#include <set>

namespace kyr::python {

namespace {

// Forks between the first process and this one.
std::atomic<std::uint64_t> forks{0};

class Locks {
 public:
  static Locks& all() {
    // Never destroyed: objects may outlive the destructors of globals.
    static Locks* const locks = new Locks;
    return *locks;
  }

  void add(std::mutex* lock) {
    const std::lock_guard guard(mutex_);
    locks_.insert(lock);
  }
  void remove(std::mutex* lock) {
    const std::lock_guard guard(mutex_);
    locks_.erase(lock);
  }

 private:
  Locks() {
    pthread_atfork([] { all().lock(); }, [] { all().unlock(); },
                   [] {
                     ++forks;
                     all().unlock();
                   });
  }

  void lock() {
    mutex_.lock();
    for (std::mutex* lock : locks_) lock->lock();
  }
  void unlock() {
    for (std::mutex* lock : locks_) lock->unlock();
    mutex_.unlock();
  }

  std::mutex mutex_;
  std::set<std::mutex*> locks_;
};

}  // namespace

ForkLock::ForkLock() : forks_(forks) { Locks::all().add(&mutex_); }
ForkLock::~ForkLock() { Locks::all().remove(&mutex_); }

bool ForkLock::isOfParent() const { return forks_ != forks; }

}  // namespace kyr::python

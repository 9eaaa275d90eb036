#pragma once

#include <cstddef>
#include <functional>

/// Work in several threads at once.
namespace kyr {

/// How many threads can compute at the same time; at least 1.
std::size_t coreCount();

/// How many threads read \p count files at the same time. Each has files open, of which the process
/// may have few, and beyond some threads all wait for the disk or for memory.
std::size_t threadsForFiles(std::size_t count);

/// How many threads wait for a disk at the same time, where \p count files are to be synced. A file
/// system writes one journal entry for many files that are synced together.
std::size_t threadsForSyncing(std::size_t count);

/// Calls work() in this thread and, at the same time, in up to \p threads - 1 others. All calls
/// have returned when this one does. Where the system cannot make a thread, fewer threads work.
///
/// The first exception that a call throws is thrown again here.
void runInThreads(std::size_t threads, const std::function<void()>& work);

/// Calls work(i, thread) once for each i below \p count, in up to \p threads threads. \p thread is
/// a number below \p threads that no other call has at the same time, for memory of its own.
///
/// After a call has thrown an exception, no new call begins, and the exception is thrown again
/// here.
void forEachInThreads(std::size_t count, std::size_t threads,
                      const std::function<void(std::size_t, std::size_t)>& work);

}  // namespace kyr

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Store.h"

/// One phase of one store with one workload, as a line of JSON on standard output:
///   PROGRAM STORE WORKLOAD write|read|window FOLDER SCALE
///   PROGRAM list     (which workloads each store takes)
namespace kyr::compare {

namespace {

using Json = nlohmann::json;

double processorSeconds() {
  struct timespec time {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// A line of /proc/self/status, in bytes.
double memoryStatus(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    double kibibytes = 0;
    if (word == name + ":" && status >> kibibytes) return kibibytes * 1024;
  }
  throw std::runtime_error("/proc/self/status does not tell " + name);
}

struct Times {
  Times& operator+=(const Times& other) {
    elapsed += other.elapsed;
    cpu += other.cpu;
    return *this;
  }

  double elapsed = 0;
  double cpu = 0;
};

Json toJson(const Times& times) { return {{"elapsed", times.elapsed}, {"cpu", times.cpu}}; }

template <typename Work>
Times timed(Work&& work) {
  const double cpu = processorSeconds();
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return {elapsed.count(), processorSeconds() - cpu};
}

// Uses free memory and gives it back. A virtual machine may have left it to its host, and the work
// would then pay for getting it again, now and then.
void warmMemory(std::size_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  for (std::size_t at = 0; at < size; at += 4096) static_cast<volatile char*>(memory)[at] = 1;
  munmap(memory, size);
}

// Lets a child process write it all once, and gives the disk back: the pages of the files that will
// be written are in use then, as the memory is, and the child's memory is not this process's.
void writeInChild(const StoreFactory& make, const Workload& workload, const Data& data,
                  const fs::path& folder) {
  fs::create_directories(folder / "stored");
  const pid_t child = fork();
  if (child == 0) {
    try {
      make(folder).release()->write(workload, data);
    } catch (const std::exception&) {
      _exit(1);  // the parent fails as well, and says why
    }
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) fs::resize_file(entry.path(), 0);
  }
}

// With the memory that the work took at its peak, beyond what the process had before.
template <typename Work>
Json measured(Work&& work) {
  std::ofstream("/proc/self/clear_refs") << 5;  // the peak begins anew
  const double before = memoryStatus("VmRSS");
  Json result = toJson(timed(work));
  result["memory"] = memoryStatus("VmHWM") - before;
  return result;
}

void compare(const Bytes& read, const char* expected, std::size_t size, const std::string& what) {
  if (read.size() != size) {
    throw std::runtime_error(what + ": " + std::to_string(read.size()) + " bytes, expected " +
                             std::to_string(size));
  }
  if (std::memcmp(read.data(), expected, size) != 0) {
    throw std::runtime_error(what + ": other values were read than written");
  }
}

void compareAll(const Workload& workload, const ReadBack& values) {
  const auto time = makeTime(workload);
  compare(values.time, reinterpret_cast<const char*>(time.data()), time.size() * sizeof(double),
          "time");
  for (std::size_t i = 0; i < workload.signals; ++i) {
    const auto expected = makeSignal(workload, i);
    compare(values.signals[i], expected.data(), expected.size(), "signal " + std::to_string(i));
  }
}

Times median(std::vector<Times> times) {
  Times result;
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  for (double Times::*member : {&Times::elapsed, &Times::cpu}) {
    std::nth_element(times.begin(), middle, times.end(),
                     [&](const Times& a, const Times& b) { return a.*member < b.*member; });
    result.*member = (*middle).*member;
  }
  return result;
}

struct Window {
  std::size_t signal;
  std::size_t from;
  std::vector<char> expected;
  bool isFirst;  // of its signal, so that it opens the file
};

// Windows around the middle of each signal.
std::vector<Window> makeWindows(const Workload& workload) {
  constexpr std::size_t kOfEachSignal = 6;
  std::vector<Window> windows;
  for (std::size_t signal = 0; signal < workload.signals; ++signal) {
    const auto values = makeSignal(workload, signal);
    for (std::size_t i = 0; i < kOfEachSignal; ++i) {
      const std::size_t from = (workload.rows - workload.windowRows) / 2 +
                               (7919 * i + 37 * signal) % (workload.rows / 4);
      const char* first = &values[from * workload.sampleSize()];
      windows.push_back(
          {signal, from, {first, first + workload.windowRows * workload.sampleSize()}, i == 0});
    }
  }
  return windows;
}

Json readWindows(const Workload& workload, Store& store) {
  const std::vector<Window> windows = makeWindows(workload);
  store.openWindows(workload);
  std::vector<Times> opened;
  std::vector<Times> known;
  Bytes values;
  for (const Window& window : windows) {
    if (window.isFirst) store.closeWindow();
    (window.isFirst ? opened : known).push_back(timed([&] {
      store.readWindow(window.signal, window.from, workload.windowRows, values);
    }));
    compare(values, window.expected.data(), window.expected.size(),
            "window of signal " + std::to_string(window.signal));
  }
  return {{"opened", toJson(median(opened))}, {"known", toJson(median(known))}};
}

// The last rows that were flushed of one signal after the other, while all are recorded once more.
Json readLiveWindows(const Workload& workload, LiveStore& store) {
  constexpr std::size_t kFlushesBetween = 5;
  const Data data(workload);
  std::vector<Times> refreshed;
  std::vector<Times> opened;
  std::vector<Times> known;
  Bytes values;
  const auto readWindow = [&](std::size_t signal, std::size_t end) {
    const std::size_t from = end - workload.windowRows;
    const Times taken = timed([&] { store.readWindow(signal, from, workload.windowRows, values); });
    compare(values, &data.signals[signal][from * workload.sampleSize()],
            workload.windowRows * workload.sampleSize(),
            "window of signal " + std::to_string(signal) + " up to row " + std::to_string(end));
    return taken;
  };
  store.start(workload);
  store.appendAll(workload, data, [&](std::size_t rows) {
    store.flush();
    const std::size_t flushes = rows / workload.flushRows;
    if (rows <= workload.windowRows || flushes % kFlushesBetween != 0) return;
    refreshed.push_back(timed([&] { store.refresh(); }));
    const std::size_t signal = 37 * flushes % workload.signals;
    opened.push_back(readWindow(signal, rows));
    known.push_back(readWindow(signal, rows - workload.flushRows / 2));
  });
  return {{"refresh", toJson(median(refreshed))},
          {"opened", toJson(median(opened))},
          {"known", toJson(median(known))}};
}

// With times of their own for what comes before and after the appends, and for the flushes.
Json writeLive(const Workload& workload, const Data& data, LiveStore& store) {
  Times start;
  Times append;
  Times flush;
  Times finish;
  Json result = measured([&] {
    start = timed([&] { store.start(workload); });
    append = timed([&] {
      store.appendAll(workload, data, [&](std::size_t) { flush += timed([&] { store.flush(); }); });
    });
    finish = timed([&] { store.finish(); });
  });
  result.update(toJson(append));
  result["values"] = workload.rows * workload.signals;
  result["start"] = toJson(start);
  result["flush"] = toJson(flush);
  result["finish"] = toJson(finish);
  return result;
}

Json runPhase(const Workload& workload, const std::string& phase, const StoreFactory& make,
              const fs::path& folder) {
  // Never destroyed: some stores would delete what they have written.
  Store& store = *make(folder).release();
  auto* live = dynamic_cast<LiveStore*>(&store);
  if (phase == "write") {
    const Data data(workload);
    writeInChild(make, workload, data, folder / "warm");
    if (live) return writeLive(workload, data, *live);
    Json result = measured([&] { store.write(workload, data); });
    result["values"] = workload.rows * data.columns();
    store.leave();
    return result;
  }
  if (phase == "read") {
    ReadBack values;
    values.signals.resize(workload.signals);
    warmMemory(3 * workload.signals * workload.rows * workload.sampleSize());
    Json result = measured([&] { store.read(workload, values); });
    compareAll(workload, values);
    store.verify(workload);
    return result;
  }
  if (phase == "window" && live) {
    const fs::path again = folder / "again";
    fs::create_directories(again / "stored");
    return readLiveWindows(workload, dynamic_cast<LiveStore&>(*make(again).release()));
  }
  if (phase == "window") return readWindows(workload, store);
  throw std::invalid_argument("no phase is called " + phase);
}

Json listStores() {
  Json result;
  for (const auto& [name, make] : stores()) {
    const auto store = make({});
    for (const std::string& workload : workloadNames()) {
      if (store->takes(findWorkload(workload, 1))) result[name].push_back(workload);
    }
  }
  return result;
}

const StoreFactory& findStore(const std::string& name, const Workload& workload) {
  const auto [first, last] = stores().equal_range(name);
  const auto found = std::find_if(
      first, last, [&](const auto& store) { return store.second({})->takes(workload); });
  if (found == last) throw std::invalid_argument(name + " does not store " + workload.name);
  return found->second;
}

Json run(const std::vector<std::string>& arguments) {
  if (arguments == std::vector<std::string>{"list"}) return listStores();
  if (arguments.size() != 5) throw std::invalid_argument("STORE WORKLOAD PHASE FOLDER SCALE");
  const Workload workload = findWorkload(arguments[1], std::stod(arguments[4]));
  const StoreFactory& make = findStore(arguments[0], workload);
  fs::create_directories(fs::path(arguments[3]) / "stored");
  return runPhase(workload, arguments[2], make, arguments[3]);
}

}  // namespace

}  // namespace kyr::compare

int main(int argc, char** argv) {
  try {
    const auto result = kyr::compare::run({argv + 1, argv + argc});
    std::printf("%s\n", result.dump().c_str());
    std::fflush(stdout);
    _exit(0);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    std::fflush(stderr);
    _exit(1);
  }
}

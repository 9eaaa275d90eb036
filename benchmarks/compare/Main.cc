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
  double elapsed = 0;
  double cpu = 0;
};

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
  const Times times = timed(work);
  return {
      {"elapsed", times.elapsed}, {"cpu", times.cpu}, {"memory", memoryStatus("VmHWM") - before}};
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
  const Times open = median(opened);
  const Times again = median(known);
  return {{"opened", {{"elapsed", open.elapsed}, {"cpu", open.cpu}}},
          {"known", {{"elapsed", again.elapsed}, {"cpu", again.cpu}}}};
}

Json runPhase(const Workload& workload, const std::string& phase, const StoreFactory& make,
              const fs::path& folder) {
  // Never destroyed: some stores would delete what they have written.
  Store& store = *make(folder).release();
  if (phase == "write") {
    const Data data(workload);
    writeInChild(make, workload, data, folder / "warm");
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
    return result;
  }
  if (phase == "window") return readWindows(workload, store);
  throw std::invalid_argument("no phase is called " + phase);
}

Json listStores() {
  Json result;
  for (const auto& [name, make] : stores()) {
    Json& taken = result[name] = Json::array();
    const auto store = make({});
    for (const std::string& workload : workloadNames()) {
      if (store->supports(findWorkload(workload, 1))) taken.push_back(workload);
    }
  }
  return result;
}

Json run(const std::vector<std::string>& arguments) {
  if (arguments == std::vector<std::string>{"list"}) return listStores();
  if (arguments.size() != 5) throw std::invalid_argument("STORE WORKLOAD PHASE FOLDER SCALE");
  const auto found = stores().find(arguments[0]);
  if (found == stores().end()) throw std::invalid_argument("no store is called " + arguments[0]);
  const Workload workload = findWorkload(arguments[1], std::stod(arguments[4]));
  fs::create_directories(fs::path(arguments[3]) / "stored");
  return runPhase(workload, arguments[2], found->second, arguments[3]);
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

#include "kyr/platform/TraceEventFile.h"

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

namespace kyr {

class TraceEventFile::Impl {
 public:
  explicit Impl(const Path& path) : out_(path.toFilesystem(), std::ios::trunc) {
    if (!out_) {
      throw std::runtime_error("cannot write the trace file " + path.toNarrow());
    }
    out_ << "[\n";
  }

  ~Impl() { out_ << (first_ ? "]\n" : "\n]\n"); }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  int addGroup(const std::string& name) {
    groups_.push_back(name);
    return static_cast<int>(groups_.size()) - 1;
  }

  void log(int group, const std::string& label, int phase) {
    using std::chrono::duration;
    using std::chrono::steady_clock;
    const double now = duration<double, std::micro>(steady_clock::now() - start_).count();
    const nlohmann::json event = {{"name", label},
                                  {"cat", groups_.at(static_cast<std::size_t>(group))},
                                  {"ph", phase == 1 ? "B" : "E"},
                                  {"ts", now},
                                  {"pid", pid_},
                                  {"tid", pid_}};
    out_ << (first_ ? "" : ",\n")
         << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    first_ = false;
  }

 private:
  std::ofstream out_;
  bool first_ = true;
  std::vector<std::string> groups_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  int pid_ = getpid();
};

TraceEventFile::TraceEventFile(const Path& path) : impl_(std::make_unique<Impl>(path)) {}

TraceEventFile::~TraceEventFile() = default;

int TraceEventFile::addGroup(const std::string& name) { return impl_->addGroup(name); }

bool TraceEventFile::isEnabled(int /*group*/) const { return true; }

void TraceEventFile::log(int group, const std::string& label, int phase) {
  impl_->log(group, label, phase);
}

}  // namespace kyr

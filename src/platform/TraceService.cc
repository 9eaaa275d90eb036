#include "kyr/platform/TraceService.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace kyr {

namespace {

// Keeps the group names, so that a service installed late learns the groups that already exist,
// and maps the process's handles to those of the installed service.
class ProcessTraceService final : public TraceService {
 public:
  int addGroup(const std::string& name) override {
    names_.push_back(name);
    installedHandles_.push_back(installed_ ? installed_->addGroup(name) : 0);
    return static_cast<int>(names_.size()) - 1;
  }

  bool isEnabled(int group) const override {
    return installed_ && installed_->isEnabled(handle(group));
  }

  void log(int group, const std::string& label, int phase) override {
    if (installed_) installed_->log(handle(group), label, phase);
  }

  std::shared_ptr<TraceService> install(std::shared_ptr<TraceService> service) {
    if (service) {
      for (std::size_t i = 0; i < names_.size(); ++i) {
        installedHandles_[i] = service->addGroup(names_[i]);
      }
    }
    return std::exchange(installed_, std::move(service));
  }

 private:
  int handle(int group) const { return installedHandles_.at(static_cast<std::size_t>(group)); }

  std::shared_ptr<TraceService> installed_;
  std::vector<std::string> names_;
  std::vector<int> installedHandles_;
};

ProcessTraceService& process() {
  static ProcessTraceService service;
  return service;
}

}  // namespace

TraceService::~TraceService() = default;

std::shared_ptr<TraceService> installTraceService(std::shared_ptr<TraceService> service) {
  return process().install(std::move(service));
}

TraceService& processTraceService() { return process(); }

}  // namespace kyr

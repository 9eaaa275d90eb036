#pragma once

#include <string>
#include <utility>

#include "kyr/platform/TraceService.h"

namespace kyr::tool {

/// A span in the trace that lasts as long as the object. Does nothing without a trace.
class Span {
 public:
  explicit Span(std::string label) : label_(std::move(label)) { log(/*phase=*/1); }
  ~Span() { log(/*phase=*/0); }
  Span(const Span&) = delete;
  Span& operator=(const Span&) = delete;

 private:
  void log(int phase) const {
    static const int group = processTraceService().addGroup("kyr");
    if (processTraceService().isEnabled(group)) processTraceService().log(group, label_, phase);
  }

  std::string label_;
};

}  // namespace kyr::tool

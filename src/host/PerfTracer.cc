#include "kyr/parquet/PerfTracer.h"

#include "kyr/platform/TraceService.h"

namespace kyr::parquet {

namespace {

enum Phase : int { kEnd = 0, kBegin = 1 };

int traceGroup() {
  static const int group = processTraceService().addGroup("ParquetSerializationPerfTracer");
  return group;
}

void logIfEnabled(const char* name, Phase phase) {
  TraceService& service = processTraceService();
  if (service.isEnabled(traceGroup())) service.log(traceGroup(), name, phase);
}

}  // namespace

PerfTracer::PerfTracer(const char* text, int group) : name(text) {
  processTraceService().log(group, name, kBegin);
}

PerfTracer::~PerfTracer() {
  if (!name.empty()) processTraceService().log(traceGroup(), name, kEnd);
}

std::unique_ptr<PerfTracer> getScopedPerfTracer(const char* name) {
  if (!processTraceService().isEnabled(traceGroup())) return nullptr;
  return std::make_unique<PerfTracer>(name, traceGroup());
}

void startPerfTracer(const char* name) { logIfEnabled(name, kBegin); }

void stopPerfTracer(const char* name) { logIfEnabled(name, kEnd); }

}  // namespace kyr::parquet

#pragma once

#include <memory>
#include <string>

#include "kyr/platform/export.h"

namespace kyr {

/// \brief Receives begin and end records of labelled spans; a host implements and installs one.
///
/// Calls come from the thread that uses the library.
class KYR_PARQUET_EXPORT TraceService {
 public:
  virtual ~TraceService();

  /// \brief Add the trace group \p name.
  /// \return the handle that stands for the group in the other calls
  virtual int addGroup(const std::string& name) = 0;
  virtual bool isEnabled(int group) const = 0;
  /// \param phase  1 at the beginning of the span called \p label, 0 at its end
  virtual void log(int group, const std::string& label, int phase) = 0;
};

/// \brief Install \p service for the process; an empty pointer switches tracing off.
///
/// Every group known so far is added to the service, in the order in which the groups were added
/// here. Without a service, a trace point costs one test.
/// \return the service that was installed before, or an empty pointer
KYR_PARQUET_EXPORT std::shared_ptr<TraceService> installTraceService(
    std::shared_ptr<TraceService> service);

/// \brief The process's trace service. It forwards to the installed one and is off without one.
///
/// Group handles obtained here stay valid whatever service is installed later.
KYR_PARQUET_EXPORT TraceService& processTraceService();

}  // namespace kyr

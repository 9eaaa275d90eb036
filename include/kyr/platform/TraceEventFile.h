#pragma once

#include <memory>

#include "kyr/platform/Path.h"
#include "kyr/platform/TraceService.h"
#include "kyr/platform/export.h"

namespace kyr {

/// \brief A trace service that writes the Trace Event JSON of Chrome's tracing page and Perfetto.
///
/// One "B" and one "E" event per span, with the group as the category and times in microseconds
/// since the service was made. Every group is enabled. The file is complete when the service is
/// destroyed; viewers also read a file that was cut off before.
class KYR_PARQUET_EXPORT TraceEventFile final : public TraceService {
 public:
  /// \brief Create or replace the file \p path.
  /// \throws std::runtime_error naming the path if it cannot be opened for writing
  explicit TraceEventFile(const Path& path);
  ~TraceEventFile() override;

  int addGroup(const std::string& name) override;
  bool isEnabled(int group) const override;
  void log(int group, const std::string& label, int phase) override;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kyr

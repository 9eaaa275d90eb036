#include "edit/StartTimes.h"

#include <nlohmann/json.hpp>

#include "csv/TimeForm.h"

namespace kyr::tool {

std::optional<TimeStamp> startOf(const recording::Attributes& attributes) {
  const auto found = attributes.find(kStartAttribute);
  if (found == attributes.end()) return std::nullopt;
  const auto value = nlohmann::json::parse(found->second, nullptr, /*allow_exceptions=*/false);
  return value.is_string() ? parseIso(value.get<std::string>()) : std::nullopt;
}

double secondsBetweenStarts(const recording::RecordingReader& reader,
                            const recording::RecordingReader& other) {
  const auto first = startOf(reader.attributes());
  const auto second = startOf(other.attributes());
  if (!first || !second) return 0;
  const std::int64_t whole = second->nanoseconds / kNanoseconds - first->nanoseconds / kNanoseconds;
  const std::int64_t rest = second->nanoseconds % kNanoseconds - first->nanoseconds % kNanoseconds;
  return static_cast<double>(whole) + static_cast<double>(rest) / static_cast<double>(kNanoseconds);
}

}  // namespace kyr::tool

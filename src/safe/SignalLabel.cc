#include "safe/SignalLabel.h"

#include <arrow/util/key_value_metadata.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "schema/TypeNames.h"

namespace kyr::parquet {

void PartLabels::add(PartLabel& label) noexcept {
  label.previous = nullptr;
  label.next = first_;
  if (first_ != nullptr) first_->previous = &label;
  first_ = &label;
}

void PartLabels::remove(PartLabel& label) noexcept {
  if (label.next != nullptr) label.next->previous = label.previous;
  (label.previous != nullptr ? label.previous->next : first_) = label.next;
}

std::shared_ptr<const ::arrow::KeyValueMetadata> PartLabels::metadata() const {
  nlohmann::json parts = nlohmann::json::array();
  for (const PartLabel* label = first_; label != nullptr; label = label->next) {
    const SignalLabel& signal = *label->signal;
    parts.push_back({{"signalId", signal.signalId},
                     {"part", label->part == SignalPart::time ? "time" : "data"},
                     {"dataType", dataTypeName(signal.dataType)},
                     {"category", categoryName(signal.category)},
                     {"name", signal.name},
                     {"unit", signal.unit}});
  }
  std::sort(parts.begin(), parts.end());
  return ::arrow::key_value_metadata({"kyr.signals"}, {parts.dump()});
}

}  // namespace kyr::parquet

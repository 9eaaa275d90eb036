#include "safe/SignalLabel.h"

#include <arrow/util/key_value_metadata.h>

#include "safe/PartNotes.h"

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

std::shared_ptr<const ::arrow::KeyValueMetadata> PartLabels::metadata(std::size_t mostParts) const {
  return ::arrow::key_value_metadata({kPartNotesKey}, {writePartNotes(first_, mostParts)});
}

}  // namespace kyr::parquet

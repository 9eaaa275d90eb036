#pragma once

#include <arrow/type_fwd.h>

#include <cstddef>
#include <memory>
#include <string>

#include "kyr/parquet/SignalTypes.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

/// What files say about a signal.
struct SignalLabel {
  int signalId = 0;
  std::string name;
  std::string unit;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
};

/// What files say about one part of a signal.
struct PartLabel {
  std::shared_ptr<const SignalLabel> signal;
  SignalPart part = SignalPart::data;

  // Neighbours in the list that the label is in.
  PartLabel* previous = nullptr;
  PartLabel* next = nullptr;
};

/// The labels of the parts that share a content. Thousands of parts may share one, so that adding
/// and removing a label takes the same time for any number.
class PartLabels {
 public:
  PartLabels() = default;
  PartLabels(const PartLabels&) = delete;
  PartLabels& operator=(const PartLabels&) = delete;

  /// \param label  in no list; must stay where it is until it is removed
  void add(PartLabel& label) noexcept;
  /// \param label  in this list
  void remove(PartLabel& label) noexcept;

  /// Whether there is one label and no more.
  bool isOne() const { return first_ != nullptr && first_->next == nullptr; }

  /// The labels as the key-value metadata "kyr.signals", so that a folder of files can be
  /// understood without anything else.
  /// \param mostParts  that are listed by name
  std::shared_ptr<const ::arrow::KeyValueMetadata> metadata(std::size_t mostParts) const;

 private:
  PartLabel* first_ = nullptr;
};

}  // namespace kyr::parquet

#pragma once

#include <memory>
#include <string>

#include "kyr/parquet/SignalTypes.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

/// What a signal's files say of it.
struct SignalLabel {
  int signalId = 0;
  std::string name;
  std::string unit;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
};

/// Whose part a SharedPart is. Part of what a file carries, so that a folder can be understood
/// without anything else.
struct PartLabel {
  std::shared_ptr<const SignalLabel> signal;
  SignalPart part = SignalPart::data;

  // Of the labels of a stream, which thousands of parts may share.
  PartLabel* before = nullptr;
  PartLabel* after = nullptr;
};

}  // namespace kyr::parquet

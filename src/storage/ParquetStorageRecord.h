#pragma once

#include <memory>

namespace kyr::parquet {

/// The storage id that stands for "no storage" in a signal's record; 0 is a valid id. Stored in
/// recordings: never change it.
constexpr int kNoStorage = -554114;

/// Which file of a signal is meant.
enum class SignalPart : char { time = 0, data = 1 };

/// The storage ids of one signal, and the object that owns their files: a worker or a writer. It
/// lives as long as any record refers to it.
template <typename Owner>
struct ParquetStorageRecord {
  bool hasStorage = false;
  int timeStorageId = kNoStorage;
  int dataStorageId = kNoStorage;
  std::shared_ptr<Owner> worker;

  /// The id of \p part; null for a value that names no part.
  const int* idOf(SignalPart part) const noexcept {
    switch (part) {
      case SignalPart::time:
        return &timeStorageId;
      case SignalPart::data:
        return &dataStorageId;
    }
    return nullptr;
  }
  int* idOf(SignalPart part) noexcept {
    return const_cast<int*>(static_cast<const ParquetStorageRecord*>(this)->idOf(part));
  }
};

}  // namespace kyr::parquet

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kyr::parquet {

/// The files of a signal, as the JSON text of the records names them.
struct SignalRecord {
  int signalId;
  int timeStorageId;
  int dataStorageId;
};

std::string writeSignalRecords(const std::vector<SignalRecord>& records);

/// Calls \p take with each record as it is read, so that records before a faulty one are taken.
/// \throws nlohmann::json::exception for malformed text or members
/// \throws std::invalid_argument for an empty id array
void readSignalRecords(const std::string& text,
                       const std::function<void(const SignalRecord&)>& take);

}  // namespace kyr::parquet

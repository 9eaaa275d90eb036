#include "signals/SignalRecords.h"

#include <fmt/format.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kyr::parquet {

namespace {

// Ids are arrays of one number; further elements are ignored.
int firstId(const nlohmann::json& record, const char* member) {
  const auto ids = record.at(member).get<std::vector<int>>();
  if (ids.empty()) {
    throw std::invalid_argument(fmt::format("signal record {}: \"{}\" is an empty array",
                                            record.at("signalId").dump(), member));
  }
  return ids.front();
}

}  // namespace

std::string writeSignalRecords(const std::vector<SignalRecord>& records) {
  std::string text = "[";
  for (const SignalRecord& record : records) {
    fmt::format_to(std::back_inserter(text),
                   R"({}{{"dataStorageId":[{}],"signalId":{},"timeStorageId":[{}]}})",
                   text.size() == 1 ? "" : ",", record.dataStorageId, record.signalId,
                   record.timeStorageId);
  }
  return text + "]";
}

void readSignalRecords(const std::string& text,
                       const std::function<void(const SignalRecord&)>& take) {
  const nlohmann::json document = nlohmann::json::parse(text);
  for (const nlohmann::json& record : document) {
    const int signalId = record.at("signalId").get<int>();
    const int timeStorageId = firstId(record, "timeStorageId");
    const int dataStorageId = firstId(record, "dataStorageId");
    take({signalId, timeStorageId, dataStorageId});
  }
}

}  // namespace kyr::parquet

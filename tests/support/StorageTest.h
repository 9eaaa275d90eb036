#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/platform/FeatureFlag.h"
#include "support/Samples.h"
#include "support/TempDir.h"

namespace kyr::test {

constexpr int kNone = -554114;  // no storage

/// A storage directory. Process-wide switches are restored after each test.
class StorageTest : public ::testing::Test {
 protected:
  ~StorageTest() override {
    namespace options = parquet::serialization_options;
    options::bDictionary = true;
    options::dictionaryLimit = 1048576;
    options::batchSize = 4096;
    options::bSharedTimeColumn = true;
    options::compressionMethod = {};
    FeatureFlag::set("fKYRUseParquetRowGroup", false);
  }

  std::shared_ptr<parquet::ParquetSerializerWorker> openWorker() const {
    return std::make_shared<parquet::ParquetSerializerWorker>(store.path());
  }

  /// A signal over the files of the given ids.
  std::unique_ptr<parquet::ParquetSignal> makeSignal(KYRSignalCategory category,
                                                     KYRSignalDataType type, int timeId = kNone,
                                                     int dataId = kNone) const {
    auto signal = std::make_unique<parquet::ParquetSignal>(worker, timeId, dataId);
    signal->setCategory(category);
    signal->setDataType(type);
    return signal;
  }

  TempDir temp;
  Folder store{temp.file("store")};
  std::shared_ptr<parquet::ParquetSerializerWorker> worker = openWorker();
};

}  // namespace kyr::test

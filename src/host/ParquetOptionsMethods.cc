#include "host/ParquetOptionsMethods.h"

#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "kyr/parquet/SerializationOptions.h"
#include "kyr/platform/Path.h"

namespace kyr::host {

namespace {

namespace options = parquet::serialization_options;
using Codec = ::arrow::Compression;

const std::string kSharedTimeColumn = "SharedTimeColumn";
const std::string kCompression = "Compression";
const std::string kDictionary = "Dictionary";
const std::string kDictionaryLimit = "DictionaryLimit";
const std::string kBatchSize = "BatchSize";

Codec::type codecCalled(const std::string& name) {
  static const std::unordered_map<std::string, Codec::type> codecs{
      {"uncompressed", Codec::UNCOMPRESSED},
      {"snappy", Codec::SNAPPY},
      {"gzip", Codec::GZIP},
      {"lzo", Codec::LZO},
      {"brotli", Codec::BROTLI},
      {"lz4_frame", Codec::LZ4_FRAME},
      {"lz4_hadoop", Codec::LZ4_HADOOP},
      {"zstd", Codec::ZSTD},
  };
  const auto found = codecs.find(name);
  if (found != codecs.end()) return found->second;
  // The message leaves out the two that Parquet cannot write.
  throw std::invalid_argument(
      fmt::format("Compression \"{}\" is not known: use uncompressed, snappy, gzip, brotli, "
                  "lz4_hadoop or zstd",
                  name));
}

// Empty for a codec that no name stands for.
std::string nameOf(Codec::type codec) {
  static constexpr std::array<const char*, 10> kNames{
      "uncompressed", "snappy", "gzip", "brotli", "zstd", "", "lz4_frame", "lzo", "", "lz4_hadoop"};
  const auto index = static_cast<std::size_t>(codec);
  return index < kNames.size() ? kNames[index] : "";
}

std::optional<bool> logicalField(const HostArray& values, const std::string& name) {
  const HostArray* field = values.field(0, name);
  if (field == nullptr || !field->isLogicalScalar()) return std::nullopt;
  return field->isLogicalScalarTrue();
}

std::optional<std::int32_t> numberField(const HostArray& values, const std::string& name) {
  const HostArray* field = values.field(0, name);
  if (field == nullptr || !field->isScalar()) return std::nullopt;
  const double value = field->scalar();
  // The fraction is cut off, so a value may lie beyond the limits by less than one. Comparisons
  // with NaN are false.
  using Limits = std::numeric_limits<std::int32_t>;
  if (value > Limits::min() - 1.0 && value < Limits::max() + 1.0) {
    return static_cast<std::int32_t>(value);
  }
  throw std::invalid_argument(fmt::format("{} {}: no 32-bit integer can hold it", name, value));
}

// All fields are read before any option is set, so that a refused value changes nothing.
struct Changes {
  explicit Changes(const HostArray& values) {
    const HostArray* codec = values.field(0, kCompression);
    if (codec != nullptr && codec->isCharVector()) compression = codecCalled(toUtf8(codec->text()));
    dictionary = logicalField(values, kDictionary);
    dictionaryLimit = numberField(values, kDictionaryLimit);
    batchSize = numberField(values, kBatchSize);
    sharedTimeColumn = logicalField(values, kSharedTimeColumn);
  }

  void apply() const {
    options::compressionMethod = compression.value_or(options::compressionMethod);
    options::bDictionary = dictionary.value_or(options::bDictionary);
    options::dictionaryLimit = dictionaryLimit.value_or(options::dictionaryLimit);
    options::batchSize = batchSize.value_or(options::batchSize);
    options::bSharedTimeColumn = sharedTimeColumn.value_or(options::bSharedTimeColumn);
  }

  std::optional<Codec::type> compression;
  std::optional<bool> dictionary;
  std::optional<std::int32_t> dictionaryLimit;
  std::optional<std::int32_t> batchSize;
  std::optional<bool> sharedTimeColumn;
};

const HostClient& callerOf(const char* method, const HostClient* client) {
  if (client != nullptr) return *client;
  throw std::invalid_argument(fmt::format("{} was called without a client", method));
}

HostValue int32Scalar(const HostClient& client, std::int32_t value) {
  HostValue array = client.createNumeric(1, 1, NumericClass::Int32);
  *static_cast<std::int32_t*>(array->numbers()) = value;
  return array;
}

}  // namespace

ParquetOptionsSetter::ParquetOptionsSetter() : KYRParquetMethodInfo("setParquetOptions") {
  const std::string input = "any";
  const std::string output = "logical scalar";
  setInputOutput(&input, 1, &output, 1);
}

void ParquetOptionsSetter::invoke(const HostClient* client, int& outputCount, HostValue* outputs,
                                  int inputCount, const HostValue* inputs) const {
  const HostClient& caller = callerOf(getName(), client);
  outputCount = 1;
  if (inputCount >= 1 && inputs[0] && !inputs[0]->isEmpty()) Changes(*inputs[0]).apply();
  outputs[0] = caller.createLogicalScalar(inputCount > 0);
}

ParquetOptionsGetter::ParquetOptionsGetter() : KYRParquetMethodInfo("getParquetOptions") {
  const std::string output = "any";
  setInputOutput(nullptr, 0, &output, 1);
}

void ParquetOptionsGetter::invoke(const HostClient* client, int& outputCount, HostValue* outputs,
                                  int /*inputCount*/, const HostValue* /*inputs*/) const {
  const HostClient& caller = callerOf(getName(), client);
  static const std::vector<std::string> fields{kCompression, kDictionary, kDictionaryLimit,
                                               kBatchSize, kSharedTimeColumn};
  outputCount = 1;
  HostValue values = caller.createStruct(1, 1, fields);
  values->setField(0, kCompression,
                   caller.createString(toUtf16(nameOf(options::compressionMethod))));
  values->setField(0, kDictionary, caller.createLogicalScalar(options::bDictionary));
  values->setField(0, kDictionaryLimit, int32Scalar(caller, options::dictionaryLimit));
  values->setField(0, kBatchSize, int32Scalar(caller, options::batchSize));
  values->setField(0, kSharedTimeColumn, caller.createLogicalScalar(options::bSharedTimeColumn));
  outputs[0] = std::move(values);
}

}  // namespace kyr::host

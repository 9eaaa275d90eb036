#include <arrow/util/compression.h>
#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "host/LibraryNamespaces.h"
#include "host/ParquetOptionsMethods.h"
#include "kyr/host/ReferenceHost.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/platform/Path.h"

namespace kyr::host {
namespace {

namespace options = parquet::serialization_options;
using Codec = ::arrow::Compression;
using testing::ElementsAre;
using testing::HasSubstr;

// Compression, Dictionary, DictionaryLimit, BatchSize, SharedTimeColumn
using Options = std::tuple<Codec::type, bool, int, int, bool>;

Options current() {
  return {options::compressionMethod, options::bDictionary, options::dictionaryLimit,
          options::batchSize, options::bSharedTimeColumn};
}

void restore(const Options& values) {
  std::tie(options::compressionMethod, options::bDictionary, options::dictionaryLimit,
           options::batchSize, options::bSharedTimeColumn) = values;
}

const Options kInitial{Codec::UNCOMPRESSED, true, 1048576, 4096, true};

class OptionsMethods : public testing::Test {
 protected:
  void SetUp() override { registerLibrary(host); }
  void TearDown() override { restore(kInitial); }

  // Calls the setter with a struct of one field and returns the result.
  bool set(const std::string& name, HostValue value) {
    HostValue input = host.createStruct(1, 1, {name});
    input->setField(0, name, std::move(value));
    return call(std::move(input));
  }
  bool set(const std::string& name, const std::u16string& value) {
    return set(name, host.createString(value));
  }
  bool set(const std::string& name, double value) { return set(name, host.createNumber(value)); }
  bool set(const std::string& name, bool value) {
    return set(name, host.createLogicalScalar(value));
  }
  bool set(const std::string& name, const char16_t* value) {
    return set(name, std::u16string(value));
  }

  bool call(HostValue input) {
    const HostValue done = host.invoke("Tarnwick.kyr.setParquetOptions", std::move(input));
    EXPECT_TRUE(done->isLogicalScalar());
    return done->isLogicalScalarTrue();
  }

  HostValue get() { return host.invoke("Tarnwick.kyr.getParquetOptions"); }

  ReferenceHost host;
};

TEST_F(OptionsMethods, TellTheInitialValuesInOrder) {
  const HostValue values = get();
  EXPECT_THAT(
      ReferenceHost::fieldNames(*values),
      ElementsAre("Compression", "Dictionary", "DictionaryLimit", "BatchSize", "SharedTimeColumn"));
  EXPECT_EQ(values->field(0, "Compression")->text(), u"uncompressed");
  EXPECT_TRUE(values->field(0, "Dictionary")->isLogicalScalarTrue());
  EXPECT_EQ(values->field(0, "DictionaryLimit")->scalar(), 1048576);
  EXPECT_EQ(values->field(0, "BatchSize")->scalar(), 4096);
  EXPECT_TRUE(values->field(0, "SharedTimeColumn")->isLogicalScalarTrue());
  for (const char* number : {"DictionaryLimit", "BatchSize"}) {
    EXPECT_EQ(ReferenceHost::className(*values->field(0, number)), "int32");
  }
}

TEST_F(OptionsMethods, EachCodecIsSetAndToldByItsName) {
  const std::vector<std::pair<const char16_t*, Codec::type>> codecs{
      {u"snappy", Codec::SNAPPY},
      {u"gzip", Codec::GZIP},
      {u"lzo", Codec::LZO},
      {u"brotli", Codec::BROTLI},
      {u"lz4_frame", Codec::LZ4_FRAME},
      {u"lz4_hadoop", Codec::LZ4_HADOOP},
      {u"zstd", Codec::ZSTD},
      {u"uncompressed", Codec::UNCOMPRESSED},
  };
  for (const auto& [name, codec] : codecs) {
    EXPECT_TRUE(set("Compression", name));
    EXPECT_EQ(options::compressionMethod, codec);
    EXPECT_EQ(get()->field(0, "Compression")->text(), name);
  }
  // Codecs that the methods cannot set have no name.
  for (const Codec::type codec : {Codec::LZ4, Codec::BZ2, static_cast<Codec::type>(10)}) {
    options::compressionMethod = codec;
    EXPECT_EQ(get()->field(0, "Compression")->text(), u"");
  }
}

TEST_F(OptionsMethods, NumbersAreCutOffTowardsZero) {
  struct Case {
    double given;
    int stored;
  };
  for (const auto& [given, stored] : {Case{2.9, 2}, Case{-1.5, -1}, Case{0, 0}, Case{-0.9, 0},
                                      Case{2147483647.9, std::numeric_limits<int>::max()},
                                      Case{-2147483648.9, std::numeric_limits<int>::min()}}) {
    EXPECT_TRUE(set("DictionaryLimit", given));
    EXPECT_EQ(options::dictionaryLimit, stored);
    EXPECT_TRUE(set("BatchSize", given));
    EXPECT_EQ(options::batchSize, stored);
  }
  // A scalar of any class will do.
  HostValue small = host.createNumeric(1, 1, NumericClass::Int8);
  *static_cast<std::int8_t*>(small->numbers()) = -7;
  set("BatchSize", std::move(small));
  EXPECT_EQ(options::batchSize, -7);
  set("BatchSize", u"A");
  EXPECT_EQ(options::batchSize, 65);
  set("BatchSize", true);
  EXPECT_EQ(options::batchSize, 1);
}

TEST_F(OptionsMethods, WhatIsOfAnotherKindChangesNothing) {
  EXPECT_FALSE(call({}));
  EXPECT_TRUE(call(host.createStruct(1, 1, {})));
  EXPECT_TRUE(call(host.createStruct(0, 0, {"Compression"})));
  EXPECT_TRUE(call(host.createNumber(3)));
  EXPECT_TRUE(call(host.createString(u"zstd")));
  EXPECT_TRUE(call(host.createStruct(1, 1, {"Compression", "BatchSize"})));  // fields without value
  EXPECT_TRUE(set("Compression", 4.0));
  EXPECT_TRUE(set("compression", u"zstd"));
  EXPECT_TRUE(set("Dictionary", 0.0));
  EXPECT_TRUE(set("Dictionary", host.createLogical(1, 2)));
  EXPECT_TRUE(set("SharedTimeColumn", u"false"));
  EXPECT_TRUE(set("BatchSize", host.createNumeric(2, 1, NumericClass::Double)));
  EXPECT_TRUE(set("DictionaryLimit", host.createNumeric(0, 0, NumericClass::Double)));
  EXPECT_EQ(current(), kInitial);

  std::vector<HostValue> absent(2);
  EXPECT_TRUE(host.invoke("Tarnwick.kyr.setParquetOptions", absent)[0]->isLogicalScalarTrue());
  EXPECT_EQ(current(), kInitial);
}

TEST_F(OptionsMethods, SetEveryFieldOfTheFirstElement) {
  HostValue input = host.createStruct(
      2, 1, {"BatchSize", "Unknown", "SharedTimeColumn", "Dictionary", "Compression"});
  input->setField(0, "BatchSize", host.createNumber(10));
  input->setField(0, "Unknown", host.createNumber(11));
  input->setField(0, "SharedTimeColumn", host.createLogicalScalar(false));
  input->setField(0, "Dictionary", host.createLogicalScalar(false));
  input->setField(0, "Compression", host.createString(u"gzip"));
  input->setField(1, "BatchSize", host.createNumber(12));
  EXPECT_TRUE(call(std::move(input)));
  EXPECT_EQ(current(), Options(Codec::GZIP, false, 1048576, 10, false));
}

TEST_F(OptionsMethods, ARefusedValueIsNamedAndChangesNothing) {
  struct Case {
    const char* field;
    HostValue value;
    const char* says;
  };
  Case cases[] = {
      {"Compression", host.createString(u"zip"), "\"zip\""},
      {"Compression", host.createString(u"ZSTD"), "lz4_hadoop or zstd"},
      {"Compression", host.createString(u""), "\"\""},
      {"Compression", host.createString(u"\xd800"), "UTF-16"},
      {"BatchSize", host.createNumber(2147483648.0), "BatchSize 2147483648"},
      {"DictionaryLimit", host.createNumber(std::nan("")), "DictionaryLimit nan"},
      {"DictionaryLimit", host.createNumber(-INFINITY), "-inf"},
  };
  for (Case& item : cases) {
    HostValue input = host.createStruct(1, 1, {"Dictionary", item.field});
    input->setField(0, "Dictionary", host.createLogicalScalar(false));
    input->setField(0, item.field, std::move(item.value));
    try {
      call(std::move(input));
      ADD_FAILURE() << item.says;
    } catch (const std::invalid_argument& error) {
      EXPECT_THAT(error.what(), HasSubstr(item.says));
    }
    EXPECT_EQ(current(), kInitial);
  }
}

TEST_F(OptionsMethods, AreHiddenAndDescribed) {
  EXPECT_THAT(host.listMethods("Tarnwick.kyr"), ElementsAre());
  const HostMethodInfo* setter = host.findMethod("Tarnwick.kyr.setParquetOptions");
  const HostMethodInfo* getter = host.findMethod("Tarnwick.kyr.getParquetOptions");
  ASSERT_TRUE(setter && getter);
  EXPECT_EQ(setter->getMethodSignature(), nullptr);
  EXPECT_THAT(setter->descriptor().inputTypes, ElementsAre("any"));
  EXPECT_THAT(setter->descriptor().outputTypes, ElementsAre("logical scalar"));
  EXPECT_THAT(getter->descriptor().inputTypes, ElementsAre());
  EXPECT_THAT(getter->descriptor().outputTypes, ElementsAre("any"));
  int outputs = 0;
  HostValue output;
  EXPECT_THROW(getter->invoke(nullptr, outputs, &output, 0, nullptr), std::invalid_argument);
}

}  // namespace
}  // namespace kyr::host

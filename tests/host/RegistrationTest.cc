#include <gmock/gmock.h>

#include "host/KYRParquetMethodInfo.h"
#include "host/LibraryNamespaces.h"
#include "kyr/host/ReferenceHost.h"
#include "kyr/host/Registration.h"
#include "support/FlakyAllocator.h"

namespace kyr::host {
namespace {

using testing::ElementsAre;

constexpr const char* kSetter = "Tarnwick.kyr.setParquetOptions";
constexpr const char* kGetter = "Tarnwick.kyr.getParquetOptions";

TEST(Registration, AnEmptyHostOpensBothNamespacesOnDemand) {
  test::FlakyAllocator memory;
  {
    ReferenceHost host(memory);
    registerLibrary(host);
    EXPECT_EQ(memory.total, 1);
    EXPECT_NE(host.findNamespace("Tarnwick"), nullptr);
    EXPECT_EQ(memory.total, 1) << "populated without being opened";
    EXPECT_NE(host.findNamespace("Tarnwick.kyr"), nullptr);
    EXPECT_EQ(memory.total, 2);
    EXPECT_NE(host.findMethod(kSetter), nullptr);
    EXPECT_NE(host.findMethod(kGetter), nullptr);
    EXPECT_EQ(memory.total, 4);
    EXPECT_EQ(memory.live, 2) << "the descriptions are of no use any more";
  }
  EXPECT_EQ(memory.live, 0);
}

TEST(Registration, AnOuterNamespaceGetsAnInnerOneOnDemand) {
  test::FlakyAllocator memory;
  {
    ReferenceHost host(memory);
    host.defineNamespace("Tarnwick.other");
    registerLibrary(host);
    EXPECT_EQ(memory.total, 1);
    EXPECT_NE(host.findMethod(kGetter), nullptr);
    EXPECT_EQ(memory.total, 3);
    EXPECT_NE(host.findNamespace("Tarnwick.other"), nullptr);
  }
  EXPECT_EQ(memory.live, 0);
}

TEST(Registration, AnExistingNamespaceGetsTheMethodsAtOnce) {
  test::FlakyAllocator memory;
  {
    ReferenceHost host(memory);
    host.defineNamespace("Tarnwick.kyr");
    registerLibrary(host);
    EXPECT_EQ(memory.total, 2);
    EXPECT_NE(host.findMethod(kSetter), nullptr);
    const HostValue values = host.invoke(kGetter);
    EXPECT_EQ(values->field(0, "BatchSize")->scalar(), 4096);
  }
  EXPECT_EQ(memory.live, 0);
}

// Lets each allocation fail. The host's exception is thrown, nothing leaks, and the methods exist
// once there is memory again.
TEST(Registration, MemoryThatRunsOutIsTheHostsExceptionAndLeaksNothing) {
  for (std::size_t allocations = 0; allocations < 4; ++allocations) {
    SCOPED_TRACE(allocations);
    test::FlakyAllocator memory;
    {
      ReferenceHost host(memory);
      memory.left = allocations;
      EXPECT_THROW(
          {
            registerLibrary(host);
            host.findMethod(kGetter);
          },
          test::HostOutOfMemory);
      memory.left = 100;
      if (allocations == 0) registerLibrary(host);
      EXPECT_NE(host.findMethod(kSetter), nullptr);
      EXPECT_NE(host.findMethod(kGetter), nullptr);
      memory.left = 0;
      EXPECT_THROW(host.invoke(kGetter), test::HostOutOfMemory);
      memory.left = 2;  // enough for the struct and its first field
      EXPECT_THROW(host.invoke(kGetter), test::HostOutOfMemory);
    }
    EXPECT_EQ(memory.live, 0);
  }
}

class BrokenMethod final : public KYRParquetMethodInfo {
 public:
  BrokenMethod() : KYRParquetMethodInfo(nullptr) {
    EXPECT_EQ(getName(), nullptr);
    throw std::domain_error("broken");
  }
  void invoke(const HostClient*, int&, HostValue*, int, const HostValue*) const override {}
};

TEST(Registration, AMethodWhoseConstructorThrowsGivesItsMemoryBack) {
  test::FlakyAllocator memory;
  EXPECT_THROW(new (memory) BrokenMethod, std::domain_error);
  EXPECT_EQ(memory.total, 1);
  EXPECT_EQ(memory.live, 0);
}

TEST(Registration, DescribesInputsBeforeOutputs) {
  class Method final : public KYRParquetMethodInfo {
   public:
    Method() : KYRParquetMethodInfo("method") {
      const std::string inputs[] = {"a", "b"};
      const std::string outputs[] = {"c"};
      setInputOutput(inputs, 2, outputs, 1);
      setNumberOfOptionalInputs(1);
    }
    void invoke(const HostClient*, int&, HostValue*, int, const HostValue*) const override {}
  };
  test::FlakyAllocator memory;
  const std::unique_ptr<HostMethodInfo> method(new (memory) Method);
  EXPECT_THAT(method->descriptor().inputTypes, ElementsAre("a", "b"));
  EXPECT_THAT(method->descriptor().outputTypes, ElementsAre("c"));
  EXPECT_EQ(method->descriptor().optionalInputs, 1);
}

TEST(ReferenceHost, RefusesWhatIsNotThere) {
  ReferenceHost host;
  for (const char* name : {"", ".", "method", "No.such.method", "Tarnwick.kyr."}) {
    EXPECT_THROW(host.invoke(name), std::invalid_argument) << name;
  }
  EXPECT_EQ(host.findNamespace("Nowhere"), nullptr);
  EXPECT_THROW(host.listMethods("Nowhere"), std::invalid_argument);
  HostValue number = host.createNumber(1);
  HostValue structs = host.createStruct(2, 1, {"a"});
  EXPECT_THROW(number->text(), std::invalid_argument);
  EXPECT_THROW(number->setField(0, "a", {}), std::invalid_argument);
  EXPECT_THROW(structs->setField(0, "b", {}), std::invalid_argument);
  EXPECT_THROW(structs->setField(2, "a", {}), std::invalid_argument);
  EXPECT_THROW(structs->scalar(), std::invalid_argument);
  EXPECT_THROW(structs->numbers(), std::invalid_argument);
  EXPECT_THROW(host.createStruct(1, 1, {})->scalar(), std::invalid_argument);
}

}  // namespace
}  // namespace kyr::host

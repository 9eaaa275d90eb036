#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "kyr/parquet/PerfTracer.h"
#include "kyr/platform/TraceEventFile.h"
#include "support/ParquetFiles.h"
#include "support/StorageTest.h"

namespace kyr::parquet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kOurGroup = "ParquetSerializationPerfTracer";

struct Recorder : TraceService {
  int addGroup(const std::string& name) override {
    groups.push_back(name);
    return 100 - static_cast<int>(groups.size());  // not the numbers that the library uses
  }
  bool isEnabled(int) const override { return enabled; }
  void log(int group, const std::string& label, int phase) override {
    spans.push_back((phase == 1 ? "+" : "-") + label);
    lastGroup = groups.at(static_cast<std::size_t>(99 - group));
  }

  std::vector<std::string> groups;
  std::vector<std::string> spans;
  std::string lastGroup;
  bool enabled = true;
};

class Tracing : public test::StorageTest {
 protected:
  Tracing() { installTraceService(recorder); }
  ~Tracing() override { installTraceService(nullptr); }

  void writeTable() const {
    worker->write(*test::tableOf({{"data", test::column(::arrow::int8(), {"[1]"})}}), {});
  }

  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
};

TEST_F(Tracing, ServiceInstalledLateLearnsTheGroupsInTheirOrder) {
  startPerfTracer("so that our group exists");
  const int group = processTraceService().addGroup("of the host");
  const auto late = std::make_shared<Recorder>();
  EXPECT_EQ(installTraceService(late), recorder);
  EXPECT_EQ(late->groups, recorder->groups);
  processTraceService().log(group, "x", 1);
  EXPECT_EQ(late->lastGroup, "of the host");
  startPerfTracer("y");
  EXPECT_EQ(late->lastGroup, kOurGroup);
}

TEST_F(Tracing, WriteIsASpanAroundTheParquetWrite) {
  recorder->enabled = false;
  writeTable();
  EXPECT_THAT(recorder->spans, IsEmpty());
  recorder->enabled = true;
  writeTable();
  EXPECT_THAT(recorder->spans,
              ElementsAre("+ParquetSerializerWorker_writeHelper", "+WriteTableToFile",
                          "-WriteTableToFile", "-ParquetSerializerWorker_writeHelper"));
}

TEST_F(Tracing, SpanEndsIfItBeganButStartAndStopAskEachTime) {
  auto begun = getScopedPerfTracer("begun while on");
  startPerfTracer("pair");
  recorder->enabled = false;
  auto other = getScopedPerfTracer("begun while off");
  stopPerfTracer("pair");
  begun.reset();
  recorder->enabled = true;
  other.reset();
  EXPECT_THAT(recorder->spans, ElementsAre("+begun while on", "+pair", "-begun while on"));
}

TEST_F(Tracing, TraceEventFileIsJsonWithEverySpanEnded) {
  const Path path = temp.path().join("trace.json");
  const auto events = [&] { return nlohmann::json::parse(temp.contents("trace.json")); };
  installTraceService(std::make_shared<TraceEventFile>(path));
  writeTable();
  getScopedPerfTracer("quote \" newline \n no text \xff");
  installTraceService(nullptr);

  std::string spans;
  double before = 0;
  for (const auto& event : events()) {
    EXPECT_EQ(event.at("cat"), kOurGroup);
    EXPECT_GE(event.at("ts"), before);
    before = event.at("ts");
    spans += event.at("ph").get<std::string>() + event.at("name").get<std::string>().at(0);
  }
  EXPECT_EQ(spans, "BPBWEWEPBqEq");

  std::make_unique<TraceEventFile>(path).reset();  // replaces it
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_THAT(
      [&] { TraceEventFile{temp.path()}; },
      ::testing::ThrowsMessage<std::runtime_error>(::testing::EndsWith(temp.path().toNarrow())));
}

}  // namespace
}  // namespace kyr::parquet

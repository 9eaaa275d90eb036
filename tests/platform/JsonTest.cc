#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "platform/JsonReader.h"
#include "platform/JsonWriter.h"

namespace kyr {
namespace {

// Copies the next value, as the reader understands it.
void copyValue(JsonReader& in, JsonWriter& out) {
  std::string text;
  std::string_view number;
  const bool isPlain = in.takeNumber(number) || in.takeNull();
  if (isPlain && number.empty()) return out.null();
  if (isPlain) return out.number(std::stod(std::string(number)));
  if (in.takeText(text)) return out.text(text);
  out.beginArray();
  const bool isArray = in.takeArray([&] { copyValue(in, out); });
  if (!isArray) {
    const bool isObject = in.takeObject([&](std::string_view key) {
      const std::string name(key);
      out.text(name);
      copyValue(in, out);
    });
    if (!isObject) out.text(std::string(in.skip()));
  }
  out.endArray();
}

bool isAccepted(const std::string& text) {
  try {
    JsonReader in(text);
    in.skip();
    in.finish();
    return true;
  } catch (const JsonSyntaxError& error) {
    EXPECT_GE(error.byte(), 1U);
    EXPECT_LE(error.byte(), text.size() + 1);
    return false;
  }
}

const std::vector<std::string> kDocuments{
    R"({"a": [1, -2.5e+3, 0, -0, 1E9, 0.5], "b": {"c": null, "d": true, "e": false}, "": []})",
    "[\"plain\", \"q\\\"b\\\\s\\/\\b\\f\\n\\r\\t\\u00e9\\ud83d\\ude97\", \"\xC3\xA9\", \"\x7f\"]",
    "\t\r\n {\"x\":[[[]],{}] }  ",
    "\"text\"",
    "-12",
    "[\"\\u0000\"]",
    R"({"a":1,"a":2})",
};

TEST(Json, AcceptsExactlyWhatTheLibraryAccepts) {
  std::minstd_rand random(3);
  const std::string letters = "{}[]\",:\\ \n0123456789-+.eEtrufalsn\x01\x80\xC3\xA9\xED\xA0\x7f";
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = kDocuments[random() % kDocuments.size()];
    for (auto changes = random() % 3; changes > 0; --changes) {
      const std::size_t at = random() % (text.size() + 1);
      const char letter = letters[random() % letters.size()];
      switch (random() % 3) {
        case 0:
          text.insert(at, 1, letter);
          break;
        case 1:
          text.erase(at, 1);
          break;
        default:
          text.resize(at);
          break;
      }
    }
    ASSERT_EQ(isAccepted(text), nlohmann::json::accept(text)) << text;
    accepted += isAccepted(text) ? 1 : 0;
  }
  EXPECT_GT(accepted, 5000);
}

TEST(Json, ValuesAreUnderstoodAndWrittenAsTheLibraryDoes) {
  JsonReader in(kDocuments[0]);
  JsonWriter compact(JsonWriter::Layout::compact);
  copyValue(in, compact);
  EXPECT_EQ(compact.take(), R"(["a",[1.0,-2500.0,0.0,-0.0,1000000000.0,0.5],)"
                            R"("b",["c",null,"d",["true"],"e",["false"]],"",[]])");

  JsonReader texts(kDocuments[1]);
  JsonWriter indented(JsonWriter::Layout::indented);
  copyValue(texts, indented);
  EXPECT_EQ(indented.take(), nlohmann::json::parse(kDocuments[1]).dump(1));

  JsonWriter object(JsonWriter::Layout::indented);
  object.beginObject();
  for (const char* name : {"a", "b"}) {
    object.key(name);
    object.beginArray();
    if (*name == 'b') object.number(std::uint64_t{18446744073709551615U});
    object.endArray();
  }
  object.endObject();
  EXPECT_EQ(object.take(), nlohmann::json::parse(R"({"a":[],"b":[18446744073709551615]})").dump(1));
}

TEST(Json, DepthIsBounded) {
  for (const auto& [open, close] : {std::pair{"[", "]"}, {R"({"a":)", "}"}}) {
    for (const int depth : {JsonReader::kMaxDepth, JsonReader::kMaxDepth + 1, 100'000}) {
      std::string text;
      for (int i = 0; i < depth; ++i) text += open;
      text += "1";
      for (int i = 0; i < depth; ++i) text += close;
      EXPECT_EQ(isAccepted(text), depth <= JsonReader::kMaxDepth) << depth;
    }
  }
}

}  // namespace
}  // namespace kyr

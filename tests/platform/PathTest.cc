#include <gmock/gmock.h>

#include <cctype>
#include <stdexcept>

#include "kyr/platform/Path.h"

namespace kyr {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

TEST(Path, TextConvertsBothWays) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"", u""},
      {"\x7f\xc2\x80\xdf\xbf", u"\x7f\x80\u07ff"},    // limits of one and two bytes
      {"\xe0\xa0\x80\xef\xbf\xbf", u"\u0800\uffff"},  // of three bytes
      {"\xed\x9f\xbf\xee\x80\x80", u"\ud7ff\ue000"},  // around the surrogates
      {"\xf0\x90\x80\x80\xf4\x8f\xbf\xbf", u"\xd800\xdc00\xdbff\xdfff"},
  };
  for (const auto& [utf8, utf16] : cases) {
    EXPECT_EQ(Path::fromNarrow(utf8).text(), utf16);
    EXPECT_EQ(Path(utf16).toNarrow(), utf8);
    EXPECT_EQ(Path::fromFilesystem(Path(utf16).toFilesystem()), Path(utf16));
  }
}

// Errors go to consoles and logs, so they must not contain ill-formed text.
MATCHER(IsPrintable, "") {
  return std::all_of(arg.begin(), arg.end(), [](unsigned char c) { return std::isprint(c) != 0; });
}

TEST(Path, IllFormedTextIsNamedInPrintableText) {
  for (const std::string bad : {"\x80", "\xc3", "\xe2\x82", "\xc0\xaf", "\xe0\x80\xaf",  // overlong
                                "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xff"}) {
    EXPECT_THAT(
        [&] { Path::fromNarrow("name " + bad + "\n"); },
        ThrowsMessage<std::invalid_argument>(AllOf(IsPrintable(), HasSubstr("\"name \\x"))));
  }
  const std::pair<std::u16string, const char*> loneSurrogates[] = {
      {u"a\xd800", "\"a\\ud800\""},
      {u"\xdbff-", "\"\\udbff-\""},
      {u"\u00e4\xdc00\xd800", "\"\\xe4\\udc00\\ud800\""},
  };
  for (const auto& [text, shown] : loneSurrogates) {
    const Path path(text);  // no error yet
    const auto message =
        ThrowsMessage<std::invalid_argument>(AllOf(IsPrintable(), HasSubstr(shown)));
    EXPECT_THAT([&] { path.toNarrow(); }, message);
    EXPECT_THAT([&] { path.toFilesystem(); }, message);
  }
}

TEST(Path, JoinsAndSplitsAtSeparators) {
  EXPECT_EQ(Path(u"a").join("b"), Path(u"a/b", /*isNative=*/true));
  EXPECT_EQ(Path(u"a/").join(Path(u"b/c")), Path(u"a/b/c"));
  EXPECT_EQ(Path().join("b"), Path(u"b"));
  EXPECT_EQ(Path(u"/a/b.c").fileName(), Path(u"b.c"));
  EXPECT_EQ(Path(u"b").fileName(), Path(u"b"));
  EXPECT_EQ(Path(u"a/b/").fileName(), Path());
}

}  // namespace
}  // namespace kyr

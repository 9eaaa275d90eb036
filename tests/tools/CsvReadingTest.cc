// The rules by which the tool reads CSV, in all dialects.

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "csv/BlockReader.h"
#include "csv/CellNumbers.h"
#include "csv/CsvTokenizer.h"
#include "csv/TimeForm.h"
#include "csv/TimeStamps.h"

namespace kyr::tool {
namespace {

using testing::ElementsAre;

struct Row {
  std::int64_t line;
  std::vector<std::string> cells;

  bool operator==(const Row& other) const { return line == other.line && cells == other.cells; }
};

std::vector<Row> rowsOf(const std::string& text, const CsvDialect& dialect) {
  std::vector<Row> rows;
  CsvRows walker(text, dialect, 1);
  for (CsvRow row; walker.next(row);) {
    rows.push_back({row.line, {}});
    splitRow(row.text, dialect, rows.back().cells);
    EXPECT_EQ(row.cells, rows.back().cells.size()) << row.text;
  }
  return rows;
}

CsvDialect german() {
  CsvDialect dialect;
  dialect.delimiter = ';';
  dialect.decimalMark = ',';
  dialect.commentPrefixes = {"#", "//"};
  return dialect;
}

CsvDialect tabs() {
  CsvDialect dialect;
  dialect.delimiter = '\t';
  dialect.quote = '\'';
  return dialect;
}

CsvDialect blanks() {
  CsvDialect dialect;
  dialect.delimiter = ' ';
  return dialect;
}

TEST(CsvRows, FollowTheRulesOfTheDialect) {
  struct Case {
    const char* name;
    CsvDialect dialect;
    const char* text;
    std::vector<Row> rows;
  };
  const std::vector<Case> cases{
      {"line ends",
       {},
       "a,b\nc,d\r\ne,\rf,g",
       {{1, {"a", "b"}}, {2, {"c", "d"}}, {3, {"e", ""}}, {4, {"f", "g"}}}},
      {"empty lines", {}, "\n\r\na\n\n\rb\n", {{3, {"a"}}, {6, {"b"}}}},
      {"empty cells", {}, ",\n,,\n", {{1, {"", ""}}, {2, {"", "", ""}}}},
      {"quotes",
       {},
       "\"a,\"\"b\"\"\",\"\"\n\"\"\"\",x\n",
       {{1, {"a,\"b\"", ""}}, {2, {"\"", "x"}}}},
      {"line ends in quotes", {}, "\"a\r\nb\n\",1\n2,3", {{1, {"a\r\nb\n", "1"}}, {4, {"2", "3"}}}},
      {"quotes within a cell", {}, "a\"b\",\"c\"d\"e\"\n", {{1, {"a\"b\"", "cd\"e\""}}}},
      {"unclosed quote", {}, "1,\"2\n3,4\n", {{1, {"1", "2\n3,4\n"}}}},
      {"other delimiter", german(), "a;\"b;c\";d,e\n", {{1, {"a", "b;c", "d,e"}}}},
      {"comments",
       german(),
       "# one \" quote\n\n1;2\n//3;4\r\n5;# 6\n#",
       {{3, {"1", "2"}}, {5, {"5", "# 6"}}}},
      {"other quote", tabs(), "'a\tb'\t\"c\n", {{1, {"a\tb", "\"c"}}}},
      {"blanks", blanks(), "  a  \"b c\" \n\n 1 2", {{1, {"a", "b c"}}, {3, {"1", "2"}}}},
  };
  for (const Case& item : cases) {
    EXPECT_EQ(rowsOf(item.text, item.dialect), item.rows) << item.name;
  }
}

TEST(CsvRows, TellWhetherTheLastRowIsWhole) {
  struct Case {
    const char* text;
    bool isEnded;
    bool isUnclosed;
  };
  for (const Case& item :
       {Case{"a,1\n", true, false}, Case{"a,1\r", true, false}, Case{"a,1", false, false},
        Case{"a,", false, false}, Case{"a,\"1\n", false, true}, Case{"a,\"1\"\"", false, true}}) {
    const CsvDialect dialect;
    CsvRow row;
    ASSERT_TRUE(CsvRows(item.text, dialect, 1).next(row));
    EXPECT_EQ(row.isEnded, item.isEnded) << item.text;
    EXPECT_EQ(row.isUnclosed, item.isUnclosed) << item.text;
  }
}

TEST(BlockReader, ReadsNumbersInTheDialect) {
  const std::string text = "0;1,5;7\n# 9;9;9\n\"1\"; +2,25e1 ;\n0,5;\"-1e-3\";-8\n";
  std::vector<CellPlan> plans(3);
  plans[0].isTime = true;
  BlockValues values;
  readBlock({text, false}, german(), plans, values);
  ASSERT_FALSE(values.failure);
  EXPECT_EQ(values.lines, 4);
  const auto doubles = [&](std::size_t column) {
    std::vector<double> numbers(values.columns[column].words.size());
    std::memcpy(numbers.data(), values.columns[column].data(), numbers.size() * sizeof(double));
    return numbers;
  };
  EXPECT_THAT(doubles(0), ElementsAre(0, 1, 0.5));
  EXPECT_THAT(doubles(1), ElementsAre(1.5, 22.5, -0.001));
  EXPECT_EQ(values.columns[2].kind, CellKind::integer);
  EXPECT_THAT(values.columns[2].missing, ElementsAre(1));
  EXPECT_THAT(values.columns[2].words, ElementsAre(7, static_cast<std::uint64_t>(-8)));
}

// Numbers of up to 17 characters take a path of their own.
TEST(BlockReader, RoundsAsTheStandardLibraryDoes) {
  for (const char* cell :
       {"0.1", "-0.0", "123456789012345.6", "9007199254740993.0", "0.30000000000000004", "1e22",
        "1e23", "4.35", "7.038531e-26", "2.2250738585072014e-308", "5e-324", "1e-400",
        "1.7976931348623157e308", "0.000000000000001e15", "00000000000000000.1",
        "12345678901234567890.5"}) {
    std::vector<CellPlan> plans(2);
    plans[0].isTime = true;
    plans[1].kind = CellKind::real;
    BlockValues values;
    const std::string text = std::string("0,") + cell;
    readBlock({text, false}, {}, plans, values);
    ASSERT_EQ(values.columns[1].words.size(), 1U) << cell;
    double value = 0;
    std::memcpy(&value, values.columns[1].data(), sizeof(value));
    EXPECT_EQ(value, std::strtod(cell, nullptr)) << cell;
    EXPECT_EQ(std::signbit(value), cell[0] == '-') << cell;
  }
}

TEST(CellNumbers, TellHowANumberFits) {
  struct Case {
    const char* cell;
    KYRSignalDataType type;
    CellFit fit;
  };
  for (const Case& item :
       {Case{"9007199254740992", Double, CellFit::exact},
        Case{"9007199254740993", Double, CellFit::rounded},
        Case{"-9007199254740993", Double, CellFit::rounded},
        Case{"+0009007199254740994", Double, CellFit::exact},
        Case{"9007199254740993.0", Double, CellFit::exact},
        Case{"100000000000000000000000", Double, CellFit::rounded},
        Case{"100000000000000000000", Double, CellFit::exact},
        Case{"0.1000000000000000000001", Double, CellFit::exact},
        Case{"16777217", Single, CellFit::rounded}, Case{"16777216", Single, CellFit::exact},
        Case{"1e400", Double, CellFit::tooLarge}, Case{"-inf", Double, CellFit::exact},
        Case{"9007199254740993", Int64, CellFit::exact},
        Case{"9007199254740993.0", Int64, CellFit::none}, Case{"1e3", Int16, CellFit::exact},
        Case{"0x80", Int8, CellFit::none}, Case{"0x7f", Int8, CellFit::exact},
        Case{"x", Double, CellFit::none}}) {
    std::vector<char> bytes;
    EXPECT_EQ(CellParser(item.type, '.').append(item.cell, bytes), item.fit) << item.cell;
    const bool hasValue = item.fit != CellFit::none;
    EXPECT_EQ(bytes.size(), hasValue ? parquet::elementWidth(item.type) : 0) << item.cell;
  }
}

TEST(CellNumbers, CompareAllDigits) {
  struct Case {
    const char* a;
    const char* b;
    bool isSame;
  };
  for (const Case& item :
       {Case{"1", "1.0", true}, Case{"1e3", "1000", true}, Case{"0.0010", "+1E-3", true},
        Case{"0", "-0.00e7", true}, Case{"1", "-1", false}, Case{"1", "10", false},
        Case{"0.1234567890123456789", "0.12345678901234567891", false},
        Case{"12300", "123e2", true}, Case{"nan", "1", false}}) {
    EXPECT_EQ(isSameDecimal(item.a, item.b, '.'), item.isSame) << item.a << " " << item.b;
  }
}

TEST(TimeStamps, AreReadToTheNanosecond) {
  constexpr std::int64_t kMay = 1'714'557'600;  // 2024-05-01T10:00:00Z
  struct Case {
    const char* text;
    const char* pattern;  // empty for ISO 8601
    std::int64_t seconds;
    std::int64_t fraction;
    bool hasZone;
  };
  for (const Case& item :
       {Case{"2024-05-01T10:00:00", "", kMay, 0, false},
        Case{"2024-05-01 10:00:00.000000001Z", "", kMay, 1, true},
        Case{"2024-05-01T12:00:00,25+02:00", "", kMay, 250'000'000, true},
        Case{"1969-12-31T23:59:59.5", "", -1, 500'000'000, false},
        Case{"01.05.24 10:00", "%d.%m.%y %H:%M", kMay, 0, false},
        Case{"10:00:00.123 1 May 2024 +0000", "%H:%M:%S.%f %d %b %Y %z", kMay, 123'000'000, true},
        Case{"00:01:01.000000002", "%H:%M:%S.%f", 61, 2, false}}) {
    const std::string pattern = item.pattern;
    const auto stamp = pattern.empty() ? parseIso(item.text) : parseByPattern(item.text, pattern);
    ASSERT_TRUE(stamp) << item.text;
    EXPECT_EQ(stamp->nanoseconds, item.seconds * kNanoseconds + item.fraction) << item.text;
    EXPECT_EQ(stamp->hasZone, item.hasZone) << item.text;
    EXPECT_EQ(parseIso(formatIso(*stamp))->nanoseconds, stamp->nanoseconds) << item.text;
  }
  for (const char* text : {"", "2024", "2024-13-01", "1500-01-01", "9999-12-31T00:00:00", "1.5",
                           "2024-05-01T10:00:00.0000000001", "2024-05-01T10:00:00 CET"}) {
    EXPECT_FALSE(parseIso(text)) << text;
  }
  EXPECT_EQ(parseClock("100:00:01.5"), 360'001'500'000'000);
  for (const char* text :
       {"", "1", "1:2", "1:60:00", "1:00:60", "1:00:00.", "-1:00:00", "1:00:0x"}) {
    EXPECT_FALSE(parseClock(text)) << text;
  }
}

TEST(TimeForm, TellsWhetherADoubleHoldsATime) {
  TimeForm form;
  form.kind = TimeForm::Kind::iso;
  form.origin = 1'700'000'000 * kNanoseconds;
  struct Case {
    std::int64_t nanoseconds;
    bool isExact;
  };
  for (const Case& item :
       {Case{0, true}, Case{1, true}, Case{-1, true}, Case{999'999'999, true},
        Case{8'000'000'000'000'001, true}, Case{40'000'000'000'000'001, false},
        Case{40'000'000'123'000'000, true}, Case{400'000'000'000'000'000, true}}) {
    EXPECT_EQ(form.isExact(form.origin + item.nanoseconds), item.isExact) << item.nanoseconds;
    EXPECT_EQ(form.sinceOrigin(form.origin + item.nanoseconds),
              static_cast<double>(static_cast<long double>(item.nanoseconds) / 1e9L));
  }
  form = {};
  form.unit = *timeUnitCalled("MS");
  EXPECT_EQ(form.seconds("0,3", ','), 0.0003);
  EXPECT_EQ(form.seconds("1.5e+3", '.'), 1.5);
  EXPECT_EQ(form.nanoseconds("1.5", '.'), 1'500'000);
  EXPECT_EQ(form.nanoseconds("0.0000001", '.'), std::nullopt);
  EXPECT_EQ(form.seconds("1e", '.'), std::nullopt);
  EXPECT_EQ(form.nanoseconds("99999999999999999999", '.'), std::nullopt);
}

}  // namespace
}  // namespace kyr::tool

#include "sql/SqlViews.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "cli/Files.h"
#include "cli/Text.h"
#include "cli/UniqueNames.h"
#include "csv/CsvTokenizer.h"
#include "print/RecordingSummary.h"
#include "print/TypeFunctions.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

using recording::FileInfo;
using recording::RecordingReader;
using recording::SignalInfo;

std::string quoted(const std::string& text, char quote) {
  if (text.find('\0') != std::string::npos || !isUtf8(text)) {
    throw std::runtime_error(inQuotes(text) +
                             " has a zero byte or is not UTF-8, which SQL cannot express");
  }
  std::string result(1, quote);
  for (const char letter : text) result.append(letter == quote ? 2 : 1, letter);
  return result += quote;
}

std::string literal(const std::string& text) { return quoted(text, '\''); }
std::string identifier(const std::string& name) { return quoted(name, '"'); }

// A double, exactly: DuckDB would take a number with a point for a decimal one and round it twice.
std::string literal(double number) { return fmt::format("'{}'", number); }

// A call of read_parquet(). Left alone, it takes names for patterns, and a folder called "data=3"
// for a column.
std::string readParquet(const std::string& path, const char* options = "") {
  constexpr std::string_view kSpecial = "*?[";
  std::string pattern;
  for (const char letter : path) {
    const bool isSpecial = kSpecial.find(letter) != std::string_view::npos;
    pattern += isSpecial ? std::string{'[', letter, ']'} : std::string(1, letter);
  }
  if (pattern != path && path.find('\\') != std::string::npos) {
    throw std::runtime_error(path +
                             " cannot be read by DuckDB: it has a backslash beside one of * ? [");
  }
  return fmt::format("read_parquet({}, hive_partitioning = false{})", literal(pattern), options);
}

constexpr const char* kRowNumbers = ", file_row_number = true";

/// What the samples are to SQL.
struct ValueType {
  std::string kind;  ///< the same for all samples of a view
  std::string name;
  bool hasShape = false;

  bool isNumber() const { return kind == "numbers" || kind == "truth values"; }

  std::string of(const std::string& column) const {
    // A byte string need not be UTF-8. DuckDB shows other bytes as it shows those of blobs.
    if (kind == "texts") return fmt::format("coalesce(try(decode({0})), {0}::VARCHAR)", column);
    return name.rfind("BOOLEAN", 0) == 0 ? fmt::format("{}::{}", column, name) : column;
  }
};

struct NumberTypes {
  template <typename Number>
  const char* number() const {
    if (std::is_same_v<Number, double>) return "DOUBLE";
    if (std::is_floating_point_v<Number>) return "FLOAT";
    constexpr std::array<const char*, 4> kSigned{"TINYINT", "SMALLINT", "INTEGER", "BIGINT"};
    constexpr std::array<const char*, 4> kUnsigned{"UTINYINT", "USMALLINT", "UINTEGER", "UBIGINT"};
    constexpr std::size_t kSize = sizeof(Number) == 8 ? 3 : sizeof(Number) / 2;
    return (std::is_signed_v<Number> ? kSigned : kUnsigned)[kSize];
  }
  const char* boolean() const { return "BOOLEAN"; }
};

ValueType valueTypeOf(const SignalInfo& signal) {
  if (signal.category == Scalar && signal.dataType == ByteString) return {"texts", "VARCHAR"};
  const char* const element = functionFor(signal.dataType, NumberTypes());
  const bool isBlob = signal.category == Bus || signal.category == VarDimBus ||
                      signal.dataType == ByteString || signal.dataType == Binary;
  if (isBlob) return {"blobs", "BLOB"};
  if (element == nullptr) {
    if (!signal.dataStorageId) return {"numbers", "DOUBLE"};
    throw std::runtime_error(fmt::format("signal {}, {}, has samples of an unknown type",
                                         signal.signalId, inQuotes(signal.name)));
  }
  const std::string kind = signal.dataType == Boolean ? "truth values" : "numbers";
  if (signal.category == Scalar) return {kind, element};
  const bool hasShape = signal.category == VarDim;
  return {fmt::format("lists of {}{}", kind, hasShape ? " with shapes" : ""),
          fmt::format("{}[]", element), hasShape};
}

bool isFloating(const std::string& type) {
  return type.rfind("DOUBLE", 0) == 0 || type.rfind("FLOAT", 0) == 0;
}

std::string joined(const std::vector<std::string>& texts, std::string_view between) {
  return fmt::format("{}", fmt::join(texts, between));
}

// Puts relations beside each other, row by row. Each join copies the columns on its left, so that a
// row of joins costs the square of their number, and a tree of them does not.
std::string besideEachOther(const std::string* first, const std::string* last) {
  if (last - first == 1) return *first;
  const std::string* const middle = first + (last - first) / 2;
  return fmt::format("({} POSITIONAL JOIN {})", besideEachOther(first, middle),
                     besideEachOther(middle, last));
}

// Names that no signal has, neither as a view nor as a column.
std::vector<std::string> takenNames(const std::vector<SignalInfo>& signals) {
  constexpr std::string_view kTable = "table_";
  std::vector<std::string> taken{"samples", "signals", "run", "time"};
  for (const SignalInfo& signal : signals) {
    const std::string name = lowerCase(signal.name);
    const bool isTable = name.rfind(kTable, 0) == 0 &&
                         name.find_first_not_of("0123456789", kTable.size()) == std::string::npos;
    if (isTable) taken.push_back(name);
  }
  return taken;
}

}  // namespace

/// A recording whose files the queries read.
class SqlViews::Run {
 public:
  Run(const std::string& run, const std::string& folder, const RecordingReader& from,
      const std::vector<SignalInfo>& signals)
      : name(literal(run)),
        reader(from),
        folder_(wholePath(folder).string()),
        info_(from.info()),
        names_(takenNames(from.signals()), UniqueNames::Letters::equalInAnyCase) {
    requireFinished(reader, folder);  // other programs cannot read its files before
    for (const FileInfo& file : info_.files) files_.emplace(file.storageId, &file);
    for (const SignalInfo& signal : from.signals()) names_.add(signal);
    for (const SignalInfo& signal : signals) columns_[signal.signalId] = names_.nameOf(signal);
  }

  const FileInfo& content(int storageId) const { return *files_.at(storageId); }
  const std::string& columnOf(const SignalInfo& signal) const {
    return columns_.at(signal.signalId);
  }

  /// Whether both times and samples lie in packs.
  bool isPacked(const SignalInfo& signal) const {
    return signal.timeStorageId && signal.dataStorageId && content(*signal.timeStorageId).pack &&
           content(*signal.dataStorageId).pack;
  }

  std::string fileOf(const FileInfo& content) const {
    return fmt::format("{}/{}", folder_, pathOf(info_, content));
  }

  /// The first rows of a content, as a relation.
  std::string rowsOf(int storageId, std::uint64_t count) const {
    const FileInfo& file = content(storageId);
    if (!file.pack && count >= file.rowCount) return readParquet(fileOf(file));
    return fmt::format("(FROM {} WHERE file_row_number >= {} AND file_row_number < {})",
                       readParquet(fileOf(file), kRowNumbers), file.firstRow,
                       file.firstRow + std::min(count, file.rowCount));
  }

  const std::string name;
  const RecordingReader& reader;

 private:
  std::string folder_;
  recording::RecordingInfo info_;
  std::map<int, const FileInfo*> files_;  // by storage id
  UniqueNames names_;
  std::map<int, std::string> columns_;
};

void SqlViews::View::add(const std::vector<Column>& given, std::string query) {
  if (columns.empty()) columns = given;
  for (std::size_t i = 0; i < given.size(); ++i) {
    std::string& type = columns[i].type;
    // DuckDB would make floats of floats and integers of 32 bits. It finds a type for integers.
    if (type == given[i].type || !(isFloating(type) || isFloating(given[i].type))) continue;
    type = type.back() == ']' ? "DOUBLE[]" : "DOUBLE";
    isMixed = true;
  }
  if (!query.empty()) queries.push_back(std::move(query));
}

std::string SqlViews::View::text() const {
  std::vector<std::string> all;
  // Without rows, it says what the types are.
  if (isMixed || queries.empty()) {
    std::vector<std::string> nulls;
    for (const Column& column : columns) {
      nulls.push_back(fmt::format("NULL::{} AS {}", column.type, identifier(column.name)));
    }
    all.push_back(fmt::format("SELECT {} WHERE false", joined(nulls, ", ")));
  }
  all.insert(all.end(), queries.begin(), queries.end());
  return fmt::format("CREATE OR REPLACE VIEW {} AS\n{};\n", identifier(name),
                     joined(all, "\nUNION ALL\n"));
}

void SqlViews::add(const std::string& run, const std::string& folder, const RecordingReader& reader,
                   const std::vector<SignalInfo>& signals) {
  const Run source(run, folder, reader, signals);
  const std::map<int, std::string> tables = addTables(source, signals);
  for (const SignalInfo& signal : signals) {
    const auto table = tables.find(signal.signalId);
    addSignal(source, signal, table == tables.end() ? "NULL" : literal(table->second));
  }
  addPackedSamples(source, signals);
}

SqlViews::View& SqlViews::viewOf(const std::string& wanted, const std::string& kind) {
  const auto [found, isNew] = viewOfSignals_.try_emplace({lowerCase(wanted), kind}, views_.size());
  if (!isNew) return views_[found->second];
  std::string name = wanted;
  while (!viewNames_.insert(lowerCase(name)).second) name += fmt::format(" ({})", kind);
  views_.push_back({name, {}, {}});
  return views_.back();
}

void SqlViews::addSignal(const Run& run, const SignalInfo& signal, const std::string& table) {
  const ValueType type = valueTypeOf(signal);
  View& view = viewOf(run.columnOf(signal), type.kind);
  const std::string number = fmt::format("{}", signal.signalId);
  signals_.push_back(fmt::format("({}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {})", run.name, number,
                                 literal(view.name), literal(signal.name), literal(signal.unit),
                                 literal(signal.description),
                                 literal(std::string(typeName(signal.dataType))), signal.rowCount,
                                 signal.timeSpan ? literal(signal.timeSpan->from) : "NULL",
                                 signal.timeSpan ? literal(signal.timeSpan->to) : "NULL", table));
  std::vector<Column> columns{{"run", "VARCHAR"}, {"time", "DOUBLE"}, {"value", type.name}};
  if (type.hasShape) columns.push_back({"shape", "UBIGINT[]"});
  const std::uint64_t rows = run.reader.pairCount(signal.signalId);
  const std::string samples =
      signal.dataStorageId ? run.rowsOf(*signal.dataStorageId, rows) + " d" : "";
  const std::string times =
      signal.timeStorageId ? run.rowsOf(*signal.timeStorageId, rows) + " t" : "";
  if (rows == 0 || (samples.empty() && times.empty())) return view.add(columns, "");

  const bool hasTimes = run.reader.timeCount(signal.signalId) > 0;
  const char* const time = !times.empty() ? "t.data" : hasTimes ? "d.time" : "NULL::DOUBLE";
  const std::string from =
      times.empty() || samples.empty() ? times + samples : times + " POSITIONAL JOIN " + samples;
  const std::string value = samples.empty() ? "NULL::" + type.name : type.of("d.data");
  const char* const shape =
      samples.empty() ? ", NULL::UBIGINT[] AS shape" : ", d.dimension AS shape";
  view.add(columns, fmt::format("SELECT {} AS run, {} AS time, {} AS value{}\nFROM {}", run.name,
                                time, value, type.hasShape ? shape : "", from));
  if (!type.isNumber() || samples.empty() || run.isPacked(signal)) return;
  samples_.add({}, fmt::format("SELECT {} AS run, {} AS id, {} AS signal, {} AS time, "
                               "d.data::DOUBLE AS value\nFROM {}",
                               run.name, number, literal(view.name), time, from));
}

// Packs are read once for all signals.
void SqlViews::addPackedSamples(const Run& run, const std::vector<SignalInfo>& signals) {
  std::vector<std::string> packed;
  std::map<std::string, std::map<int, std::uint64_t>> packs;
  for (const SignalInfo& signal : signals) {
    const ValueType type = valueTypeOf(signal);
    if (!type.isNumber() || !run.isPacked(signal)) continue;
    const int parts[] = {*signal.timeStorageId, *signal.dataStorageId};
    for (const int part : parts) {
      const FileInfo& content = run.content(part);
      packs[readParquet(run.fileOf(content), kRowNumbers)][part] = content.firstRow;
    }
    packed.push_back(fmt::format("({}, {}, {}, {})", signal.signalId,
                                 literal(viewOf(run.columnOf(signal), type.kind).name), parts[0],
                                 parts[1]));
  }
  if (packed.empty()) return;
  std::vector<std::string> rows;
  for (const auto& [pack, contents] : packs) {
    std::vector<std::string> places;
    for (const auto& [id, first] : contents) places.push_back(fmt::format("({}, {})", id, first));
    rows.push_back(
        fmt::format("SELECT storage, file_row_number - first_row AS row, data::DOUBLE AS data\n"
                    "FROM {}\nJOIN (VALUES {}) places(storage, first_row) USING (storage)",
                    pack, joined(places, ", ")));
  }
  const std::string relation = joined(rows, "\nUNION ALL\n");
  samples_.add({}, fmt::format("SELECT {} AS run, id, signal, t.data AS time, d.data AS value\n"
                               "FROM (VALUES {}) s(id, signal, times, samples)\n"
                               "JOIN (\n{}\n) d ON d.storage = s.samples\n"
                               "JOIN (\n{}\n) t ON t.storage = s.times AND t.row = d.row",
                               run.name, joined(packed, ", "), relation, relation));
}

std::map<int, std::string> SqlViews::addTables(const Run& run,
                                               const std::vector<SignalInfo>& signals) {
  // By the time vector. DuckDB needs minutes for a table of 10,000 columns.
  constexpr std::size_t kMostColumns = 500;
  std::multimap<int, std::vector<const SignalInfo*>> groups;
  for (const SignalInfo& signal : signals) {
    const bool fits = signal.timeStorageId && signal.dataStorageId && !valueTypeOf(signal).hasShape;
    if (!fits) continue;
    const auto [first, last] = groups.equal_range(*signal.timeStorageId);
    const bool isFull = first == last || std::prev(last)->second.size() == kMostColumns;
    const auto group = isFull
                           ? groups.emplace(*signal.timeStorageId, std::vector<const SignalInfo*>())
                           : std::prev(last);
    group->second.push_back(&signal);
  }
  std::map<int, std::string> tables;
  for (const auto& [times, group] : groups) {
    const std::uint64_t rows = run.content(times).rowCount;
    std::vector<std::string> sources{
        fmt::format("(SELECT data AS time FROM {} t)", run.rowsOf(times, rows))};
    std::vector<Column> columns{{"run", "VARCHAR"}, {"time", "DOUBLE"}};
    std::string names;
    std::string key;
    for (const SignalInfo* signal : group) {
      const ValueType type = valueTypeOf(*signal);
      const std::string& name = run.columnOf(*signal);
      columns.push_back({name, type.name});
      sources.push_back(fmt::format("(SELECT {} AS {} FROM {} d)", type.of("d.data"),
                                    identifier(name), run.rowsOf(*signal->dataStorageId, rows)));
      names += ", " + identifier(name);
      key += identifier(lowerCase(name)) + type.kind;
    }
    const auto [found, isNew] = tableOf_.try_emplace(key, tables_.size());
    if (isNew) tables_.push_back({fmt::format("table_{}", tables_.size() + 1), {}, {}});
    View& table = tables_[found->second];
    table.add(columns,
              fmt::format("SELECT {} AS run, time{}\nFROM {}", run.name, names,
                          besideEachOther(sources.data(), sources.data() + sources.size())));
    for (const SignalInfo* signal : group) tables[signal->signalId] = table.name;
  }
  return tables;
}

std::string SqlViews::text(const std::string& query) const {
  const std::string asked = lowerCase(query);
  const auto isIn = [&](std::string_view word) { return asked.find(word) != std::string::npos; };
  constexpr std::array<std::string_view, 7> kForNames{
      "show", "duckdb_", "information_schema", "pragma", "sqlite_", ".tables", ".schema"};
  const bool isForAll = asked.empty() || std::any_of(kForNames.begin(), kForNames.end(), isIn);
  // A query has quotation marks in a name twice.
  const auto isAsked = [&](const std::string& name) {
    return isForAll || isIn(lowerCase(name)) || name.find('"') != std::string::npos;
  };
  std::string text;
  for (const std::vector<View>* views : {&views_, &tables_}) {
    for (const View& view : *views) {
      if (isAsked(view.name)) text += view.text();
    }
  }
  if (isAsked("samples")) text += samples_.text();
  if (!isAsked("signals")) return text;
  text +=
      "CREATE OR REPLACE TABLE signals(run VARCHAR, id INTEGER, signal VARCHAR, name VARCHAR, "
      "unit VARCHAR, description VARCHAR, type VARCHAR, \"rows\" UBIGINT, first_time DOUBLE, "
      "last_time DOUBLE, in_table VARCHAR);\n";
  if (signals_.empty()) return text;
  return text + fmt::format("INSERT INTO signals VALUES\n{};\n", joined(signals_, ",\n"));
}

}  // namespace kyr::tool

#include "sql/SqlViews.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <stdexcept>

#include "cli/Files.h"
#include "cli/Text.h"
#include "cli/UniqueNames.h"
#include "print/TypeFunctions.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace {

using recording::FileInfo;
using recording::RecordingReader;
using recording::SignalInfo;

std::string quoted(const std::string& text, char quote) {
  if (text.find('\0') != std::string::npos) {
    throw std::runtime_error(inQuotes(text) + " has a zero byte, which SQL cannot tell");
  }
  std::string result(1, quote);
  for (const char letter : text) result.append(letter == quote ? 2 : 1, letter);
  return result += quote;
}

std::string literal(const std::string& text) { return quoted(text, '\''); }
std::string identifier(const std::string& name) { return quoted(name, '"'); }

// A file as an argument of read_parquet(), which takes names for patterns.
std::string fileLiteral(const std::string& path) {
  std::string pattern;
  for (const char letter : path) {
    const bool isSpecial = letter == '*' || letter == '?' || letter == '[';
    pattern += isSpecial ? std::string{'[', letter, ']'} : std::string(1, letter);
  }
  return literal(pattern);
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}

struct NumberTypes {
  template <typename Number>
  const char* number() const {
    return "number";
  }
  const char* boolean() const { return "truth"; }
};

// What the samples are to SQL. Views have samples of one kind.
std::string kindOf(const SignalInfo& signal) {
  if (signal.category == Bus || signal.dataType == Binary) return "blob";
  if (signal.category == VarDimBus) return "blob with shape";
  if (signal.dataType == ByteString && signal.category == Scalar) return "text";
  const std::string element(
      signal.dataType == ByteString ? "blob" : functionFor(signal.dataType, NumberTypes()));
  if (signal.category == FixedDim) return element + " list";
  return signal.category == VarDim ? element + " list with shape" : element;
}

bool isNumber(const std::string& kind) { return kind == "number" || kind == "truth"; }
bool hasShape(const std::string& kind) { return kind.find("shape") != std::string::npos; }

std::string valueOf(const std::string& kind, const std::string& column) {
  if (kind == "text") return "decode(" + column + ")";
  if (kind == "truth") return column + "::BOOLEAN";
  return kind.rfind("truth", 0) == 0 ? column + "::BOOLEAN[]" : column;
}

std::string emptyQuery(const std::string& run, const std::string& kind) {
  const char* const type = kind.find("list") != std::string::npos ? "DOUBLE[]"
                           : kind == "truth"                      ? "BOOLEAN"
                           : kind == "text"                       ? "VARCHAR"
                           : kind == "number"                     ? "DOUBLE"
                                                                  : "BLOB";
  return fmt::format("SELECT {} AS run, NULL::DOUBLE AS time, NULL::{} AS value{} WHERE false", run,
                     type, hasShape(kind) ? ", NULL::UBIGINT[] AS shape" : "");
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

}  // namespace

/// A recording whose files the queries read.
class SqlViews::Run {
 public:
  Run(const std::string& run, const std::string& folder, const RecordingReader& from,
      const std::vector<SignalInfo>& signals)
      : name(literal(run)),
        reader(from),
        storage_((wholePath(folder) / "storage").string()),
        names_({"samples", "signals"}, UniqueNames::Letters::equalInAnyCase) {
    if (reader.state() != recording::RecordingState::finished) {
      throw std::runtime_error(folder +
                               " is not finished, and other programs cannot read its files yet");
    }
    for (FileInfo& file : from.info().files) files_.emplace(file.storageId, std::move(file));
    for (const SignalInfo& signal : from.signals()) names_.add(signal);
    for (const SignalInfo& signal : signals) columns_[signal.signalId] = names_.nameOf(signal);
  }

  const FileInfo& content(int storageId) const { return files_.at(storageId); }
  const std::string& columnOf(const SignalInfo& signal) const {
    return columns_.at(signal.signalId);
  }

  std::string packOf(const FileInfo& file) const {
    return fileLiteral(fmt::format("{}/pack-{}.parquet", storage_, *file.pack));
  }

  // The rows of a content, as a relation.
  std::string rowsOf(int storageId) const {
    const FileInfo& file = content(storageId);
    if (!file.pack) {
      return fmt::format("read_parquet({})",
                         fileLiteral(fmt::format("{}/{}", storage_, storageId)));
    }
    return fmt::format(
        "(FROM read_parquet({}, file_row_number = true) WHERE file_row_number BETWEEN {} AND {})",
        packOf(file), file.firstRow, file.firstRow + file.rowCount - 1);
  }

  const std::string name;
  const RecordingReader& reader;

 private:
  std::string storage_;
  std::map<int, FileInfo> files_;
  UniqueNames names_;
  std::map<int, std::string> columns_;
};

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
  const bool isNameOfTable = lowerCase(wanted).rfind("table_", 0) == 0;
  const std::string name = isNameOfTable ? wanted + " (signal)" : wanted;
  const auto [found, isNew] = kinds_.try_emplace(lowerCase(name), kind, views_.size());
  if (isNew) views_.push_back({name, {}});
  if (found->second.first == kind) return views_[found->second.second];
  return viewOf(fmt::format("{} ({})", wanted, kind), kind);
}

void SqlViews::addSignal(const Run& run, const SignalInfo& signal, const std::string& table) {
  const std::string kind = kindOf(signal);
  View& view = viewOf(run.columnOf(signal), kind);
  const std::string number = fmt::format("{}", signal.signalId);
  signals_.push_back(fmt::format(
      "({}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {})", run.name, number, literal(view.name),
      literal(signal.name), literal(signal.unit), literal(signal.description),
      literal(std::string(typeName(signal.dataType))), signal.rowCount,
      signal.timeSpan ? fmt::format("{}::DOUBLE", signal.timeSpan->from) : "NULL",
      signal.timeSpan ? fmt::format("{}::DOUBLE", signal.timeSpan->to) : "NULL", table));
  if (!signal.dataStorageId) {
    view.queries.push_back(emptyQuery(run.name, kind));
    return;
  }
  std::string time = "NULL::DOUBLE";
  std::string from = run.rowsOf(*signal.dataStorageId) + " d";
  if (signal.timeStorageId) {
    time = "t.data";
    from = run.rowsOf(*signal.timeStorageId) + " t POSITIONAL JOIN " + from;
  } else if (run.reader.timeCount(signal.signalId) > 0) {
    time = "d.time";
  }
  view.queries.push_back(fmt::format("SELECT {} AS run, {} AS time, {} AS value{}\nFROM {}",
                                     run.name, time, valueOf(kind, "d.data"),
                                     hasShape(kind) ? ", d.dimension AS shape" : "", from));
  const bool isPacked = run.content(*signal.dataStorageId).pack && signal.timeStorageId &&
                        run.content(*signal.timeStorageId).pack;
  if (!isNumber(kind) || isPacked) return;
  samples_.queries.push_back(
      fmt::format("SELECT {} AS run, {} AS id, {} AS signal, {} AS time, d.data::DOUBLE AS value\n"
                  "FROM {}",
                  run.name, number, literal(view.name), time, from));
}

// Packs are read once for all signals.
void SqlViews::addPackedSamples(const Run& run, const std::vector<SignalInfo>& signals) {
  std::vector<std::string> packed;
  std::map<std::string, std::map<int, std::uint64_t>> packs;
  for (const SignalInfo& signal : signals) {
    if (!isNumber(kindOf(signal)) || !signal.dataStorageId || !signal.timeStorageId) continue;
    const int parts[] = {*signal.timeStorageId, *signal.dataStorageId};
    if (!run.content(parts[0]).pack || !run.content(parts[1]).pack) continue;
    for (const int part : parts) {
      packs[run.packOf(run.content(part))][part] = run.content(part).firstRow;
    }
    packed.push_back(fmt::format("({}, {}, {}, {})", signal.signalId,
                                 literal(viewOf(run.columnOf(signal), kindOf(signal)).name),
                                 parts[0], parts[1]));
  }
  if (packed.empty()) return;
  std::vector<std::string> rows;
  for (const auto& [pack, contents] : packs) {
    std::vector<std::string> places;
    for (const auto& [id, first] : contents) places.push_back(fmt::format("({}, {})", id, first));
    rows.push_back(
        fmt::format("SELECT storage, file_row_number - first_row AS row, data::DOUBLE AS data\n"
                    "FROM read_parquet({}, file_row_number = true)\n"
                    "JOIN (VALUES {}) places(storage, first_row) USING (storage)",
                    pack, joined(places, ", ")));
  }
  const std::string relation = joined(rows, "\nUNION ALL\n");
  samples_.queries.push_back(
      fmt::format("SELECT {} AS run, id, signal, t.data AS time, d.data AS value\n"
                  "FROM (VALUES {}) s(id, signal, times, samples)\nJOIN (\n{}\n) d ON d.storage = "
                  "s.samples\nLEFT JOIN (\n{}\n) t ON t.storage = s.times AND t.row = d.row",
                  run.name, joined(packed, ", "), relation, relation));
}

std::map<int, std::string> SqlViews::addTables(const Run& run,
                                               const std::vector<SignalInfo>& signals) {
  // By the time vector. DuckDB needs minutes for a table of 10,000 columns.
  constexpr std::size_t kMostColumns = 500;
  std::multimap<int, std::vector<const SignalInfo*>> groups;
  for (const SignalInfo& signal : signals) {
    const bool fits = signal.timeStorageId && signal.dataStorageId && !hasShape(kindOf(signal));
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
    std::vector<std::string> sources{
        fmt::format("(SELECT data AS time FROM {} t)", run.rowsOf(times))};
    std::vector<std::string> columns;
    std::string key;
    for (const SignalInfo* signal : group) {
      const std::string kind = kindOf(*signal);
      const std::string& name = run.columnOf(*signal);
      // The time has its name, whatever signals are called.
      const std::string column = identifier(lowerCase(name) == "time" || lowerCase(name) == "run"
                                                ? fmt::format("{} ({})", name, signal->signalId)
                                                : name);
      sources.push_back(fmt::format("(SELECT {} AS {} FROM {} d)", valueOf(kind, "d.data"), column,
                                    run.rowsOf(*signal->dataStorageId)));
      columns.push_back(column);
      key += column + kind + ";";
    }
    const auto [found, isNew] = tableOf_.try_emplace(key, tables_.size());
    if (isNew) tables_.push_back({fmt::format("table_{}", tables_.size() + 1), {}});
    View& table = tables_[found->second];
    table.queries.push_back(
        fmt::format("SELECT {} AS run, time, {}\nFROM {}", run.name, joined(columns, ", "),
                    besideEachOther(sources.data(), sources.data() + sources.size())));
    for (const SignalInfo* signal : group) tables[signal->signalId] = table.name;
  }
  return tables;
}

std::string SqlViews::text(const std::string& query) const {
  const std::string asked = lowerCase(query);
  std::string text;
  const auto isAsked = [&](const std::string& name) {
    // A name in quotation marks has its own ones twice.
    return asked.empty() || asked.find(lowerCase(name)) != std::string::npos ||
           name.find('"') != std::string::npos;
  };
  const auto addView = [&](const View& view) {
    if (view.queries.empty() || !isAsked(view.name)) return;
    text += fmt::format("CREATE OR REPLACE VIEW {} AS\n{};\n", identifier(view.name),
                        joined(view.queries, "\nUNION ALL\n"));
  };
  for (const View& view : views_) addView(view);
  for (const View& table : tables_) addView(table);
  addView(samples_);
  if (!signals_.empty() && isAsked("signals")) {
    text += fmt::format(
        "CREATE OR REPLACE TABLE signals AS\nFROM (VALUES\n{}\n) signals(run, id, signal, name, "
        "unit, description, type, \"rows\", first_time, last_time, in_table);\n",
        joined(signals_, ",\n"));
  }
  return text;
}

}  // namespace kyr::tool

#include "recording/PackedFormat.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "recording/Checksum.h"
#include "recording/SignalJson.h"
#include "schema/TypeNames.h"

namespace kyr::recording {

namespace {

constexpr std::string_view kChecksumMember = R"(,"xxh3_128":")";
constexpr std::size_t kDigits = 32;

bool isPlain(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x20 && byte < 0x80 && c != '"' && c != '\\';
}

bool isPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return isPlain(c); });
}

class Writer {
 public:
  explicit Writer(const RecordingInfo& info) {
    constexpr std::size_t kPerSignal = 320;
    text_.reserve(kPerSignal * (info.signals.size() + 1));
    text_ += R"({"files":[)";
    each(info.files, [this](const FileInfo& file) { add(file); });
    format(R"(],"format":"kyr recording","formatVersion":{},"packs":[)", info.formatVersion);
    each(info.packs, [this](const PackInfo& pack) {
      format(R"({{"pack":{},"rowCount":{},"size":{},"xxh3_128":"{}"}})", pack.number, pack.rowCount,
             pack.size, pack.checksum);
    });
    text_ += R"(],"signals":[)";
    each(info.signals, [this](const SignalInfo& signal) { add(signal); });
    text_ += "]";
  }

  // The checksum is of the object without it.
  std::string take() {
    Checksum checksum;
    checksum.add(text_.data(), text_.size());
    checksum.add("}", 1);
    format("{}{}\"}}\n", kChecksumMember, checksum.digits());
    return std::move(text_);
  }

 private:
  template <typename... Args>
  void format(fmt::format_string<Args...> pattern, Args&&... args) {
    fmt::format_to(std::back_inserter(text_), pattern, std::forward<Args>(args)...);
  }

  template <typename Items, typename Add>
  void each(const Items& items, Add&& add) {
    bool isFirst = true;
    for (const auto& item : items) {
      if (!std::exchange(isFirst, false)) text_ += ',';
      add(item);
    }
  }

  void add(const FileInfo& file) {
    if (file.pack) {
      format(R"({{"firstRow":{},"pack":{},"rowCount":{},"storageId":{}}})", file.firstRow,
             *file.pack, file.rowCount, file.storageId);
    } else {
      format(R"({{"rowCount":{},"size":{},"storageId":{},"xxh3_128":"{}"}})", file.rowCount,
             file.size, file.storageId, file.checksum);
    }
  }

  void add(const SignalInfo& signal) {
    if (!isPlain(signal.name) || !isPlain(signal.unit) || !isPlain(signal.description)) {
      requireText(signal);
    }
    format(R"({{"category":"{}","compression":"{}","dataStorageId":)",
           categoryName(signal.category), signal.compression);
    add(signal.dataStorageId);
    format(R"(,"dataType":"{}","description":)", dataTypeName(signal.dataType));
    add(signal.description);
    text_ += R"(,"dimensions":[)";
    each(signal.dimensions, [this](std::size_t extent) { format("{}", extent); });
    format(R"(],"id":{},"name":)", signal.signalId);
    add(signal.name);
    format(R"(,"rowCount":{},"timeSpan":)", signal.rowCount);
    add(signal.timeSpan);
    text_ += R"(,"timeStorageId":)";
    add(signal.timeStorageId);
    text_ += R"(,"unit":)";
    add(signal.unit);
    text_ += '}';
  }

  void add(const std::optional<int>& id) {
    if (id) {
      format("{}", *id);
    } else {
      text_ += "null";
    }
  }

  void add(const std::string& text) {
    if (isPlain(text)) {
      text_ += '"';
      text_ += text;
      text_ += '"';
    } else {
      text_ += nlohmann::json(text).dump();
    }
  }

  // Signals that follow each other mostly have the same times. JSON has no infinities.
  void add(const std::optional<TimeSpan>& span) {
    if (!span || !std::isfinite(span->from) || !std::isfinite(span->to)) {
      text_ += "null";
      return;
    }
    if (spanText_.empty() || span->from != span_.from || span->to != span_.to ||
        std::signbit(span->from) != std::signbit(span_.from) ||
        std::signbit(span->to) != std::signbit(span_.to)) {
      span_ = *span;
      spanText_ = nlohmann::json{span->from, span->to}.dump();
    }
    text_ += spanText_;
  }

  std::string text_;
  TimeSpan span_;
  std::string spanText_;  // of span_
};

// Goes through a text; every member says whether it found what it expects. Nothing follows a no.
class Reader {
 public:
  // Without the last brace of the object.
  explicit Reader(std::string_view text) : rest_(text) {}

  bool read(RecordingInfo& info) {
    return literal(R"({"files":)") &&
           each(info.files, [this](FileInfo& file) { return read(file); }) &&
           literal(R"(,"format":"kyr recording","formatVersion":)") && number(info.formatVersion) &&
           literal(R"(,"packs":)") &&
           each(info.packs, [this](PackInfo& pack) { return read(pack); }) &&
           literal(R"(,"signals":)") &&
           each(info.signals, [this](SignalInfo& signal) { return read(signal); }) && rest_.empty();
  }

 private:
  bool literal(std::string_view expected) {
    if (rest_.substr(0, expected.size()) != expected) return false;
    rest_.remove_prefix(expected.size());
    return true;
  }

  template <typename T>
  bool number(T& value) {
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error != std::errc()) return false;
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    return true;
  }

  template <typename Items, typename Read>
  bool each(Items& items, Read&& readItem) {
    if (!literal("[")) return false;
    if (literal("]")) return true;
    do {
      if (!readItem(items.emplace_back())) return false;
    } while (literal(","));
    return literal("]");
  }

  bool read(FileInfo& file) {
    if (literal(R"({"firstRow":)")) {
      return number(file.firstRow) && literal(R"(,"pack":)") && number(file.pack.emplace()) &&
             literal(R"(,"rowCount":)") && number(file.rowCount) && literal(R"(,"storageId":)") &&
             number(file.storageId) && literal("}");
    }
    return literal(R"({"rowCount":)") && number(file.rowCount) && literal(R"(,"size":)") &&
           number(file.size) && literal(R"(,"storageId":)") && number(file.storageId) &&
           literal(R"(,"xxh3_128":)") && text(file.checksum) && literal("}");
  }

  bool read(PackInfo& pack) {
    return literal(R"({"pack":)") && number(pack.number) && literal(R"(,"rowCount":)") &&
           number(pack.rowCount) && literal(R"(,"size":)") && number(pack.size) &&
           literal(R"(,"xxh3_128":)") && text(pack.checksum) && literal("}");
  }

  bool read(SignalInfo& signal) {
    return literal(R"({"category":)") && named(signal.category, category_, categoryCalled) &&
           literal(R"(,"compression":)") && text(signal.compression) &&
           literal(R"(,"dataStorageId":)") && id(signal.dataStorageId) &&
           literal(R"(,"dataType":)") && named(signal.dataType, type_, dataTypeCalled) &&
           literal(R"(,"description":)") && text(signal.description) &&
           literal(R"(,"dimensions":)") &&
           each(signal.dimensions, [this](std::size_t& extent) { return number(extent); }) &&
           literal(R"(,"id":)") && number(signal.signalId) && literal(R"(,"name":)") &&
           text(signal.name) && literal(R"(,"rowCount":)") && number(signal.rowCount) &&
           literal(R"(,"timeSpan":)") && span(signal.timeSpan) && literal(R"(,"timeStorageId":)") &&
           id(signal.timeStorageId) && literal(R"(,"unit":)") && text(signal.unit) && literal("}");
  }

  bool id(std::optional<int>& value) { return literal("null") || number(value.emplace()); }

  bool text(std::string& value) {
    if (!literal("\"")) return false;
    const auto end =
        std::find_if_not(rest_.begin(), rest_.end(), [](char c) { return isPlain(c); });
    if (end == rest_.end()) return false;
    const auto length = static_cast<std::size_t>(end - rest_.begin());
    if (*end != '"') return oddText(value);
    value.assign(rest_.data(), length);
    rest_.remove_prefix(length + 1);
    return true;
  }

  // With escapes, or letters that are not ASCII. What was taken is behind the first quotation mark.
  bool oddText(std::string& value) {
    std::size_t end = 0;
    while (end < rest_.size() && rest_[end] != '"') end += rest_[end] == '\\' ? 2 : 1;
    if (end >= rest_.size()) return false;
    const std::string_view token(rest_.data() - 1, end + 2);
    const auto parsed = nlohmann::json::parse(token, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_string()) return false;
    parsed.get_to(value);
    rest_.remove_prefix(end + 1);
    return true;
  }

  // Those of a signal are mostly those of the one before.
  template <typename Value>
  struct Named {
    Value value;
    std::string text;  // as it stands in the text
  };

  template <typename Value, typename Called>
  bool named(Value& value, Named<Value>& last, Called&& called) {
    if (!literal(last.text)) {
      std::string name;
      if (!text(name)) return false;
      last = {called(name), "\"" + name + "\""};
    }
    value = last.value;
    return true;
  }

  bool span(std::optional<TimeSpan>& value) {
    if (literal("null")) return true;
    if (!lastSpan_.empty() && literal(lastSpan_)) {
      value = span_;
      return true;
    }
    const std::string_view before = rest_;
    if (!literal("[") || !number(span_.from) || !literal(",") || !number(span_.to) ||
        !literal("]")) {
      return false;
    }
    lastSpan_ = before.substr(0, before.size() - rest_.size());
    value = span_;
    return true;
  }

  std::string_view rest_;
  Named<KYRSignalCategory> category_{Scalar, "\"Scalar\""};
  Named<KYRSignalDataType> type_{Double, "\"Double\""};
  TimeSpan span_;
  std::string_view lastSpan_;
};

}  // namespace

std::string writePackedJson(const RecordingInfo& info) { return Writer(info).take(); }

std::optional<RecordingInfo> readPackedJson(std::string_view text) {
  const std::size_t tail = kChecksumMember.size() + kDigits + 3;  // of what writePackedJson() adds
  if (text.size() < tail) return std::nullopt;
  const std::string_view content = text.substr(0, text.size() - tail);
  Checksum checksum;
  checksum.add(content.data(), content.size());
  checksum.add("}", 1);
  if (text.substr(content.size()) !=
      fmt::format("{}{}\"}}\n", kChecksumMember, checksum.digits())) {
    return std::nullopt;
  }
  RecordingInfo info;
  try {
    if (!Reader(content).read(info)) return std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;  // an unknown type or category
  }
  return info;
}

}  // namespace kyr::recording

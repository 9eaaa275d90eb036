#include "cli/Settings.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cli/Errors.h"
#include "cli/Text.h"
#include "cli/Usage.h"
#include "kyr/host/ReferenceHost.h"
#include "kyr/host/Registration.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/platform/Path.h"

namespace kyr::tool {

namespace {

using host::HostArray;
using host::HostValue;
using host::ReferenceHost;

enum class Kind { codec, logical, whole };

struct Option {
  const char* name;
  Kind kind;
  const char* meaning;
};

constexpr const char* kCodecOption = "Compression";

constexpr std::array<Option, 5> kOptions{{
    {kCodecOption, Kind::codec,
     "Codec of the files: uncompressed, snappy, gzip, brotli, zstd or lz4_hadoop"},
    {"Dictionary", Kind::logical,
     "Whether columns are dictionary-encoded: smaller where values repeat, slower where not"},
    {"DictionaryLimit", Kind::whole,
     "Bytes of dictionary at which the rest of a column is written plainly"},
    {"BatchSize", Kind::whole, "Rows that are encoded at a time, 1 or more"},
    {"SharedTimeColumn", Kind::logical,
     "Whether times are stored in files that signals share, or beside each signal's samples"},
}};

constexpr const char* kSetter = "Tarnwick.kyr.setParquetOptions";
constexpr const char* kGetter = "Tarnwick.kyr.getParquetOptions";

const Option& optionCalled(std::string_view name) {
  for (const Option& option : kOptions) {
    if (name == option.name) return option;
  }
  std::vector<std::string> names;
  names.reserve(kOptions.size());
  for (const Option& option : kOptions) names.emplace_back(option.name);
  throw UsageError(fmt::format("--set {}: there is no such option{} (kyr options lists {})", name,
                               suggestion(std::string(name), names), fmt::join(names, ", ")));
}

// The script host of the tool, with the library registered.
ReferenceHost& scriptHost() {
  static ReferenceHost host;
  static const bool isRegistered = [] {
    kyr_install_host(&host);
    VXInitialize_kyr_parquet_serialization();
    return true;
  }();
  static_cast<void>(isRegistered);
  return host;
}

bool& isCodecChosen() {
  static bool isChosen = false;
  return isChosen;
}

// The library accepts these codecs, but Parquet does not.
void requireWritable(const Option& option, std::string_view value) {
  if (option.kind == Kind::codec && (value == "lzo" || value == "lz4_frame")) {
    throw UsageError(
        fmt::format("--set {}={}: Parquet files cannot be written with this codec, use "
                    "uncompressed, snappy, gzip, brotli, zstd or lz4_hadoop",
                    option.name, value));
  }
}

HostValue wholeNumber(const Option& option, std::string_view text) {
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 1) {
    throw UsageError(
        fmt::format("--set {}={}: give a whole number from 1 to 2147483647", option.name, text));
  }
  return scriptHost().createNumber(number);
}

HostValue valueFor(const Option& option, std::string_view text) {
  switch (option.kind) {
    case Kind::codec:
      return scriptHost().createString(toUtf16(text));
    case Kind::logical:
      if (text != "true" && text != "false") {
        throw UsageError(fmt::format("--set {}={}: give true or false", option.name, text));
      }
      return scriptHost().createLogicalScalar(text == "true");
    case Kind::whole:
      return wholeNumber(option, text);
  }
  throw std::logic_error("an option of no kind");
}

std::string textOf(const HostArray& value, Kind kind) {
  switch (kind) {
    case Kind::codec:
      return toUtf8(value.text());
    case Kind::logical:
      return value.isLogicalScalarTrue() ? "true" : "false";
    case Kind::whole:
      return fmt::format("{}", static_cast<std::int32_t>(value.scalar()));
  }
  throw std::logic_error("an option of no kind");
}

std::string choicesOf(Kind kind) {
  if (kind == Kind::codec) return writableCodecs();
  return kind == Kind::logical ? "true false" : "";
}

}  // namespace

std::vector<Setting> currentSettings() {
  const HostValue values = scriptHost().invoke(kGetter);
  std::vector<Setting> settings;
  settings.reserve(kOptions.size());
  for (const Option& option : kOptions) {
    settings.push_back({option.name, textOf(*values->field(0, option.name), option.kind),
                        option.meaning, choicesOf(option.kind)});
  }
  return settings;
}

std::string writableCodecs() { return "uncompressed snappy gzip brotli zstd lz4_hadoop"; }

void addSetOption(CLI::App& command, std::vector<std::string>& settings) {
  command
      .add_option_function<std::vector<std::string>>(
          "--set",
          [&settings](const std::vector<std::string>& given) {
            settings.insert(settings.end(), given.begin(), given.end());
          },
          "Set an option of the library, see kyr options; may be given repeatedly")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false);
}

void addCompressionOption(CLI::App& command, std::vector<std::string>& settings) {
  command
      .add_option_function<std::string>(
          "--compression",
          [&settings](const std::string& codec) { settings.push_back("Compression=" + codec); },
          "Codec of the files: uncompressed, snappy, gzip, brotli, zstd or lz4_hadoop; short for "
          "--set Compression=CODEC. Unless given, recordings choose it from the data, and other "
          "files are not compressed")
      ->type_name("CODEC");
}

std::optional<::arrow::Compression::type> chosenCodec() {
  if (!isCodecChosen()) return std::nullopt;
  return parquet::serialization_options::compressionMethod;
}

void requireSharedTimes() {
  if (parquet::serialization_options::bSharedTimeColumn) return;
  throw UsageError("--set SharedTimeColumn=false: the signals of a recording share their times");
}

void applySettings(const std::vector<std::string>& settings) {
  std::vector<std::string> names;
  std::vector<HostValue> values;
  for (const std::string& setting : settings) {
    const std::size_t equals = std::min(setting.find('='), setting.size());
    const Option& option = optionCalled(std::string_view(setting).substr(0, equals));
    if (equals == setting.size()) {
      throw UsageError(fmt::format("--set {}: give a value, {}=VALUE", setting, setting));
    }
    if (std::find(names.begin(), names.end(), option.name) != names.end()) {
      throw UsageError(fmt::format("{} is set twice", option.name));
    }
    const std::string_view value = std::string_view(setting).substr(equals + 1);
    requireWritable(option, value);
    names.emplace_back(option.name);
    values.push_back(valueFor(option, value));
  }
  HostValue options = scriptHost().createStruct(1, 1, names);
  for (std::size_t i = 0; i < names.size(); ++i) {
    options->setField(0, names[i], std::move(values[i]));
  }
  try {
    scriptHost().invoke(kSetter, std::move(options));
  } catch (const std::invalid_argument& error) {
    throw UsageError(singleLine(error.what()));
  }
  isCodecChosen() |= std::find(names.begin(), names.end(), kCodecOption) != names.end();
}

}  // namespace kyr::tool

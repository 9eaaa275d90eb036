#include "safe/PartNotes.h"

#include <algorithm>
#include <tuple>

#include "schema/JsonMembers.h"

namespace kyr {

namespace {

struct JsonPart {
  static void read(JsonReader& in, parquet::SignalPart& part) {
    const std::string name = readText(in, "\"time\" or \"data\"");
    if (name != "time" && name != "data") {
      throw JsonValueError("", "is \"" + name + "\", expected \"time\" or \"data\"");
    }
    part = name == "time" ? parquet::SignalPart::time : parquet::SignalPart::data;
  }
  static void write(JsonWriter& out, parquet::SignalPart part) {
    out.text(part == parquet::SignalPart::time ? "time" : "data");
  }
};

}  // namespace

template <>
struct JsonObject<parquet::PartNote> {
  using T = parquet::PartNote;
  static constexpr auto members =
      std::make_tuple(member<T>("category", &T::category), member<T>("dataType", &T::dataType),
                      member<T>("name", &T::name), member<T, JsonPart>("part", &T::part),
                      member<T>("signalId", &T::signalId), member<T>("unit", &T::unit));
};

}  // namespace kyr

namespace kyr::parquet {

namespace {

constexpr std::size_t kMostTextBytes = 128;

// The beginning of a text, as many bytes of it as whole letters of UTF-8 have.
std::string beginning(const std::string& text) {
  if (text.size() <= kMostTextBytes) return text;
  std::size_t size = kMostTextBytes;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) --size;
  return text.substr(0, size);
}

PartNote noteOf(const PartLabel& label) {
  const SignalLabel& signal = *label.signal;
  return {signal.signalId,        label.part,
          signal.dataType,        signal.category,
          beginning(signal.name), beginning(signal.unit)};
}

}  // namespace

std::string writePartNotes(const PartLabel* first, std::size_t mostParts) {
  std::vector<const PartLabel*> labels;
  for (const PartLabel* label = first; label != nullptr; label = label->next) {
    labels.push_back(label);
  }
  const std::size_t listed = std::min(labels.size(), mostParts);
  std::partial_sort(labels.begin(), labels.begin() + static_cast<std::ptrdiff_t>(listed),
                    labels.end(), [](const PartLabel* a, const PartLabel* b) {
                      return std::make_pair(a->signal->signalId, a->part) <
                             std::make_pair(b->signal->signalId, b->part);
                    });
  JsonWriter out(JsonWriter::Layout::compact);
  out.beginArray();
  for (std::size_t i = 0; i < listed; ++i) JsonValue<PartNote>::write(out, noteOf(*labels[i]));
  if (listed < labels.size()) {
    out.beginObject();
    out.key("others");
    out.number(static_cast<std::uint64_t>(labels.size() - listed));
    out.endObject();
  }
  out.endArray();
  return out.take();
}

std::vector<PartNote> readPartNotes(std::string_view text) {
  std::vector<PartNote> notes;
  JsonReader in(text);
  try {
    in.takeArray([&] {
      const std::size_t begin = in.position();
      const int depth = in.depth();
      try {
        PartNote note;
        JsonValue<PartNote>::read(in, note);
        notes.push_back(std::move(note));
      } catch (const JsonValueError&) {
        // The number of those that are not listed, or an entry of another version.
        in.rewind(begin, depth);
        in.skip();
      }
    });
  } catch (const JsonSyntaxError&) {
    return notes;
  }
  return notes;
}

}  // namespace kyr::parquet

// The texts of a recording, in any state: recording.json, recording.live.json, lines of the
// journal, and the notes in footers. A text is read or refused by an exception; a document that was
// read comes back when it is written.

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "MayRefuse.h"
#include "platform/JsonReader.h"
#include "recording/JsonDocument.h"
#include "recording/LiveFormat.h"
#include "recording/RecordingFormat.h"
#include "safe/PartNotes.h"

namespace {

using namespace kyr;
using namespace kyr::recording;

using kyr::fuzz::mayRefuse;

// Documents carry their own checksum, which no mutation would ever fit.
std::string sound(std::string_view text) {
  try {
    if (hasValidChecksum(text)) return std::string(text);
    return withChecksum(std::string(text), JsonWriter::Layout::compact);
  } catch (const std::exception&) {
    return std::string(text);
  }
}

void readDocuments(std::string_view text) {
  const std::string document = sound(text);
  mayRefuse([&] {
    const RecordingInfo info = readRecordingJson(document, "recording.json");
    const std::string written = writeRecordingJson(info);
    if (writeRecordingJson(readRecordingJson(written, "written")) != written) std::abort();
  });
  mayRefuse([&] {
    const std::string written = writeLiveJson(readLiveJson(document, "recording.live.json"));
    if (writeLiveJson(readLiveJson(written, "written")) != written) std::abort();
  });
  mayRefuse([&] { salvageSignals(text); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  readDocuments(text);
  LiveDescription live;
  live.sequence = 10;
  live.signals.resize(10);
  mayRefuse([&] { readJournalLine(text, live); });
  mayRefuse([&] { parquet::readPartNotes(text); });
  return 0;
}

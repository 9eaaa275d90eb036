#include "export/ExportSignals.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/SignalSelection.h"
#include "cli/Text.h"
#include "cli/UniqueNames.h"
#include "csv/CsvTokenizer.h"
#include "csv/HeaderNames.h"
#include "export/HivePath.h"
#include "kyr/parquet/ColumnNames.h"
#include "print/SampleCursor.h"

namespace kyr::tool {

using recording::SignalInfo;

namespace {

// A byte string need not be a text: the table says that it is one only where all samples are.
bool holdsTexts(const SignalInfo& signal, const recording::RecordingReader& reader) {
  if (signal.category != Scalar || signal.dataType != ByteString) return false;
  if (!signal.dataStorageId) return false;
  recording::SampleBlocks blocks = reader.blocks(signal.signalId);
  while (const recording::SampleBlock* block = blocks.next()) {
    for (std::size_t i = 0; i < block->rows; ++i) {
      const auto [begin, end] = elementsOf(*block, i);
      if (!isUtf8({static_cast<const char*>(block->elements) + begin, end - begin})) return false;
    }
  }
  return true;
}

// Returns why the table cannot hold a signal; empty if it can.
std::string obstacle(const SignalInfo& signal, const recording::RecordingReader& reader,
                     const ExportOptions& options, bool isText) {
  if (!signal.dataStorageId || signal.rowCount == 0) return "it has no samples";
  if (reader.withSameTimes(signal.signalId).empty()) return "it has no times";
  const std::uint64_t times = reader.timeCount(signal.signalId);
  const std::uint64_t samples = reader.sampleCount(signal.signalId);
  if (times != samples) {
    return fmt::format("it has {} but {}", counted(times, "time"), counted(samples, "sample"));
  }
  if (isNumber(signal)) return "";
  if (isText && !options.isLong) return "";
  const bool isMatrix =
      (signal.category == FixedDim || signal.category == VarDim) && signal.dataType != Binary;
  const char* const kind = isText     ? "its samples are texts"
                           : isMatrix ? "its samples are matrices"
                                      : "its samples are blobs";
  if (options.isLong) return fmt::format("{}, and a long table holds numbers", kind);
  if (options.format == ExportFormat::csv) return fmt::format("{}, and CSV holds numbers", kind);
  return "";
}

void nameColumns(std::vector<ExportSignal>& signals, bool hasTimeColumn) {
  std::vector<std::string> taken;
  if (hasTimeColumn) taken.emplace_back(parquet::columnNames::time);
  UniqueNames names(taken, UniqueNames::Letters::differByCase);
  for (const ExportSignal& signal : signals) names.add(signal.info);
  for (ExportSignal& signal : signals) {
    signal.column = names.nameOf(signal.info);
    if (signal.column == signal.info.name) continue;
    tell(fmt::format(
        "signal {}, {}, is called {} in the table, because its name is not unique there",
        signal.info.signalId, inQuotes(signal.info.name), inQuotes(signal.column)));
  }
}

}  // namespace

std::string csvHeader(const ExportSignal& signal) {
  const bool hasUnit = signal.column != signal.info.name && signal.column == withUnit(signal.info);
  return hasUnit ? signal.column : joinHeader(signal.column, signal.info.unit);
}

bool isNumber(const SignalInfo& signal) {
  return signal.category == Scalar && signal.dataType != ByteString && signal.dataType != Binary &&
         signal.dataType != Null;
}

std::vector<ExportSignal> exportedSignals(const recording::RecordingReader& reader,
                                          const ExportOptions& options, Losses& losses) {
  std::vector<ExportSignal> signals;
  const auto leaveOut = [&losses](const SignalInfo& signal, const std::string& reason) {
    losses.add(fmt::format("signal {}, {}, is left out: {}", signal.signalId, inQuotes(signal.name),
                           reason));
  };
  for (const SignalInfo& signal :
       distinctSignals(chosenSignals(reader, options.signals, options.folder))) {
    stopIfInterrupted();
    const bool isText = holdsTexts(signal, reader);
    const std::string reason = obstacle(signal, reader, options, isText);
    if (reason.empty()) {
      signals.push_back({signal, reader.withSameTimes(signal.signalId).front(), isText, ""});
    } else {
      leaveOut(signal, reason);
    }
  }
  nameColumns(signals, !options.isLong);
  if (options.isPartitioned) {
    const auto fits = [&](const ExportSignal& signal) {
      if (isFileName(partitionFolder("signal", signal.column))) return true;
      leaveOut(signal.info, "its name is too long for a folder");
      return false;
    };
    signals.erase(std::stable_partition(signals.begin(), signals.end(), fits), signals.end());
  }
  losses.settle();
  if (signals.empty()) {
    throw std::runtime_error(options.folder +
                             ": no signal is left that could be exported; kyr info shows what "
                             "the recording holds");
  }
  return signals;
}

}  // namespace kyr::tool

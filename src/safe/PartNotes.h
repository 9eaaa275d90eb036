#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kyr/parquet/SignalTypes.h"
#include "safe/SignalLabel.h"

namespace kyr::parquet {

/// The key of a file's metadata under which the notes are.
constexpr const char* kPartNotesKey = "kyr.signals";

/// How many parts are listed: few where the file is finished, because there is a list of signals
/// then, and more where the notes may be needed to recover which signals shared the file.
constexpr std::size_t kPartsOfFinished = 4;
constexpr std::size_t kPartsOfGrowing = 32;

/// What a file says of a part of a signal to which it belonged when it was made. This is all that
/// is known of the signal if the list of signals is lost.
struct PartNote {
  int signalId = 0;
  SignalPart part = SignalPart::data;
  KYRSignalDataType dataType = Double;
  KYRSignalCategory category = Scalar;
  std::string name;
  std::string unit;
};

/// The text of the notes on the parts that share a file, for its metadata.
///
/// The text is part of every footer of the file, so its length is bounded whatever the signals are
/// called: names and units are cut, and of many parts only the first few by signal id are listed,
/// with the number of the others behind them.
/// \param first  the first of the linked labels of the file's parts
/// \param mostParts  that are listed
std::string writePartNotes(const PartLabel* first, std::size_t mostParts);

/// The notes of such a text. Those that cannot be read are left out.
std::vector<PartNote> readPartNotes(std::string_view text);

}  // namespace kyr::parquet

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "kyr/recording/Recording.h"
#include "platform/Folder.h"
#include "recording/Attributes.h"
#include "recording/SignalTable.h"

namespace kyr::recording {

void updateRecording(const Path& folder, const std::vector<SignalDescription>& descriptions,
                     const Attributes& attributes) {
  RecordingInfo info = describeRecording(folder);
  info.attributes = normalised(attributes);
  for (const SignalDescription& description : descriptions) {
    const auto signal =
        std::find_if(info.signals.begin(), info.signals.end(),
                     [&](const SignalInfo& each) { return each.signalId == description.signalId; });
    if (signal == info.signals.end()) {
      throw std::invalid_argument(
          fmt::format("{}: has no signal {}", folder.toNarrow(), description.signalId));
    }
    if (signal->dimensions != description.dimensions) {
      throw std::invalid_argument(
          fmt::format("signal {}: its samples have other dimensions", description.signalId));
    }
    static_cast<SignalDescription&>(*signal) = description;
  }
  writeDescription(Folder(folder.toFilesystem()), info, /*syncs=*/true);
}

}  // namespace kyr::recording

#include "cli/Losses.h"

#include <fmt/format.h>

#include <stdexcept>

#include "cli/Output.h"

namespace kyr::tool {

void Losses::settle() {
  if (isStrict_ && !texts_.empty()) {
    throw std::runtime_error(fmt::format(
        "{}{}: nothing was {} because of --strict", texts_.front(),
        texts_.size() > 1 ? fmt::format(" (and {} more)", texts_.size() - 1) : std::string(),
        done_));
  }
  for (const std::string& text : texts_) tell("warning: " + text);
  texts_.clear();
}

}  // namespace kyr::tool

#include "cli/GivenAttributes.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/Errors.h"

namespace kyr::tool {

void addAttributeOption(CLI::App& command, std::vector<std::string>& attributes) {
  command
      .add_option(
          "--attribute", attributes,
          "Say something of the recording as a whole: a text, or another JSON value; may be "
          "given repeatedly")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false);
}

std::string jsonText(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', /*ensure_ascii=*/false,
                                   nlohmann::json::error_handler_t::replace);
}

std::string jsonValue(const std::string& given) {
  return nlohmann::json::accept(given) ? given : jsonText(given);
}

recording::Attributes givenAttributes(const std::vector<std::string>& attributes) {
  recording::Attributes result;
  for (const std::string& attribute : attributes) {
    const std::size_t equals = attribute.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw UsageError(fmt::format("--attribute {}: give NAME=VALUE", attribute));
    }
    result[attribute.substr(0, equals)] = jsonValue(attribute.substr(equals + 1));
  }
  return result;
}

}  // namespace kyr::tool

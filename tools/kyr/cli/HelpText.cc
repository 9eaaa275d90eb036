#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <sstream>
#include <string>

#include "cli/CommandLine.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kWidth = 100;
constexpr std::size_t kIndent = 30;

// Breaks a text into lines that stand to the right of the names.
std::string wrapped(const std::string& text) {
  std::string lines;
  std::size_t column = kIndent;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const bool isFirst = column == kIndent;
    if (!isFirst && column + 1 + word.size() > kWidth) {
      lines += "\n" + std::string(kIndent, ' ');
      column = kIndent;
    } else if (!isFirst) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += word.size();
  }
  return lines;
}

class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { label("Positionals", "Arguments"); }

  std::string make_usage(const CLI::App* app, std::string name) const override {
    const bool isCommand = app->get_subcommands([](const CLI::App*) { return true; }).empty();
    return fmt::format("\nUsage: {}\n",
                       isCommand ? usageOf(*app) : name + " [OPTIONS] COMMAND [ARGUMENTS]");
  }

  std::string make_option(const CLI::Option* option, bool isArgument) const override {
    const std::string name =
        "  " + (isArgument ? option->get_name(/*positional=*/true) : synopsisOf(*option));
    const std::string gap = name.size() + 2 > kIndent ? "\n" + std::string(kIndent, ' ')
                                                      : std::string(kIndent - name.size(), ' ');
    return name + gap + wrapped(meaningOf(*option)) + "\n";
  }
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> helpFormatter() { return std::make_shared<HelpFormatter>(); }

}  // namespace kyr::tool

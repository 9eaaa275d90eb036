#include <fmt/format.h>
#include <fmt/ranges.h>

#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "commands/Commands.h"

namespace kyr::tool {

namespace {

// Escapes a text so that man(7) shows it as it is.
std::string plain(std::string_view text) {
  std::string out;
  bool isLineStart = true;
  for (const char c : text) {
    if (isLineStart && (c == '.' || c == '\'')) out += "\\&";
    isLineStart = c == '\n';
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  return out;
}

// man(7) fills paragraphs. Indented lines are examples and stay as they are.
std::string paragraphs(const std::string& text) {
  std::istringstream lines(text);
  std::string out;
  bool isVerbatim = false;
  bool begins = true;
  for (std::string line; std::getline(lines, line);) {
    const bool isIndented = line.rfind("  ", 0) == 0;
    if (isVerbatim && !isIndented) out += ".fi\n";
    begins = begins || (isVerbatim && !isIndented);
    if (!line.empty() && begins) out += ".PP\n";
    if (isIndented && !isVerbatim) out += ".nf\n";
    if (!line.empty()) out += plain(line) + "\n";
    begins = line.empty();
    isVerbatim = isIndented;
  }
  return isVerbatim ? out + ".fi\n" : out;
}

std::string item(const std::string& term, const std::string& meaning) {
  return fmt::format(".TP\n.B {}\n{}\n", plain(term), plain(meaning));
}

std::string sectionOf(const CLI::App& command) {
  std::string text =
      fmt::format(".SS {}\n{}.\n", plain(usageOf(command)), plain(command.get_description()));
  for (const CLI::Option* argument : positionalsOf(command)) {
    text += item(argument->get_name(true), argument->get_description());
  }
  for (const CLI::Option* option : optionsOf(command)) {
    if (!option->check_lname("help")) text += item(synopsisOf(*option), meaningOf(*option));
  }
  return text + paragraphs(command.get_footer());
}

}  // namespace

std::string manualPage(const CLI::App& app) {
  std::string page = fmt::format(
      ".TH KYR 1 \"\" \"kyr {}\"\n.SH NAME\nkyr \\- record signals as Parquet files and read them "
      "back\n.SH SYNOPSIS\n.B kyr\n.RI [ OPTIONS ] \" COMMAND \" [ ARGUMENTS ]\n.SH "
      "DESCRIPTION\n{}\n",
      KYR_VERSION, plain(app.get_description()));
  page += ".SH OPTIONS\n";
  for (const CLI::Option* option : optionsOf(app)) {
    page += item(synopsisOf(*option), meaningOf(*option));
  }
  page += ".SH COMMANDS\n";
  for (const CLI::App* command : commandsOf(app)) page += sectionOf(*command);
  return page + ".SH NOTES\n" + paragraphs(app.get_footer());
}

void addManualCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("manual", "Print the manual page, to be shown by man(1)");
  command->footer(R"help(
Examples:
  kyr manual | man -l -
  mkdir -p ~/.local/share/man/man1
  kyr manual > ~/.local/share/man/man1/kyr.1)help");
  command->callback([&app, &action] {
    action = [&app] {
      Output out;
      out.print("{}", manualPage(app));
      out.flush();
      return 0;
    };
  });
}

}  // namespace kyr::tool

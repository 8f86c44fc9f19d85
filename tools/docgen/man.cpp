#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

#include "tools/docgen/manual.h"
#include "tools/mediautil/program.h"

namespace {

std::string Escaped(const std::string& text) {
  std::string roff;
  for (const char c : text) {
    switch (c) {
      case '\\':
        roff += "\\e";
        break;
      case '-':
        roff += "\\-";
        break;
      case '\'':
        roff += "\\(aq";
        break;
      case '`':
        roff += "\\(ga";
        break;
      case '^':
        roff += "\\(ha";
        break;
      case '~':
        roff += "\\(ti";
        break;
      default:
        roff += c;
    }
  }
  // A line must not begin like a request.
  return !roff.empty() && roff[0] == '.' ? "\\&" + roff : roff;
}

std::string Bold(const std::string& text) {
  return "\\fB" + Escaped(text) + "\\fR";
}

std::string Italic(const std::string& text) {
  return text.empty() ? "" : "\\fI" + Escaped(text) + "\\fR";
}

std::string Usage(CLI::App& command) {
  std::string usage =
      Bold(command.get_parent()->get_name() + " " + command.get_name()) + " [" + Italic("OPTIONS") + "]";
  for (const CLI::Option* option : command.get_options()) {
    if (!option->nonpositional()) {
      const std::string name = Italic(option->get_name());
      usage += option->get_required() ? " " + name : " [" + name + "]";
    }
  }
  return usage;
}

std::string Entry(CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : Names(option)) {
    names.push_back(Bold(name));
  }
  const bool isFlag = option.get_items_expected_min() == 0;
  std::string head = names.empty() ? Italic(option.get_name()) : CLI::detail::join(names, ", ");
  if (!names.empty() && !isFlag) {
    head += " " + Italic(option.get_type_name()) + (option.get_items_expected_max() > 1 ? " ..." : "");
  }
  const bool isNeeded = option.get_required() && !names.empty();
  return ".TP\n" + head + "\n" + Escaped(option.get_description() + (isNeeded ? " (required)" : "")) + "\n";
}

bool IsShared(CLI::App& app, const CLI::Option& option) {
  const std::vector<std::string> names = Names(option);
  const std::vector<CLI::Option*> shared = app.get_options();
  return !names.empty() &&
         std::any_of(shared.begin(), shared.end(), [&](const CLI::Option* other) { return Names(*other) == names; });
}

// Lines that are set in are shown as they stand.
std::string Footer(const std::string& footer) {
  std::string roff;
  std::istringstream lines(footer);
  bool isExample = false;
  for (std::string line; std::getline(lines, line);) {
    const bool isSetIn = line.compare(0, 2, "  ") == 0;
    if (isSetIn != isExample) {
      roff += isSetIn ? ".PP\n.RS 4\n.EX\n" : ".EE\n.RE\n";
      isExample = isSetIn;
    }
    roff += isSetIn ? Escaped(line.substr(2)) + "\n" : line.empty() ? ".PP\n" : ".PP\n" + Escaped(line) + "\n";
  }
  return roff + (isExample ? ".EE\n.RE\n" : "");
}

std::string Section(CLI::App& app, CLI::App& command) {
  std::string roff = ".SS " + Escaped(command.get_name()) + "\n" + Usage(command) + "\n.PP\n" +
                     Escaped(command.get_description()) + "\n";
  for (CLI::Option* option : command.get_options()) {
    roff += IsShared(app, *option) ? "" : Entry(*option);
  }
  return roff + Footer(command.get_footer());
}

}  // namespace

std::string ManCommands(CLI::App& app) {
  std::string roff = ".SH OPTIONS OF ALL COMMANDS\n";
  for (CLI::Option* option : app.get_options()) {
    roff += Entry(*option);
  }
  roff += ".SH COMMANDS\n";
  for (CLI::App* command : Commands(app)) {
    roff += Section(app, *command);
  }
  return roff;
}

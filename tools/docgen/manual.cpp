#include "tools/docgen/manual.h"

#include <CLI/CLI.hpp>

std::vector<std::string> Names(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) {
    names.push_back("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    names.push_back("--" + name);
  }
  return names;
}

namespace {

// What the check of an option, if it has one, says of a word that nobody would choose.
std::string Refusal(CLI::Option& option) {
  std::string word = "?";
  try {
    return (*option.get_validator())(word);
  } catch (const CLI::OptionNotFound&) {
    return "";
  }
}

}  // namespace

// A check tells its choice only when it refuses: "? not in {copy,mp3}".
std::vector<std::string> Choices(CLI::Option& option) {
  const std::string before = " not in {";
  const std::string refusal = Refusal(option);
  const std::size_t begin = refusal.find(before);
  if (begin == std::string::npos || refusal.back() != '}') {
    return {};
  }
  const std::size_t first = begin + before.size();
  return CLI::detail::split(refusal.substr(first, refusal.size() - first - 1), ',');
}

// Writes the program's bash completion, or its man page from a template, to stdout: docgen bash | docgen man TEMPLATE
#include <CLI/CLI.hpp>
#include <exception>
#include <fstream>
#include <iostream>

#include "tools/docgen/manual.h"
#include "tools/mediautil/program.h"

namespace {

constexpr const char* kPlace = ".\\\" COMMANDS";  // the line of the template that the commands replace

int WriteMan(CLI::App& app, const char* path) {
  std::ifstream manual(path);
  bool isPlaced = false;
  for (std::string line; std::getline(manual, line);) {
    const bool isPlace = line == kPlace;
    std::cout << (isPlace ? ManCommands(app) : line + "\n");
    isPlaced = isPlaced || isPlace;
  }
  if (!isPlaced) {
    std::cerr << "docgen: " << path << ": cannot read it, or no line " << kPlace << "\n";
  }
  return isPlaced ? 0 : 1;
}

int Run(int argc, char** argv) {
  CLI::App app;
  LogArgs log;
  Action action;
  DefineProgram(app, action, log);
  const std::string form = argc > 1 ? argv[1] : "";
  int code = 2;
  if (form == "bash" && argc == 2) {
    std::cout << BashCompletion(app);
    code = 0;
  } else if (form == "man" && argc == 3) {
    code = WriteMan(app, argv[2]);
  } else {
    std::cerr << "usage: docgen bash | docgen man TEMPLATE\n";
  }
  return code == 0 && !std::cout.flush() ? 1 : code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "docgen: " << error.what() << "\n";
    return 1;
  }
}

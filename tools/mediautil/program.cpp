#include "tools/mediautil/program.h"

#include <CLI/CLI.hpp>

namespace {

// Counted by functions: variables that two commands share are set back by some versions of the parser.
void AddLogOptions(CLI::App& command, LogArgs& args) {
  command.add_flag_function(
      "-q,--quiet", [&args](std::int64_t) { args.quiet = true; }, "print only the program's own errors");
  command.add_flag_function(
      "-v,--verbose", [&args](std::int64_t count) { args.verbose += static_cast<int>(count); },
      "log more; twice: everything");
}

}  // namespace

void DefineProgram(CLI::App& app, Action& action, LogArgs& log) {
  app.name("mediautil");
  app.description("Pictures, sound, exports and pushes of the recordings of a network video recorder.");
  AddProbe(app, action);
  AddSnapshot(app, action);
  AddThumbnail(app, action);
  AddJpeg(app, action);
  AddCrop(app, action);
  AddGif(app, action);
  AddExport(app, action);
  AddMix(app, action);
  AddG711(app, action);
  AddMp3(app, action);
  AddSpeak(app, action);
  AddPlay(app, action);
  AddPush(app, action);
  AddCamera(app, action);
  AddFeed(app, action);
  AddLiveThumb(app, action);
  AddLogLevel(app, action);
  AddLogOptions(app, log);
  for (CLI::App* command : Commands(app)) {
    AddLogOptions(*command, log);
    command->get_formatter()->column_width(29);
  }
  app.set_version_flag("--version", "mediautil " MEDIAUTIL_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 done, 1 failed, 2 wrong usage, 3 input unreadable or not media, 4 refused by the remote,\n"
      "5 not logged in, 130 interrupted.\n\n"
      "Examples:\n  mediautil probe gate.mp4\n  mediautil snapshot gate.mp4 -o gate.jpg --at 12.5");
}

std::vector<CLI::App*> Commands(CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<std::string> CommandNames(CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : Commands(app)) {
    names.push_back(command->get_name());
  }
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  return names;
}

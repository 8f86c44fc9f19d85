// mediautil: the library's jobs for operators.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <exception>
#include <iterator>
#include <new>

#include "platform/log.h"
#include "tools/mediautil/program.h"

namespace {

constexpr int kSilent = 0;

// The threshold without -q and -v. What a push warns of, such as a server that is not verified, is for the operator;
// the mixer tells of every frame as an error.
int UsualLevel(const CLI::App& app) {
  return app.got_subcommand("push") ? LOG_LEVEL_WARN : app.got_subcommand("mix") ? kSilent : LOG_LEVEL_ERR;
}

// Without a shared record, when the user asks for more or less, and when nothing may be logged, the library follows a
// record of this process.
void SetUpLog(const LogArgs& args, int usual) {
  const int levels[] = {args.quiet ? kSilent : usual, LOG_LEVEL_NOTE, LOG_LEVEL_TRACE};
  const int level = levels[std::min(args.verbose, 2)];
  SetQuiet(args.quiet);
  ReinitDbgLogCfg();
  if (g_pDbgLogCfg != nullptr && level != kSilent && args.verbose == 0) {
    return;
  }
  static DbgLogCfg own = {};
  std::fill(std::begin(own.categLevel), std::end(own.categLevel), level);
  g_pDbgLogCfg = &own;
}

// A word that the parser did not know explains the failure better than what is missing in its place.
int FailUsage(CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const CLI::App& command = chosen.empty() ? app : *chosen.front();
  const std::string help = "see mediautil " + (chosen.empty() ? "" : command.get_name() + " ") + "--help";
  const std::vector<std::string> unknown = app.remaining(true);
  for (const std::string& word : unknown) {
    if (word.size() > 1 && word[0] == '-' && word != "--") {
      const std::string option = word.substr(0, word.find('='));
      return Fail(kUsage, "unknown option " + option + Suggestion(option, OptionNames(command), help));
    }
  }
  if (chosen.empty()) {
    return Fail(kUsage, unknown.empty() ? "a command is missing; " + help
                                        : "unknown command " + unknown.front() +
                                              Suggestion(unknown.front(), CommandNames(app), help));
  }
  if (!unknown.empty()) {
    return Fail(kUsage, command.get_name() + ": unexpected argument " + unknown.front() + "; " + help);
  }
  return Fail(kUsage, command.get_name() + ": " + error.what() + "; " + help);
}

int Run(int argc, char** argv) {
  CLI::App app;
  LogArgs log;
  Action action;
  DefineProgram(app, action, log);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return PrintResult(app.help());
  } catch (const CLI::CallForVersion& version) {
    return PrintResult(std::string(version.what()) + "\n");
  } catch (const CLI::ParseError& error) {
    return FailUsage(app, error);
  }
  if (log.quiet && log.verbose > 0) {
    return Fail(kUsage, "-q and -v exclude each other; leave one of them out");
  }
  SetUpLog(log, UsualLevel(app));
  return action();
}

}  // namespace

int main(int argc, char** argv) {
  // What cannot be written is an error with a message.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    return Fail(kFailed, "out of memory; close other programs or try a smaller recording");
  } catch (const std::exception& error) {
    return Fail(kFailed, std::string("unexpected failure: ") + error.what() + "; run again with -vv");
  }
}

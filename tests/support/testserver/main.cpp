// mediautil-testserver: the receiver of archive pushes as a program of its own, to try things out.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>

#include "tests/support/testserver/testserver.h"

namespace {

// Everything that came, but for what is secret.
std::string ParamsText(const testserver::Call& call) {
  std::string text;
  for (const auto& [name, value] : call.params) {
    const bool isSecret = name == "passwd" || name == "_sid" || name == "cookie";
    text += " " + name + "=" + (isSecret ? "***" : value);
  }
  return text;
}

// One write a request, so that the lines of two do not mix; whatever the names hold, it is one line.
void Log(const testserver::Call& call, bool withParams) {
  const std::string dir = call.Param("destDir") + call.Param("rootDir") + call.Param("fromDir");
  const std::string name = call.Param("fileName") + call.Param("toDir");
  std::string line = call.Param("method") + (dir.empty() ? "" : " ") + dir + (name.empty() ? "" : " ") + name + ": " +
                     call.outcome + ", " + std::to_string(call.bodyBytes) + " bytes" +
                     (withParams ? ";" + ParamsText(call) : "");
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  std::puts(line.c_str());
  std::fflush(stdout);
}

int Run(int argc, char** argv) {
  testserver::Options options;
  std::string tlsDir;
  bool withParams = false;
  CLI::App app(
      "Receives archive pushes on this machine, from the account admin with the password secret, and, when "
      "told, misbehaves.",
      "mediautil-testserver");
  app.add_option("--port", options.port, "port to listen on; any free one without it")->check(CLI::Range(0, 65535));
  app.add_option("--store", options.storeDir, "directory to store what comes; nothing is stored without it");
  app.add_option("--tls", tlsDir, "HTTPS: makes testserver.crt in this directory");
  app.add_option("--fault", options.fault, "what it does wrong, such as silent, close or big-reply");
  app.add_option("--fault-method", options.faultMethod, "the method that it does it with")->capture_default_str();
  app.add_option("--code", options.code, "error code of the replies to that method");
  app.add_flag("--params", withParams, "log the parameters of each request, too, but for secrets");
  CLI11_PARSE(app, argc, argv);
  if (!tlsDir.empty()) options.certFile = tlsDir + "/testserver.crt";
  options.onDone = [withParams](const testserver::Call& call) { Log(call, withParams); };

  sigset_t ends;  // blocked before the first thread, so that it waits for sigwait
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  const testserver::Server server(options);
  std::printf("listening on %d\n", server.Port());
  std::fflush(stdout);
  int signal = 0;
  sigwait(&ends, &signal);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mediautil-testserver: %s\n", error.what());
    return 1;
  }
}

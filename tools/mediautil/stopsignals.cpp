#include "tools/mediautil/stopsignals.h"

#include <unistd.h>

#include <csignal>
#include <iterator>

#include "tools/mediautil/args.h"

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t g_seen = 0;
volatile std::sig_atomic_t g_grace = 0;
struct sigaction g_before[std::size(kSignals)];

void End(int) {
  constexpr char kText[] = "\nmediautil: interrupted\n";
  const bool isTold = write(STDERR_FILENO, kText, sizeof(kText) - 1) > 0;
  static_cast<void>(isTold);
  _exit(kInterrupted);
}

void OnSignal(int signal) {
  if (g_seen != 0 && g_grace != 0) {
    End(signal);
  }
  g_seen = 1;
  alarm(static_cast<unsigned int>(g_grace));
}

}  // namespace

StopSignals::StopSignals(unsigned int grace) {
  g_grace = static_cast<std::sig_atomic_t>(grace);
  std::signal(SIGALRM, End);
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  action.sa_flags = 0;  // no restart: a write that waits for its reader ends
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], nullptr, &g_before[i]);
    if (g_before[i].sa_handler != SIG_IGN) {
      sigaction(kSignals[i], &action, nullptr);
    }
  }
}

StopSignals::~StopSignals() {
  for (std::size_t i = 0; i < std::size(kSignals); ++i) {
    sigaction(kSignals[i], &g_before[i], nullptr);
  }
}

bool StopSignals::Seen() {
  return g_seen != 0;
}

// What programs have in common that run for hours of recording.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>

namespace bench {

// Tells of the memory after ten minutes and at the end. True when it grew by no more than that.
inline bool HasStayed(std::int64_t early, std::int64_t late, std::int64_t allowed) {
  const auto mebi = [](std::int64_t bytes) { return static_cast<double>(bytes) / (1 << 20); };
  std::printf("resident: %.2f MiB after ten minutes, %.2f MiB at the end, grown by %.2f MiB (at most %.0f)\n",
              mebi(early), mebi(late), mebi(late - early), mebi(allowed));
  return late - early <= allowed;
}

// main with one argument, HOURS, which "hours" is the default of. Returns what run does, or 2 when it throws.
inline int RunHours(int argc, char** argv, const std::string& description, const std::string& length, int hours,
                    const std::function<int(int hours)>& run) {
  CLI::App app(description);
  app.add_option("HOURS", hours, length + " (" + std::to_string(hours) + ")")
      ->check(CLI::Range(1, 100000).description(""));
  CLI11_PARSE(app, argc, argv);
  try {
    return run(hours);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
  }
}

}  // namespace bench

// How far a long work is: a line on a terminal, or JSON objects for programs.
#pragma once

#include <chrono>
#include <string>

namespace CLI {
class App;
}

enum class ProgressForm { kNone, kText, kJson };
enum class ProgressUnit { kSeconds, kBytes };  // seconds of recording

class Progress {
 public:
  // total: 0 when not known.
  Progress(ProgressForm form, double total, ProgressUnit unit = ProgressUnit::kSeconds);
  // Clears the line.
  ~Progress() { Hide(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // At most 5 times a second, and on a terminal only after the first second, it shows.
  void Update(double done);

  // Clears the line until the next update, so that a message can stand there.
  void Hide();

  // Ends the work: programs learn so from a last object.
  void Finish(double done);

 private:
  using Clock = std::chrono::steady_clock;

  void ShowText(double done, double rate);
  void ShowJson(double done, double rate, bool finished);
  double Rate(double done) const;
  double Left(double done, double rate) const;

  ProgressForm m_form;
  double m_total;
  ProgressUnit m_unit;
  Clock::time_point m_begin = Clock::now();
  Clock::time_point m_next;
  std::size_t m_width = 0;  // of the line that is shown
};

void AddProgressOption(CLI::App& command, std::string& option);

// Text needs a terminal and a user who did not ask for quiet; JSON was asked for.
ProgressForm ChooseProgress(const std::string& option);

#include "tools/mediautil/progress.h"

#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "tools/mediautil/args.h"

namespace {

constexpr int kSchema = 1;
constexpr auto kPause = std::chrono::milliseconds(200);
constexpr auto kShortWork = std::chrono::seconds(1);
constexpr const char* kPlainFlag = "true";  // what the parser stores for a flag without a value

}  // namespace

void AddProgressOption(CLI::App& command, std::string& option) {
  command.add_flag("--progress", option, "even with -q on a terminal; =json: JSON lines, always")
      ->check(
          [](const std::string& form) { return form == kPlainFlag || form == "json" ? "" : form + " not in {json}"; });
}

ProgressForm ChooseProgress(const std::string& option) {
  if (option == "json") {
    return ProgressForm::kJson;
  }
  const bool wanted = !option.empty() || !IsQuiet();
  return wanted && isatty(STDERR_FILENO) != 0 ? ProgressForm::kText : ProgressForm::kNone;
}

Progress::Progress(ProgressForm form, double total, ProgressUnit unit) : m_form(form), m_total(total), m_unit(unit) {
  m_next = m_begin + (form == ProgressForm::kText ? Clock::duration(kShortWork) : Clock::duration(kPause));
}

void Progress::Update(double done) {
  if (m_form == ProgressForm::kNone || Clock::now() < m_next) {
    return;
  }
  m_next = Clock::now() + kPause;
  if (m_form == ProgressForm::kText) {
    ShowText(done, Rate(done));
  } else {
    ShowJson(done, Rate(done), false);
  }
}

void Progress::Finish(double done) {
  Hide();
  if (m_form == ProgressForm::kJson) {
    ShowJson(done, Rate(done), true);
  }
}

void Progress::Hide() {
  if (m_width > 0) {
    std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_width), "");
    m_width = 0;
  }
}

double Progress::Rate(double done) const {
  const double passed = std::chrono::duration<double>(Clock::now() - m_begin).count();
  return passed > 0 ? done / passed : 0;
}

// Seconds until the end, negative when not known. The total is in whole seconds; one that lies far behind was wrong.
double Progress::Left(double done, double rate) const {
  return m_total > 0 && rate > 0 && done < m_total + 1 ? std::max(m_total - done, 0.0) / rate : -1;
}

void Progress::ShowText(double done, double rate) {
  const bool isBytes = m_unit == ProgressUnit::kBytes;
  const double scale = isBytes ? 1e6 : 1;
  const char* unit = isBytes ? "MB" : "s";
  const char* rateUnit = isBytes ? " MB/s" : "x";
  char text[120];
  if (const double left = Left(done, rate); left >= 0) {
    std::snprintf(text, sizeof(text), "%3.0f %%, %.0f of %.0f %s, %.1f%s, %.0f s left",
                  std::min(100 * done / m_total, 100.0), done / scale, m_total / scale, unit, rate / scale, rateUnit,
                  left);
  } else {
    std::snprintf(text, sizeof(text), "%.0f %s, %.1f%s", done / scale, unit, rate / scale, rateUnit);
  }
  const std::string line = text;
  std::fprintf(stderr, "\r%-*s", static_cast<int>(m_width), text);
  m_width = std::max(m_width, line.size());
}

void Progress::ShowJson(double done, double rate, bool finished) {
  const auto rounded = [](double value) { return static_cast<double>(static_cast<long long>(value * 1000)) / 1000; };
  const double left = finished ? 0 : Left(done, rate);
  Json::Value root;
  root["schema"] = kSchema;
  root["done"] = rounded(done);
  root["total"] = m_total > 0 ? Json::Value(rounded(m_total)) : Json::Value();
  root["rate"] = rounded(rate);
  root["left"] = left >= 0 ? Json::Value(rounded(left)) : Json::Value();
  root["finished"] = finished;
  std::fputs(JsonLine(root).c_str(), stderr);
}

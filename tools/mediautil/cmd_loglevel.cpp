// mediautil log-level: the log record that every process of the server reads.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <limits>
#include <memory>

#include "platform/log.h"
#include "tools/mediautil/args.h"

namespace {

constexpr int kSchema = 1;
constexpr int kMaxCategory = DbgLogCfg::kCategCount - 1;
constexpr int kMaxLevel = LOG_LEVEL_TRACE;
constexpr int kUsualLevel = LOG_LEVEL_WARN;  // of a process that follows no record

struct LogLevelArgs {
  std::string category;
  std::string level;
  std::vector<int> pids;
  bool allPids = false;
  bool json = false;
};

std::string CategoryName(int categ) {
  const char* text = VyEnum2StrMap<LOG_CATEG>().Find(static_cast<LOG_CATEG>(categ));
  return text != nullptr ? text : "";
}

std::string LevelName(int level) {
  const char* text = VyEnum2StrMap<LOG_LEVEL>().Find(static_cast<LOG_LEVEL>(level));
  return text != nullptr ? text : level <= 0 ? "off" : "";
}

// The value that text names, as number 0 to last or by a name of the map; -1 for none, then names holds the choice.
template <typename E>
int Parse(const std::string& text, int last, std::vector<std::string>& names) {
  int number = 0;
  if (CLI::detail::lexical_cast(text, number)) {
    return number >= 0 && number <= last ? number : -1;
  }
  const VyEnum2StrMap<E> map;
  for (const auto& [value, name] : map.Texts()) {
    if (LowerCase(name) == LowerCase(text)) {
      return static_cast<int>(value);
    }
    names.emplace_back(name);
  }
  return -1;
}

// What to give instead of a word that is neither.
std::string NameOrNumber(int last) {
  return "give a name that log-level shows, or 0 to " + std::to_string(last);
}

// Puts the wanted changes into the record.
int Change(const LogLevelArgs& args, const std::string& directory) {
  const std::string failed = directory + ": cannot write the log record; check the directory and its permissions";
  if (!args.category.empty()) {
    std::vector<std::string> names;
    const int categ = Parse<LOG_CATEG>(args.category, kMaxCategory, names);
    if (categ < 0) {
      return Fail(kUsage,
                  "unknown category " + args.category + Suggestion(args.category, names, NameOrNumber(kMaxCategory)));
    }
    names = {"off"};
    const int level = LowerCase(args.level) == "off" ? 0 : Parse<LOG_LEVEL>(args.level, kMaxLevel, names);
    if (level < 0) {
      return Fail(kUsage, "unknown level " + args.level + Suggestion(args.level, names, NameOrNumber(kMaxLevel)));
    }
    if (SetDbgLogLevel(static_cast<LOG_CATEG>(categ), level) != 0) {
      return Fail(kFailed, failed);
    }
  }
  if ((args.allPids || !args.pids.empty()) && SetDbgLogPids(args.pids) != 0) {
    return Fail(kFailed, failed);
  }
  return kDone;
}

// The shared record, null when there is none; the program's own settings do not count here.
const DbgLogCfg* SharedRecord() {
  g_pDbgLogCfg = nullptr;
  ReinitDbgLogCfg();
  return g_pDbgLogCfg;
}

// Categories worth showing: those with a name and those that were changed.
std::vector<std::pair<int, int>> Thresholds(const DbgLogCfg* record) {
  std::vector<std::pair<int, int>> thresholds;
  for (int categ = 0; categ < DbgLogCfg::kCategCount; ++categ) {
    const int level = record != nullptr ? record->categLevel[categ] : kUsualLevel;
    if (level != kUsualLevel || !CategoryName(categ).empty()) {
      thresholds.emplace_back(categ, level);
    }
  }
  return thresholds;
}

std::vector<int> Pids(const DbgLogCfg* record) {
  const int count = record != nullptr ? std::clamp(record->pidCount, 0, DbgLogCfg::kPidCapacity) : 0;
  return count == 0 ? std::vector<int>() : std::vector<int>(record->pids, record->pids + count);
}

std::string Text(const DbgLogCfg* record, const std::string& directory) {
  std::string text = "state directory: " + directory +
                     (record != nullptr ? "\n" : " (no log record yet: every process uses these defaults)\n");
  for (const auto& [categ, level] : Thresholds(record)) {
    const std::string name = CategoryName(categ);
    const std::string levelName = LevelName(level);
    text += "category " + std::to_string(categ) + (name.empty() ? "" : " " + name) + ": level " +
            std::to_string(level) + (levelName.empty() ? "" : " " + levelName) + "\n";
  }
  text += "processes:";
  const std::vector<int> pids = Pids(record);
  for (const int pid : pids) {
    text += " " + std::to_string(pid);
  }
  return text + (pids.empty() ? " all\n" : " (all others use level " + std::to_string(kUsualLevel) + ")\n");
}

std::string JsonText(const DbgLogCfg* record, const std::string& directory) {
  Json::Value root;
  root["schema"] = kSchema;
  root["state_dir"] = directory;
  root["present"] = record != nullptr;
  root["categories"] = Json::arrayValue;
  for (const auto& [categ, level] : Thresholds(record)) {
    const std::string name = CategoryName(categ);
    const std::string levelName = LevelName(level);
    Json::Value entry;
    entry["number"] = categ;
    entry["name"] = name.empty() ? Json::Value() : Json::Value(name);
    entry["level"] = level;
    entry["level_name"] = levelName.empty() ? Json::Value() : Json::Value(levelName);
    root["categories"].append(entry);
  }
  root["pids"] = Json::arrayValue;
  for (const int pid : Pids(record)) {
    root["pids"].append(pid);
  }
  return JsonLine(root);
}

int LogLevel(const LogLevelArgs& args) {
  std::string directory;
  if (const int code = FindStateDir("the log record", directory); code != kDone) {
    return code;
  }
  if (const int code = Change(args, directory); code != kDone) {
    return code;
  }
  const DbgLogCfg* record = SharedRecord();
  return PrintResult(args.json ? JsonText(record, directory) : Text(record, directory));
}

}  // namespace

void AddLogLevel(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("log-level", "Show or change how much running processes log.");
  const auto args = std::make_shared<LogLevelArgs>();
  CLI::Option* category =
      command->add_option("CATEGORY", args->category, "what to log more or less of: name or number")->type_name("");
  CLI::Option* level =
      command->add_option("LEVEL", args->level, "0 (off) to " + std::to_string(kMaxLevel) + " (everything), or a name")
          ->type_name("");
  category->needs(level);
  command->add_option("--pid", args->pids, "only these processes follow the record; replaces the list")
      ->type_name("N")
      ->expected(1, DbgLogCfg::kPidCapacity)
      ->check(CLI::Range(1, std::numeric_limits<int>::max()).description(""));
  command->add_flag("--all-pids", args->allPids, "all processes follow the record")->excludes("--pid");
  command->add_flag("--json", args->json, "print one JSON object instead of text");
  command->footer(
      "The record stands in the directory that MEDIAUTIL_STATE_DIR names; running processes follow it at once.\n\n"
      "Examples:\n  mediautil log-level media 7 --pid 4711\n  mediautil log-level media 3 --all-pids");
  command->callback([args, &action] { action = [args] { return LogLevel(*args); }; });
}

// Settings, archive tasks, databases and trigger logs.
#include <sqlite3.h>
#include <sys/stat.h>

#include "platform/archive.h"
#include "platform/camera.h"
#include "platform/db.h"
#include "platform/local/settingsfile.h"
#include "platform/reclog.h"
#include "platform/settings.h"
#include "platform/text.h"
#include "tests/platform/platform_fixture.h"

namespace {

using RecordsTest = PlatformTest;

sqlite3* RunSql(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  return db;
}

// The field "a" of all rows.
std::string Query(const std::string& path, const std::string& sql) {
  unsigned int row = 0;
  auto* result = reinterpret_cast<DBResult_tag*>(&row);
  if (VyDB::Executep(path, sql, &result, false, true, true, true, {}) != 0) return result == nullptr ? "failed" : "?";
  std::string text;
  while (VyDBFetchRow(result, &row) == 0) {
    const char* value = VyDBFetchField(result, row, "a");
    text += std::string(value == nullptr ? "null" : value) + ";";
  }
  VyDBFreeResult(result);
  return text;
}

constexpr const char* kSelect = "SELECT A FROM event";

// Loads the settings once more; theirs, then how servers are verified.
std::string Reload(VyGeneric settings) {
  const char* result = settings.Reload() == 0 ? "" : "kept ";
  const local::TlsSettings tls = local::ReadTlsSettings();
  return result + StringPrintf("%d", settings.IsCmsPaired()) + settings.GetCmsHostIp() +
         StringPrintf("%d %d%s", settings.GetCmsHostPort(), tls.verify, tls.caFile.c_str());
}

TEST_F(RecordsTest, Settings) {
  const std::string file = StateDir() + "/settings.json";
  std::filesystem::create_directory(StateDir());
  EXPECT_EQ(Reload(VyGeneric(true)), "00 1") << "nothing is set";
  WriteFile(file, R"({"cmsPaired":true,"cmsHostIp":"h","cmsHostPort":65535,"tlsVerify":false,"tlsCaFile":"/a"} // on)");
  const VyGeneric loaded(true);
  EXPECT_EQ(Reload(loaded), "1h65535 0/a");
  std::vector<std::string> cases = String2StrVector(
      R"(00 1~{}|00 1~{"tlsVerify":0,"tlsCaFile":"/a"}|00 1~{"tlsVerify":false,"tlsCaFile":7}|)"
      R"(kept 1h65535 0~{"tlsVerify":false,"cmsHostPort":"80"}|kept 1h65535 1~{"cmsHostPort":65536}|)"
      R"(kept 1h65535 1~{"cmsHostPort":-1}|kept 1h65535 1~{"cmsPaired":1}|kept 1h65535 1~{"cmsHostIp":null}|)"
      R"(kept 1h65535 1~{"cmsHostIp":"a\u0000b"}|kept 1h65535 1~{"tlsVerify":false|kept 1h65535 1~[]|kept 1h65535 1~)",
      "|");
  cases.push_back(R"(kept 1h65535 1~{"tlsVerify":false})" + std::string(1 << 20, ' '));
  for (const std::string& line : cases) {
    WriteFile(file, line.substr(line.find('~') + 1));
    EXPECT_EQ(Reload(loaded), line.substr(0, line.find('~'))) << line.substr(0, 99);
  }
  std::filesystem::remove(file);
  EXPECT_TRUE(mkfifo(file.c_str(), 0600) == 0 && Reload(loaded) == "kept 1h65535 1");
  unsetenv("MEDIAUTIL_STATE_DIR");
  EXPECT_EQ(Reload(loaded), "kept 1h65535 1");
}

TEST_F(RecordsTest, ArchiveTasksInOldAndNewStores) {
  const std::string store = StateDir() + "/nvr.db";
  const std::string dir("/\xC3\xBC '; DROP TABLE archive_tasks;--\0end", 38);
  ArchPushTask task, other;
  task.SetSrcDir(dir);
  EXPECT_TRUE(task.Save() == -1 && task.Load(3) == -1 && !std::filesystem::exists(store));
  task.SetId(3);
  Camera camera = {7, 6, "r", {2, 1, 0}, CAM_PROFILE_LOW};
  ASSERT_EQ(camera.Save(), 0);
  sqlite3_close(RunSql(store, "DROP TABLE archive_tasks; PRAGMA user_version = 1;"));
  EXPECT_TRUE(camera.Load(7, 0, 0) == 0 && task.Load(3) == -1 && task.GetSrcDir() == dir) << "an old store is read";
  EXPECT_TRUE(task.Save() == 0 && ReadFile(store)[63] == 2) << "and upgraded by the first write";
  EXPECT_TRUE(other.Load(3) == 0 && other.Load(4) == -1 && other.GetId() == 3 && other.GetSrcDir() == dir);
  EXPECT_EQ(camera.Load(7, 0, 0), 0);
  sqlite3_close(RunSql(store, "PRAGMA user_version = 3;"));
  EXPECT_TRUE(task.Save() == -1 && task.Load(3) == -1) << "of a later version";
}

TEST_F(RecordsTest, DatabaseFindsExactlyOneNameAndChangesNothing) {
  const auto names = String2StrVector("a_b|100%|it's|back\\slash|x'); drop table event;--|\xC3\xBC\"\n", "|");
  std::string sql = "CREATE TABLE event (A, path); INSERT INTO event VALUES ('x', 'axb'), (NULL, '1000')";
  for (const std::string& name : names) sql += ", (7, " + VyDB::QuoteEscape(name) + ")";
  sqlite3_close(RunSql(Path("db"), sql));
  const std::string before = ReadFile(Path("db"));
  for (const std::string& name : names) {
    const std::string pattern = VyDB::QuoteEscape("%" + VyDB::EscapeSpecialChars(name) + "%");
    EXPECT_EQ(Query(Path("db"), kSelect + (" WHERE path LIKE " + pattern + " ESCAPE '\\'; \n")), "7;") << name;
  }
  EXPECT_EQ(Query(Path("db"), kSelect), "x;null;7;7;7;7;7;7;");
  EXPECT_EQ(VyDB::QuoteEscape(std::string("a'b\0c", 5)), "'a''b'");

  const std::string endless = "WITH RECURSIVE r(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM r) SELECT i FROM r";
  std::vector<std::string> refused = String2StrVector(
      "|;|DELETE FROM event|SELECT 1; SELECT 2|SELECT 1; DROP TABLE event|BEGIN|PRAGMA hard_heap_limit = 1000|"
      "CREATE TEMP TABLE t (a)|SELECT nothing FROM event|SELECT load_extension('a')|SELECT "
      "length(hex(zeroblob(9999999)))|"
      "SELECT hex(zeroblob(4500000)), hex(zeroblob(4500000))",
      "|");
  refused.insert(refused.end(), {endless, endless + " WHERE i < 0", "ATTACH '" + Path("new") + "' AS a",
                                 "VACUUM INTO '" + Path("new") + "'"});
  refused.push_back(std::string("SELECT 1\0;", 10));
  for (const std::string& statement : refused) EXPECT_EQ(Query(Path("db"), statement), "failed") << statement;
  EXPECT_TRUE(ReadFile(Path("db")) == before && !std::filesystem::exists(Path("new")));
}

TEST_F(RecordsTest, DatabaseFilesOfAnyKind) {
  sqlite3* db = RunSql(Path("db"), "CREATE TABLE event (a); INSERT INTO event VALUES (4)");
  std::filesystem::create_symlink("db", Path("link"));
  std::filesystem::create_symlink("loop", Path("loop"));
  WriteFile(Path("text"), std::string(8192, 'x'));
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(Query(Path("link"), kSelect), "4;");
  for (const char* name : {"none", "none/a", "", "loop", "fifo", "text"}) {
    EXPECT_EQ(Query(Path(name), "SELECT 1 FROM sqlite_master"), "failed") << name;
  }
  EXPECT_EQ(Query("", "SELECT 1") + Query(Path("db") + std::string("\0", 1), kSelect), "failedfailed");
  EXPECT_FALSE(std::filesystem::exists(Path("none")));
  // Another process writes, in the mode that lets readers in.
  const auto run = [db](const char* sql) { EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK); };
  run("PRAGMA journal_mode = WAL; BEGIN IMMEDIATE; INSERT INTO event VALUES (5)");
  EXPECT_EQ(WaitFor(StartProcess([&] { return Query(Path("db"), kSelect) == "4;" ? 0 : 1; })), 0);
  run("COMMIT");
  sqlite3_close(db);
  // It ends without a word; its log is not written back.
  EXPECT_EQ(WaitFor(StartProcess([&] { return RunSql(Path("db"), "INSERT INTO event VALUES (6)") == nullptr; })), 0);
  const std::string before = ReadFile(Path("db"));
  EXPECT_TRUE(Query(Path("db"), kSelect) == "4;5;6;" && ReadFile(Path("db")) == before);
  // Names that mean something to SQLite.
  const std::filesystem::path here = std::filesystem::current_path();
  std::filesystem::current_path(Path());
  EXPECT_EQ(Query("file:db", kSelect) + Query(":memory:", "SELECT 1"), "failedfailed");
  std::filesystem::rename("db", "file:db");
  EXPECT_EQ(Query("file:db", kSelect), "4;5;");
  std::filesystem::current_path(here);
}

TEST_F(RecordsTest, TriggerLog) {
  const std::string file = Path("triggers/1763849760.trig");
  const auto read = [this](std::size_t entries, long start = 1763849760, const std::string& tail = "") {
    BitwiseEnum<REC_TRIG_META> map(entries);
    std::fill(map.Data(), map.Data() + map.Size(), static_cast<unsigned char>('-'));
    const int result = ReadRecLog2(Path() + tail, start, map);
    return std::to_string(result) + std::string(map.Data(), map.Data() + map.Size());
  };
  std::filesystem::create_directory(Path("triggers"));
  WriteFile(file, std::string("ABCDEF\0\x01wxyz+++", 15));
  EXPECT_EQ(read(1) + read(3), std::string("0ABCDEF0ABCDEF\0\x01wxyz------", 26));
  EXPECT_EQ(read(0) + read(1, 1763849761) + read(1, 1763849760, std::string("/triggers/1763849760.trig\0", 26)),
            "0-1-------1------");
  std::filesystem::rename(file, Path("other"));
  std::filesystem::create_symlink(Path("other"), file);
  EXPECT_EQ(read(1), "-1------");
  std::filesystem::remove(file);
  EXPECT_TRUE(mkfifo(file.c_str(), 0600) == 0 && read(1) == "-1------");

  std::string starts;
  for (const char* name : {"/a1/door-1763849760.mp4", "cam2-0017-x.mp4", "a.2.mp4", "-7.mp4", "1763849760", "rec.17",
                           "/17/x", ".5", "", "99999999999999999999"}) {
    starts += std::to_string(EventNameParser::GetRecStartTime(name, false)) + " ";
  }
  EXPECT_EQ(starts, "1763849760 17 2 7 1763849760 0 0 0 0 0 ");
  EXPECT_EQ(EventNameParser::GetRecStartTime("4102444800", false),
            sizeof(long) > 4 ? static_cast<long>(4102444800LL) : 0);
}

}  // namespace

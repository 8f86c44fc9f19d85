// Cameras and events.
#include <sqlite3.h>
#include <sys/stat.h>

#include <ctime>
#include <tuple>

#include "platform/camera.h"
#include "platform/event.h"
#include "tests/platform/platform_fixture.h"

namespace {

using StoreTest = PlatformTest;

Camera MakeCamera(int id) {
  Camera camera;
  camera.id = id;
  camera.videoType = 6;
  camera.privacyRegion = "00000000;'); DROP TABLE cameras;--\"\xC3\xBC";
  camera.privacyRegion += '\0';
  camera.privacyRegion += "end";
  camera.uiStreamNo[0] = 2;
  camera.uiStreamNo[2] = -7;
  camera.liveProfile = CAM_PROFILE_LOW;
  return camera;
}

void ExpectEqual(const Camera& a, const Camera& b) {
  const auto tied = [](const Camera& c) {
    return std::tie(c.id, c.videoType, c.privacyRegion, c.uiStreamNo[0], c.uiStreamNo[1], c.uiStreamNo[2],
                    c.liveProfile);
  };
  EXPECT_TRUE(tied(a) == tied(b)) << a.id;
}

std::vector<unsigned char> Bytes(std::size_t size, unsigned char value) {
  return std::vector<unsigned char>(size, value);
}

int SavePreview(Event& event, const std::vector<unsigned char>& jpeg, const Camera& camera) {
  return event.SavePreviewThumbnail(jpeg.data(), static_cast<unsigned int>(jpeg.size()), &camera);
}

TEST_F(StoreTest, CameraRoundTrip) {
  const Camera saved = MakeCamera(7);
  EXPECT_EQ(saved.Save(), 0);
  EXPECT_EQ(MakeCamera(3).Save(), 0);
  Camera loaded;
  ASSERT_EQ(loaded.Load(7, 5, 6), 0);
  ExpectEqual(loaded, saved);
  EXPECT_EQ(loaded.GetLiveProfile(), CAM_PROFILE_LOW);
  EXPECT_EQ(loaded.GetUiStreamNo(CAM_PROFILE_HIGH), 2);
  EXPECT_EQ(loaded.GetUiStreamNo(CAM_PROFILE_MEDIUM), 1);
  EXPECT_EQ(loaded.GetUiStreamNo(static_cast<CAM_PROFILE_TYPE>(3)), -1);
  EXPECT_EQ(loaded.GetUiStreamNo(static_cast<CAM_PROFILE_TYPE>(-1)), -1);

  loaded.privacyRegion.clear();
  EXPECT_EQ(loaded.Save(), 0);
  std::vector<Camera> all(5);
  ASSERT_EQ(Camera::List(all), 0);
  ASSERT_EQ(all.size(), 2u);
  ExpectEqual(all[0], MakeCamera(3));
  ExpectEqual(all[1], loaded);
  struct stat info = {};
  ASSERT_EQ(stat(StateDir().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0027, 0u);
}

TEST_F(StoreTest, ReadingMakesNothingAndFailuresChangeNothing) {
  Camera camera = MakeCamera(9);
  std::vector<Camera> all(5);
  EXPECT_EQ(camera.Load(9, 0, 0), -1);
  EXPECT_EQ(Event().Load(1, camera), -1);
  EXPECT_EQ(Camera::Remove(9), -1);
  EXPECT_EQ(Camera::List(all), 0);
  EXPECT_TRUE(all.empty());
  EXPECT_FALSE(std::filesystem::exists(StateDir()));
  ExpectEqual(camera, MakeCamera(9));
  EXPECT_EQ(MakeCamera(0).Save(), -1);
  EXPECT_EQ(MakeCamera(-3).Save(), -1);
  EXPECT_EQ(Camera::Remove(0), -1);

  all.resize(5);
  const auto unusable = [&](const char* what) {
    EXPECT_EQ(camera.Save(), -1) << what;
    EXPECT_EQ(camera.Load(9, 0, 0), -1) << what;
    EXPECT_EQ(Camera::List(all), -1) << what;
    Event event(1);
    EXPECT_EQ(SavePreview(event, Bytes(10, 1), camera), -1) << what;
    EXPECT_TRUE(event.GetPreview().empty() && event.GetPreviewCreateTm() == 0) << what;
  };
  std::filesystem::create_directory(StateDir());
  WriteFile(StateDir() + "/nvr.db", std::string(8192, 'x'));
  unusable("no database");
  std::filesystem::remove(StateDir() + "/nvr.db");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((StateDir() + "/nvr.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  unusable("newer layout");
  unsetenv("MEDIAUTIL_STATE_DIR");
  unusable("no state");
  EXPECT_EQ(all.size(), 5u);
}

TEST_F(StoreTest, EventRoundTrip) {
  const Camera camera = MakeCamera(7);
  ASSERT_EQ(camera.Save(), 0);
  Event event(5);
  const auto thumbnail = Bytes(3000, 0);
  const auto preview = Bytes(90000, 0xFF);
  event.SetThumbnail(thumbnail.data(), 3000);
  EXPECT_EQ(Event().Load(5, camera), -1) << "nothing is stored yet";
  EXPECT_EQ(event.SaveThumbnail(&camera), 0);
  Event loaded(99);
  ASSERT_EQ(loaded.Load(5, camera), 0);
  EXPECT_EQ(loaded.GetPreviewCreateTm(), 0);
  const long long before = std::time(nullptr);
  EXPECT_EQ(SavePreview(event, preview, camera), 0);
  EXPECT_GE(event.GetPreviewCreateTm(), before);
  EXPECT_EQ(event.GetPreview(), preview);

  ASSERT_EQ(camera.Save(), 0) << "saving a camera again keeps its events";
  ASSERT_EQ(loaded.Load(5, camera), 0);
  EXPECT_EQ(loaded.GetId(), 5);
  EXPECT_EQ(loaded.GetThumbnail(), thumbnail);
  EXPECT_EQ(loaded.GetPreview(), preview);
  EXPECT_EQ(loaded.GetPreviewCreateTm(), event.GetPreviewCreateTm());

  EXPECT_EQ(loaded.Load(6, camera), -1);
  EXPECT_EQ(loaded.Load(5, MakeCamera(8)), -1);
  EXPECT_EQ(loaded.GetId(), 5);
  EXPECT_EQ(loaded.GetThumbnail(), thumbnail);
  EXPECT_EQ(Camera::Remove(7), 0);
  EXPECT_EQ(Camera::Remove(7), -1);
  EXPECT_EQ(loaded.Load(5, camera), -1) << "events go with their camera";
}

TEST_F(StoreTest, EventRefusals) {
  const Camera camera = MakeCamera(7);
  const Camera notLoaded;
  const unsigned char jpeg[4] = {1, 2, 3, 4};
  Event event(5);
  EXPECT_EQ(event.SaveThumbnail(&camera), -1) << "no thumbnail set";
  for (const Camera* none : {static_cast<const Camera*>(nullptr), &notLoaded}) {
    event.SetThumbnail(jpeg, 4);
    EXPECT_EQ(event.SaveThumbnail(none), -1);
    EXPECT_EQ(event.SavePreviewThumbnail(jpeg, 4, none), -1);
  }
  event.SetThumbnail(nullptr, 4);
  EXPECT_EQ(event.SaveThumbnail(&camera), -1);
  EXPECT_EQ(event.SavePreviewThumbnail(nullptr, 4, &camera), -1);
  EXPECT_EQ(event.SavePreviewThumbnail(jpeg, 0, &camera), -1);
  EXPECT_FALSE(std::filesystem::exists(StateDir()));
}

TEST_F(StoreTest, TwoProcessesWriteAtOnce) {
  constexpr int kCount = 20;
  const auto write = [](int first) {
    for (int id = first; id < first + kCount; ++id) {
      const Camera camera = MakeCamera(id);
      Event event(id);
      if (camera.Save() != 0 || SavePreview(event, Bytes(5000, 1), camera) != 0) return 1;
    }
    return 0;
  };
  const pid_t first = StartProcess([&] { return write(1); });
  const pid_t second = StartProcess([&] { return write(1 + kCount); });
  EXPECT_EQ(WaitFor(first), 0);
  EXPECT_EQ(WaitFor(second), 0);
  std::vector<Camera> all;
  ASSERT_EQ(Camera::List(all), 0);
  ASSERT_EQ(all.size(), 2u * kCount);
  for (const Camera& camera : all) EXPECT_EQ(Event().Load(camera.id, camera), 0);
}

}  // namespace

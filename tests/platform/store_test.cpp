// Cameras and events.
#include <ctime>
#include <tuple>

#include "platform/camera.h"
#include "platform/event.h"
#include "tests/platform/platform_fixture.h"

namespace {

using StoreTest = PlatformTest;
using Bytes = std::vector<unsigned char>;

Camera MakeCamera(int id) {
  const std::string region("00000000;'); DROP TABLE cameras;--\"\xC3\xBC\0end", 41);
  return {id, 6, region, {2, 1, -7}, CAM_PROFILE_LOW};
}

auto Fields(const Camera& c) {
  return std::tie(c.id, c.videoType, c.privacyRegion, c.uiStreamNo[0], c.uiStreamNo[1], c.uiStreamNo[2], c.liveProfile);
}

int SavePreview(Event& event, const Bytes& jpeg, const Camera* camera) {
  return event.SavePreviewThumbnail(jpeg.data(), static_cast<unsigned int>(jpeg.size()), camera);
}

TEST_F(StoreTest, RoundTrip) {
  EXPECT_EQ(MakeCamera(7).Save(), 0);
  EXPECT_EQ(MakeCamera(3).Save(), 0);
  Camera camera;
  ASSERT_EQ(camera.Load(7, 5, 6), 0);
  EXPECT_EQ(Fields(camera), Fields(MakeCamera(7)));
  const std::pair<int, int> streams[] = {{0, 2}, {1, 1}, {2, -7}, {3, -1}, {-1, -1}};
  for (const auto& [profile, no] : streams) EXPECT_EQ(camera.GetUiStreamNo(static_cast<CAM_PROFILE_TYPE>(profile)), no);

  Event event(5);
  const Bytes thumbnail(3000, 0);
  const Bytes preview(90000, 0xFF);
  event.SetThumbnail(thumbnail.data(), 3000);
  EXPECT_EQ(Event().Load(5, camera), -1) << "nothing is stored yet";
  EXPECT_EQ(event.SaveThumbnail(&camera), 0);
  const long long before = std::time(nullptr);
  EXPECT_EQ(SavePreview(event, preview, &camera), 0);
  EXPECT_GE(event.GetPreviewCreateTm(), before);

  camera.privacyRegion.clear();
  ASSERT_EQ(camera.Save(), 0) << "saving a camera again keeps its events";
  Event loaded(99);
  ASSERT_EQ(loaded.Load(5, camera), 0);
  EXPECT_EQ(loaded.Load(6, camera), -1);
  EXPECT_EQ(loaded.Load(5, MakeCamera(8)), -1);
  EXPECT_EQ(loaded.GetId(), 5);
  EXPECT_EQ(loaded.GetThumbnail(), thumbnail);
  EXPECT_EQ(loaded.GetPreview(), preview);
  EXPECT_EQ(loaded.GetPreviewCreateTm(), event.GetPreviewCreateTm());
  std::vector<Camera> all(5);
  ASSERT_EQ(Camera::List(all), 0);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(Fields(all[0]), Fields(MakeCamera(3)));
  EXPECT_EQ(Fields(all[1]), Fields(camera));
  EXPECT_EQ(Camera::Remove(7), 0);
  EXPECT_EQ(Camera::Remove(7), -1);
  EXPECT_EQ(loaded.Load(5, camera), -1) << "events go with their camera";
  EXPECT_EQ(std::filesystem::status(StateDir()).permissions() & std::filesystem::perms(0027), std::filesystem::perms());
}

TEST_F(StoreTest, ReadingMakesNothingAndFailuresChangeNothing) {
  Camera camera = MakeCamera(9);
  const Camera notLoaded;
  Event event(5);
  std::vector<Camera> all(5);
  EXPECT_EQ(camera.Load(9, 0, 0), -1);
  EXPECT_EQ(event.Load(1, camera), -1);
  EXPECT_EQ(Camera::Remove(9), -1);
  EXPECT_EQ(Camera::List(all), 0);
  EXPECT_TRUE(all.empty());
  EXPECT_EQ(notLoaded.Save(), -1);
  event.SetThumbnail(nullptr, 4);
  EXPECT_EQ(event.SaveThumbnail(&camera), -1);
  EXPECT_EQ(SavePreview(event, {}, &camera), -1);
  event.SetThumbnail(Bytes(4).data(), 4);
  for (const Camera* none : {static_cast<const Camera*>(nullptr), &notLoaded}) {
    EXPECT_EQ(event.SaveThumbnail(none) + SavePreview(event, Bytes(4), none), -2);
  }
  EXPECT_FALSE(std::filesystem::exists(StateDir()));

  all.resize(5);
  std::filesystem::create_directory(StateDir());
  WriteFile(StateDir() + "/nvr.db", std::string(8192, 'x'));
  for (const char* what : {"no database", "no state"}) {
    EXPECT_EQ(camera.Save(), -1) << what;
    EXPECT_EQ(camera.Load(9, 0, 0), -1) << what;
    EXPECT_EQ(Camera::List(all), -1) << what;
    EXPECT_EQ(SavePreview(event, Bytes(10), &camera), -1) << what;
    unsetenv("MEDIAUTIL_STATE_DIR");
  }
  EXPECT_EQ(all.size(), 5u);
  EXPECT_EQ(Fields(camera), Fields(MakeCamera(9)));
  EXPECT_TRUE(event.GetPreview().empty());
}

TEST_F(StoreTest, TwoProcessesWriteAtOnce) {
  const auto write = [](int first) {
    for (int id = first; id < first + 20; ++id) {
      Event event(id);
      const Camera camera = MakeCamera(id);
      if (camera.Save() != 0 || SavePreview(event, Bytes(5000), &camera) != 0) return 1;
    }
    return 0;
  };
  const pid_t other = StartProcess([&] { return write(1); });
  EXPECT_EQ(WaitFor(StartProcess([&] { return write(21); })), 0);
  EXPECT_EQ(WaitFor(other), 0);
  std::vector<Camera> all;
  ASSERT_EQ(Camera::List(all), 0);
  ASSERT_EQ(all.size(), 40u);
  for (const Camera& camera : all) EXPECT_EQ(Event().Load(camera.id, camera), 0);
}

}  // namespace

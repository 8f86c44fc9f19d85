#include "utils/sharedthumb.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <climits>
#include <csignal>
#include <cstddef>
#include <functional>

#include "platform/livestream.h"
#include "platform/webapi.h"
#include "tests/platform/platform_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "utils/imageobject.h"

namespace {

constexpr unsigned int kLong = 1000;  // seconds, longer than a test

Bytes Jpeg(int height) {
  return EncodeClip({"mjpeg", 320, height, 1}).frames[0].data;
}

// "160x90", or "none" for what is no whole JPEG.
std::string SizeOf(const Bytes& jpeg) {
  const std::size_t size = jpeg.size();
  ImageObject image;
  return size > 4 && jpeg[size - 2] == 0xFF && jpeg[size - 1] == 0xD9 &&
                 image.LoadFromJPEG(jpeg.data(), static_cast<unsigned int>(size)) == 0
             ? std::to_string(image.GetWidth()) + "x" + std::to_string(image.GetHeight())
             : "none";
}

// From now on this process's calls with that argument fail.
bool Deny(long call, unsigned int argument, unsigned int value, int error) {
  const auto offset = static_cast<unsigned int>(offsetof(seccomp_data, args)) + 8 * argument;
  sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(call), 0, 3),
                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, 1),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned int>(error)),
                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {static_cast<unsigned short>(std::size(code)), code};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// With a folder /var that only this process sees, until the test's end.
class SharedThumbTest : public testing::Test, protected TempDir {
 protected:
  void SetUp() override {
    setenv("MEDIAUTIL_STATE_DIR", Path().c_str(), 1);
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/var", "tmpfs", 0, nullptr) != 0) {
      GTEST_SKIP() << "the system allows no folder /var of the test's own";
    }
    m_camera.id = 12;
    m_camera.videoType = 1;
    ASSERT_EQ(m_writer.Open(12, 0), 0);
  }
  ~SharedThumbTest() override {
    unsetenv("MEDIAUTIL_STATE_DIR");
    setns(m_namespace, CLONE_NEWNS);
    close(m_namespace);
    std::error_code ignored;  // the way back leads out of a chroot
    std::filesystem::current_path(m_folder, ignored);
  }

  void Publish(const Bytes& frame, bool isKeyFrame = true) {
    ASSERT_EQ(m_writer.Write(frame.data(), static_cast<int>(frame.size()), isKeyFrame), 0);
  }

  // The picture; none on failure.
  Bytes Ask(unsigned int maxAge = kLong, CAM_PROFILE_TYPE profile = CAM_PROFILE_HIGH) const {
    SharedThumb::Bytes out(new unsigned char[3], 3);
    const int ret = SharedThumb(m_camera, profile, maxAge).GetThumb(out);
    EXPECT_TRUE(ret == 0 ? out.second > 0 : ret == -1 && out.first == nullptr && out.second == 0);
    return {out.first.get(), out.first.get() + out.second};
  }

  // A file of the cache that is no picture, so that it is known when it comes back.
  static int Seed(const std::string& path, time_t modified = time(nullptr), std::size_t size = 6) {
    std::filesystem::create_directories(SharedThumb::kDirectory);
    SaveBytes(path, std::string(size, 's').data(), size);
    return SetTime(path, modified);
  }
  static int SetTime(const std::string& path, time_t modified) {
    const timespec times[2] = {{modified, 0}, {modified, 0}};
    return utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  const std::string m_file = std::string(SharedThumb::kDirectory) + "/12.0";
  const std::string m_lock = m_file + ".lock";
  const std::string m_saveFailed = "1|Failed to save base64 thumb for sharing Cam[12] Stm[0]\n";
  const Bytes m_seeded = Bytes(6, 's');
  LogCapture m_log;
  Camera m_camera;
  LiveStreamWriter m_writer;

 private:
  const std::filesystem::path m_folder = std::filesystem::current_path();
  const int m_namespace = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
};

}  // namespace

TEST_F(SharedThumbTest, OneDecodesTheOthersRead) {
  const mode_t before = umask(0);
  Publish(Jpeg(180));
  const Bytes made = Ask();
  umask(before);
  EXPECT_EQ(SizeOf(made), "160x90");
  EXPECT_EQ(ReadBytes(m_file), made);
  EXPECT_TRUE(ModeOf(m_file) == 0640 && ModeOf(m_lock) == 0640 && ModeOf(SharedThumb::kDirectory) == 0750);
  m_writer.Close();  // from here on the file is all there is
  EXPECT_EQ(Ask(), made);
  std::string text;
  EXPECT_EQ(SharedThumb(m_camera, CAM_PROFILE_HIGH, kLong).GetBase64Thumb(text), 0);
  EXPECT_EQ(text, HttpBase64EncodeUnsigned(made.data(), made.size()));
  EXPECT_EQ(SharedThumb(m_camera, CAM_PROFILE_LOW, kLong).GetBase64Thumb(text), -1);
  EXPECT_EQ(text + m_log.Text(), "");
}

TEST_F(SharedThumbTest, FreshOrNot) {
  Publish(Jpeg(180));
  const struct {
    long offset;  // of the modification time from now
    unsigned int maxAge;
    bool isFresh;
  } rows[] = {{0, 1, true},    {-1, 1, false},    {1, 1, false},
              {0, 0, false},   {-99, 100, true},  {-100, 100, false},
              {99, 100, true}, {100, 100, false}, {-100000, UINT_MAX, true}};
  for (const auto& row : rows) {
    time_t now = 0;
    Bytes got;
    do {
      now = time(nullptr);
      ASSERT_EQ(Seed(m_file, now + row.offset), 0);
      got = Ask(row.maxAge);
    } while (time(nullptr) != now);
    EXPECT_EQ(got == m_seeded, row.isFresh) << row.offset << " " << row.maxAge;
    EXPECT_EQ(ReadBytes(m_file), got);
  }
  for (const time_t modified : {0, -5}) {
    Seed(m_file, modified);
    EXPECT_EQ(SizeOf(Ask(UINT_MAX)), "160x90") << modified;
  }
}

// Whatever stands in the file's place costs nobody the picture, and nothing else is read or written.
TEST_F(SharedThumbTest, OddFilesAreNotRead) {
  Publish(Jpeg(180));
  const std::string elsewhere = m_file + "x";
  Seed(elsewhere);
  const struct {
    const char* name;
    std::function<int()> make;
    bool isReplaced;
  } rows[] = {{"link", [&] { return symlink(elsewhere.c_str(), m_file.c_str()); }, true},
              {"FIFO", [&] { return mkfifo(m_file.c_str(), 0666); }, false},
              {"directory", [&] { return mkdir(m_file.c_str(), 0777); }, false},
              {"empty", [&] { return Seed(m_file, time(nullptr), 0); }, true},
              {"huge", [&] { return Seed(m_file, time(nullptr), 4 * 1024 * 1024 + 1); }, true}};
  for (const auto& row : rows) {
    std::filesystem::remove(m_file);
    m_log.Clear();
    ASSERT_EQ(row.make(), 0) << row.name;
    const Bytes got = Ask();
    EXPECT_EQ(SizeOf(got), "160x90") << row.name;
    EXPECT_EQ(m_log.Text(), row.isReplaced ? "" : m_saveFailed) << row.name;
    EXPECT_EQ(ModeOf(m_file) == 0640 && ReadBytes(m_file) == got, row.isReplaced) << row.name;
  }
  EXPECT_EQ(ReadBytes(elsewhere), m_seeded);
}

TEST_F(SharedThumbTest, NewestFrameOfEachType) {
  Publish(Jpeg(180));
  Publish(Jpeg(240), false);
  EXPECT_EQ(SizeOf(Ask(0)), "120x90");  // key frame or not
  const std::pair<int, ClipWish> rows[] = {{2, {"mpeg4", 320, 180, 1, 0, true}},
                                           {3, {"libx264", 320, 180, 1, 0, true}},
                                           {6, {"libx265", 320, 180, 1, 0, true, 250, "info=0"}}};
  for (const auto& [type, wish] : rows) {
    m_camera.videoType = type;
    const Clip clip = EncodeClip(wish);
    ASSERT_EQ(m_writer.SetExtra(clip.extradata.data(), static_cast<int>(clip.extradata.size())), 0);
    Publish(clip.frames[0].data);
    Publish(m_seeded, false);
    EXPECT_EQ(SizeOf(Ask(0)), "160x90") << type;
  }
  Publish(m_seeded);
  for (const int type : {1, 6, 4, -1}) {
    m_camera.videoType = type;
    m_log.Clear();
    EXPECT_EQ(Ask(0), Bytes()) << type;
    EXPECT_NE(m_log.Text().find("3|Invalid image width[0], height[0]\n"), std::string::npos) << m_log.Text();
  }
}

TEST_F(SharedThumbTest, NoCameraOrStream) {
  EXPECT_EQ(Ask(kLong, CAM_PROFILE_TYPE(9)), Bytes());
  EXPECT_FALSE(std::filesystem::exists(SharedThumb::kDirectory)) << "a stream that is none makes nothing";
  for (const int id : {0, -1, INT_MIN, INT_MAX, 12}) {
    m_camera.id = id;
    EXPECT_EQ(Ask(), Bytes()) << id;
  }
  EXPECT_FALSE(std::filesystem::exists(m_file));
  EXPECT_EQ(m_log.Text(), "");
  SharedThumb::Bytes out;
  EXPECT_EQ(GetSharedThumb(m_camera, out) + GetSharedThumb(Camera(), out), -2);
  m_log.cfg.categLevel[LOG_CATEG_MEDIA] = 0;
  EXPECT_EQ(SharedThumb(12, &Camera::GetLiveProfile, kLong).GetThumb(out), -1);
  m_log.cfg.categLevel[LOG_CATEG_MEDIA] = LOG_LEVEL_TRACE;
  EXPECT_EQ(m_log.Text(),
            "1|Failed to get thumb. Cam Id: [12]\n1|Failed to get thumb since cam is not loaded. Cam Id: [0]\n"
            "(null)|Failed to load Cam[12]\n");
  EXPECT_EQ(m_log.Lines().at(0).path, "utils/sharedthumb");

  m_camera.liveProfile = CAM_PROFILE_LOW;
  m_camera.uiStreamNo[CAM_PROFILE_LOW] = 0;
  ASSERT_EQ(m_camera.Save() + Seed(m_file), 0);
  EXPECT_EQ(SharedThumb(12, &Camera::GetLiveProfile, kLong).GetThumb(out), 0);
  EXPECT_EQ(Bytes(out.first.get(), out.first.get() + out.second), m_seeded);
  Publish(Jpeg(240));
  SetTime(m_file, time(nullptr) - 1);
  EXPECT_EQ(GetSharedThumb(m_camera, out), 0);
  EXPECT_EQ(SizeOf({out.first.get(), out.first.get() + out.second}), "120x90");
}

TEST_F(SharedThumbTest, LocksAndFilesThatFail) {
  std::filesystem::create_directories("/var/packages");
  SaveBytes("/var/packages/Korvane", "", 0);
  EXPECT_EQ(Ask(), Bytes());
  EXPECT_EQ(m_log.Text(), "");
  std::filesystem::remove("/var/packages/Korvane");

  Publish(Jpeg(180));
  ASSERT_EQ(Seed(m_file) + symlink("elsewhere", m_lock.c_str()), 0);
  EXPECT_EQ(Ask(), Bytes());
  EXPECT_EQ(m_log.Text(), "1|Failed to LockSh file [" + m_lock + "] with errno [40]\n");
  std::filesystem::remove(m_lock);

  // What a kernel refuses, in processes that it refuses it to.
  const auto askDenied = [&](long call, unsigned int argument, unsigned int value, unsigned int maxAge,
                             const std::string& message) {
    const int result = WaitFor(StartProcess([&] {
      m_log.Clear();
      if (!Deny(call, argument, value, ENOLCK)) return 3;
      return Ask(maxAge).empty() && m_log.Text() == message ? 0 : 1;
    }));
    if (result == 3) GTEST_SKIP() << "the system allows no refusals";
    EXPECT_EQ(result, 0) << message;
  };
  askDenied(SYS_flock, 1, 2 /* LOCK_EX */, 0, "1|Failed to LockEx file [" + m_lock + "] with errno [37]\n");
  askDenied(SYS_read, 2, 6 /* bytes */, kLong, "1|Failed to read file[" + m_file + "]\n");
  EXPECT_EQ(Ask(), m_seeded);

  m_log.Clear();
  SetTime(m_file, 1);
  ASSERT_EQ(mount("none", "/var", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(SizeOf(Ask()), "160x90");
  EXPECT_EQ(m_log.Text(), m_saveFailed);
}

// Users of one group, one user's cache that root comes to, and pictures that nobody should believe or can open.
TEST_F(SharedThumbTest, SeveralUsersShareACache) {
  constexpr uid_t kUser = 12345;
  constexpr uid_t kOther = 12346;
  if (geteuid() != 0) GTEST_SKIP() << "only root changes users";
  Publish(Jpeg(180));
  ASSERT_EQ(chmod(Path().c_str(), 0755), 0);
  const auto askAs = [&](uid_t user, bool isRead) {
    return WaitFor(StartProcess([&] {
      umask(077);
      if (setuid(user) != 0) return 1;
      const Bytes jpeg = Ask();
      return (jpeg == m_seeded) == isRead && !jpeg.empty() && m_log.Text().empty() ? 0 : 2;
    }));
  };
  const struct {
    const char* name;
    uid_t owner;  // of the directory
    mode_t directory;
    mode_t file;  // of a picture, 0 for none
    uid_t writer;
    gid_t group;
    uid_t asker;
    bool isRead;
  } rows[] = {{"first, narrow umask", kUser, 0750, 0, 0, 0, kUser, false},
              {"root first", kUser, 0750, 0, 0, 0, 0, false},
              {"one of the group", 0, 0770, 0640, kUser, 0, kOther, true},
              {"the directory's owner's", kUser, 0770, 0644, kUser, 9, kOther, true},
              {"of another group", 0, 0770, 0644, kUser, 9, kOther, false},
              {"in everybody's directory", 0, 0777, 0644, kUser, 0, kOther, false},
              {"of one who cannot write", kOther, 0750, 0644, kUser, 0, kOther, false},
              {"not to be read", kUser, 0750, 01000, kUser, 0, kUser, false}};
  for (const auto& row : rows) {
    std::filesystem::remove_all(SharedThumb::kDirectory);
    std::filesystem::create_directories(SharedThumb::kDirectory);
    if (row.file != 0) {
      Seed(m_file);
      ASSERT_EQ(chown(m_file.c_str(), row.writer, row.group) + chmod(m_file.c_str(), row.file & 0777), 0) << row.name;
    }
    ASSERT_EQ(chown(SharedThumb::kDirectory, row.owner, 0) + chmod(SharedThumb::kDirectory, row.directory), 0);
    EXPECT_EQ(askAs(row.asker, row.isRead), 0) << row.name;
    EXPECT_TRUE(ModeOf(m_file) == (row.isRead ? row.file : 0640) && ModeOf(m_lock) == 0640) << row.name;
    const auto written = std::filesystem::last_write_time(m_file);
    EXPECT_EQ(askAs(row.asker != 0 ? row.asker : kUser, row.isRead), 0) << row.name;
    EXPECT_EQ(std::filesystem::last_write_time(m_file), written) << row.name << ": from the cache";
  }
}

// Eight processes ask while a camera feeds and the file grows old again and again.
TEST_F(SharedThumbTest, OneOfManyProcessesRenews) {
  const Bytes frames[] = {Jpeg(180), Jpeg(240)};
  Publish(frames[0]);
  ASSERT_EQ(Seed(m_file, 1), 0);
  const std::string isOver = Path("over");
  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, SharedThumb::kDirectory, IN_MOVED_TO), 0);
  const time_t start = time(nullptr);
  pid_t children[8];
  for (pid_t& child : children) {
    child = StartProcess([&] {
      Bytes last;
      for (int i = 0; i < 2000 || access(isOver.c_str(), F_OK) != 0; ++i) {
        const Bytes jpeg = Ask(1);
        if (jpeg != last && SizeOf(jpeg) == "none") return 1;
        last = jpeg;
      }
      return m_log.Text().empty() ? 0 : 2;
    });
  }
  std::size_t renewals = 0;
  const auto isRenewed = [&](int timeoutMs) {
    char events[4096];
    pollfd wanted = {watch, POLLIN, 0};
    if (poll(&wanted, 1, timeoutMs) != 1) return false;
    renewals += static_cast<std::size_t>(read(watch, events, sizeof(events))) / (sizeof(inotify_event) + 16);
    return true;
  };
  constexpr unsigned int kRounds = 20;
  for (unsigned int round = 0; round < kRounds && isRenewed(20000); ++round) {
    while (isRenewed(30)) {  // by who decoded at the same time
    }
    Publish(frames[round % 2]);
    SetTime(m_file, 1);
  }
  SaveBytes(isOver, "", 0);
  for (const pid_t child : children) EXPECT_EQ(WaitFor(child), 0);
  while (isRenewed(0)) {
  }
  close(watch);
  EXPECT_GE(renewals, kRounds);
  EXPECT_LE(renewals, kRounds + 1 + static_cast<std::size_t>(time(nullptr) - start) + 1);
}

TEST_F(SharedThumbTest, KilledProcessesLeaveNoHarm) {
  Publish(Jpeg(180));
  Ask();
  for (unsigned int i = 0; i < 40; ++i) {
    const pid_t child = StartProcess([&] {
      while (!Ask(0).empty()) {
      }
      return 1;
    });
    usleep(i * 2791 % 13000);
    kill(child, SIGKILL);
    EXPECT_EQ(WaitFor(child), -1);
    EXPECT_EQ(SizeOf(ReadBytes(m_file)), "160x90");
  }
  EXPECT_EQ(SizeOf(Ask(0)), "160x90");  // no lock stands
  const auto files = std::distance(std::filesystem::directory_iterator(SharedThumb::kDirectory), {});
  EXPECT_LE(files, 2 + 40) << "picture, lock, and one for each that was killed";
}

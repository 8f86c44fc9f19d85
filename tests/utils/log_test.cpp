#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <thread>

#include "tests/support/log_capture.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

bool IsWritten(int level) {
  return mediautil::MediaLogEnabled(level);
}

struct GuardCase {
  const char* name;
  bool attached;
  int threshold;
  int pidCount;
  bool listed;
  int lastWritten;  // the least severe level that is written
};

class LogGuard : public ::testing::TestWithParam<GuardCase> {};

}  // namespace

TEST_P(LogGuard, WritesUpToTheThreshold) {
  LogCapture log;
  log.cfg.categLevel[LOG_CATEG_MEDIA] = GetParam().threshold;
  log.cfg.pidCount = GetParam().pidCount;
  log.cfg.pids[0] = 1;
  log.cfg.pids[1] = GetParam().listed ? getpid() : 2;
  if (!GetParam().attached) {
    log.Detach();
  }
  for (int level = 1; level <= 7; ++level) {
    EXPECT_EQ(IsWritten(level), level <= GetParam().lastWritten) << level;
  }
}

INSTANTIATE_TEST_SUITE_P(All, LogGuard,
                         ::testing::Values(GuardCase{"NoConfiguration", false, 7, 0, false, 3},
                                           GuardCase{"ThresholdOfTheCategory", true, 5, 0, false, 5},
                                           GuardCase{"ThresholdZeroDropsAll", true, 0, 0, false, 0},
                                           GuardCase{"NegativeCountIsNoFilter", true, 6, -1, false, 6},
                                           GuardCase{"FilteredOut", true, 7, 2, false, 3},
                                           GuardCase{"FilteredOutLower", true, 0, 2, false, 3},
                                           GuardCase{"Listed", true, 6, 2, true, 6},
                                           GuardCase{"ListedBeyondTheCount", true, 6, 1, true, 3},
                                           GuardCase{"CountBeyondTheRecord", true, 4, 1 << 30, true, 4}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(Log, AsksForTheConfigurationOnceACheck) {
  LogCapture log;
  log.Detach();
  IsWritten(1);
  EXPECT_EQ(log.reinitCalls, 1);
  log.Attach();
  IsWritten(1);
  EXPECT_EQ(log.reinitCalls, 1);
}

TEST(Log, MessageCarriesTextsPathLineAndFunction) {
  LogCapture log;
  const int line = __LINE__ + 1;
  VY_LOG(LOG_LEVEL_WARN, "%d %s\n", 7, "x");
  ASSERT_EQ(log.Lines().size(), 1U);
  const LogLine written = log.Lines()[0];
  EXPECT_EQ(written.categ, "MEDIA");
  EXPECT_EQ(written.level, "3");
  EXPECT_EQ(written.path, "utils/log_test");
  EXPECT_EQ(written.line, line);
  EXPECT_EQ(written.function, "TestBody");
  EXPECT_EQ(written.text, "7 x\n");
}

TEST(Log, DroppedMessageEvaluatesNothing) {
  LogCapture log;
  log.cfg.categLevel[LOG_CATEG_MEDIA] = 3;
  int evaluated = 0;
  VY_LOG(LOG_LEVEL_NOTE, "%d\n", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(Log, PathsOfTheSources) {
  LogCapture log;
  DoFFmpegConvertFrameFormat(nullptr, AV_PIX_FMT_RGBA, nullptr);
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].path, "utils/mpeg4util");
  EXPECT_EQ(log.Lines()[0].function, "DoFFmpegConvertFrameFormat");
}

TEST(Log, EnumTexts) {
  EXPECT_STREQ(Enum2String<LOG_LEVEL>(LOG_LEVEL_WARN), "3");
  EXPECT_STREQ(Enum2String<LOG_LEVEL>(LOG_LEVEL_CRIT), "unknown");
  EXPECT_STREQ(Enum2String<LOG_CATEG>(static_cast<LOG_CATEG>(-5)), "unknown");
}

TEST(Log, FfmpegMessagesArriveAtDetailLevels) {
  LogCapture log;
  av_log(nullptr, AV_LOG_ERROR, "broken %d\n", 1);
  av_log(nullptr, AV_LOG_WARNING, "odd\n");
  av_log(nullptr, AV_LOG_INFO, "told\n");
  av_log(nullptr, AV_LOG_DEBUG, "chatter\n");
  const std::vector<LogLine> lines = log.FfmpegLines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].level + lines[0].text, "4broken 1\n");
  EXPECT_EQ(lines[1].level + lines[1].text, "5odd\n");
  EXPECT_EQ(lines[2].level + lines[2].text, "6told\n");
  log.cfg.categLevel[LOG_CATEG_MEDIA] = 3;
  av_log(nullptr, AV_LOG_ERROR, "broken\n");
  EXPECT_EQ(log.FfmpegLines().size(), 3U);
}

TEST(FfmpegErr, Texts) {
  EXPECT_EQ(GetFfmpegErr(AVERROR_INVALIDDATA), "Invalid data found when processing input");
  EXPECT_EQ(GetFfmpegErr(AVERROR(ENOENT)), "No such file or directory");
  EXPECT_FALSE(GetFfmpegErr(-50531338).empty());
  EXPECT_NO_THROW(GetFfmpegErr(INT_MIN));
}

TEST(FfmpegLock, FreesAndNulls) {
  AVFormatContext* container = avformat_alloc_context();
  LockAVFormatFreeContext(container);
  EXPECT_EQ(container, nullptr);
  AVCodecContext* codec = avcodec_alloc_context3(nullptr);
  LockAVCodecFreeContext(codec);
  EXPECT_EQ(codec, nullptr);
}

TEST(FfmpegLock, NullTakesNoLock) {
  AVFormatContext* container = nullptr;
  AVCodecContext* codec = nullptr;
  const VyMutexGuard guard(g_FFMpegThreadLock);  // not recursive: taking it again would hang
  LockAVFormatFreeContext(container);
  LockAVCodecFreeContext(codec);
}

TEST(FfmpegLock, WrappersWaitForIt) {
  LockAVCodecRegister();
  LockAVFilterRegister();
  std::atomic<int> done{0};
  g_FFMpegThreadLock.Lock();
  std::thread registers([&done] {
    LockAVCodecRegister();  // both registered: no lock taken
    LockAVFilterRegister();
    done += 1;
  });
  registers.join();
  EXPECT_EQ(done, 1);
  std::thread opens([&done] {
    AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
    LockAVCodecOpen(ctx, avcodec_find_decoder(AV_CODEC_ID_MJPEG), nullptr);
    LockAVCodecFreeContext(ctx);
    done += 1;
  });
  usleep(50000);
  EXPECT_EQ(done, 1);
  g_FFMpegThreadLock.Unlock();
  opens.join();
  EXPECT_EQ(done, 2);
}

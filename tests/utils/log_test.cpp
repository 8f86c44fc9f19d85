#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <functional>
#include <thread>

#include "tests/support/log_capture.h"
#include "utils/internal/ffmpegptr.h"
#include "utils/internal/log.h"
#include "utils/mpeg4util.h"

namespace {

constexpr LOG_CATEG kLogCategory = LOG_CATEG_MEDIA;

}  // namespace

TEST(Log, GuardWritesUpToTheThreshold) {
  const struct {
    const char* name;
    bool attached;
    int threshold, pidCount, secondPid;
    int lastWritten;  // the least severe level that is written
  } cases[] = {{"no configuration", false, 7, 0, 0, 3},
               {"threshold of the category", true, 5, 0, 0, 5},
               {"zero drops all", true, 0, 0, 0, 0},
               {"negative count is no filter", true, 6, -1, 0, 6},
               {"filtered out", true, 7, 2, 2, 3},
               {"filtered out, lower threshold", true, 0, 2, 2, 3},
               {"listed", true, 6, 2, getpid(), 6},
               {"listed beyond the count", true, 6, 1, getpid(), 3},
               {"count beyond the record", true, 4, 1 << 30, getpid(), 4}};
  for (const auto& c : cases) {
    LogCapture log;
    log.cfg.categLevel[LOG_CATEG_MEDIA] = c.threshold;
    log.cfg.pidCount = c.pidCount;
    log.cfg.pids[0] = 1;
    log.cfg.pids[1] = c.secondPid;
    if (!c.attached) log.Detach();
    int written = 0;
    while (written < 7 && mediautil::MediaLogEnabled(written + 1)) ++written;
    EXPECT_EQ(written, c.lastWritten) << c.name;
    EXPECT_EQ(log.reinitCalls > 0, !c.attached) << c.name;
  }
}

TEST(Log, MessageCarriesTextsPathLineAndFunction) {
  LogCapture log;
  const int line = __LINE__ + 1;
  VY_LOG(LOG_LEVEL_WARN, "%d %s\n", 7, "x");
  DoFFmpegConvertFrameFormat(nullptr, AV_PIX_FMT_RGBA, nullptr);
  ASSERT_EQ(log.Lines().size(), 2U);
  const LogLine written = log.Lines()[0];
  EXPECT_EQ(written.categ + written.level + written.path + written.function, "MEDIA3utils/log_testTestBody");
  EXPECT_EQ(written.line, line);
  EXPECT_EQ(written.text, "7 x\n");
  EXPECT_STREQ(Enum2String(static_cast<LOG_CATEG>(99)), "unknown");
  EXPECT_STREQ(Enum2String(static_cast<LOG_LEVEL>(2)), "unknown");
  EXPECT_EQ(log.Lines()[1].path + log.Lines()[1].function, "utils/mpeg4utilDoFFmpegConvertFrameFormat");
  log.cfg.categLevel[LOG_CATEG_MEDIA] = 3;
  int evaluated = 0;
  VY_LOG(LOG_LEVEL_NOTE, "%d\n", ++evaluated);
  EXPECT_EQ(evaluated, 0) << "a dropped message evaluates nothing";
  EXPECT_EQ(log.Lines().size(), 2U);
}

TEST(Log, FfmpegMessagesArriveAtDetailLevels) {
  LogCapture log;
  for (const int level : {AV_LOG_ERROR, AV_LOG_WARNING, AV_LOG_INFO, AV_LOG_DEBUG}) {
    av_log(nullptr, level, "of %d\n", level);
  }
  std::string texts;
  for (const LogLine& line : log.FfmpegLines()) texts += line.level + line.text;
  EXPECT_EQ(texts, "5of 16\n6of 24\n7of 32\n");
  log.cfg.categLevel[LOG_CATEG_MEDIA] = 3;
  av_log(nullptr, AV_LOG_ERROR, "broken\n");
  EXPECT_EQ(log.FfmpegLines().size(), 3U);
}

TEST(FfmpegErr, Texts) {
  EXPECT_EQ(GetFfmpegErr(AVERROR_INVALIDDATA), "Invalid data found when processing input");
  EXPECT_FALSE(GetFfmpegErr(-50531338).empty());
  EXPECT_NO_THROW(GetFfmpegErr(INT_MIN));
}

TEST(FfmpegLock, FreesAndNullsAndNullTakesNoLock) {
  AVFormatContext* container = avformat_alloc_context();
  AVCodecContext* codec = avcodec_alloc_context3(nullptr);
  LockAVFormatFreeContext(container);
  LockAVCodecFreeContext(codec);
  EXPECT_TRUE(container == nullptr && codec == nullptr);
  const VyMutexGuard guard(g_FFMpegThreadLock);  // not recursive: taking it again would hang
  LockAVFormatFreeContext(container);
  LockAVCodecFreeContext(codec);
}

TEST(FfmpegLock, WrappersWaitForIt) {
  LockAVCodecRegister();
  LockAVFilterRegister();
  AVCodecContext* ctx = avcodec_alloc_context3(nullptr);
  AVFormatContext* container = avformat_alloc_context();
  const std::function<void()> calls[] = {
      [&] { LockAVCodecOpen(ctx, avcodec_find_decoder(AV_CODEC_ID_MJPEG), nullptr); }, [&] { LockAVCodecClose(ctx); },
      [&] { LockAVCodecFreeContext(ctx); }, [&] { LockAVFormatFreeContext(container); }};
  for (const auto& call : calls) {
    std::atomic<int> steps{0};
    g_FFMpegThreadLock.Lock();
    std::thread caller([&] {
      LockAVCodecRegister();  // both registered: no lock taken
      LockAVFilterRegister();
      steps += 1;
      call();
      steps += 1;
    });
    while (steps == 0) usleep(1000);
    usleep(20000);
    EXPECT_EQ(steps, 1) << &call - calls;
    g_FFMpegThreadLock.Unlock();
    caller.join();
    EXPECT_EQ(steps, 2);
  }
}

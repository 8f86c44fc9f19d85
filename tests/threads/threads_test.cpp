// Sessions on many threads at once; also run under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/media.h"
#include "tests/support/sound.h"
#include "tests/support/tempdir.h"
#include "utils/audiomixer.h"
#include "utils/audiotranscoder.h"
#include "utils/audioutil.h"
#include "utils/encodermp3.h"
#include "utils/ffmpegadapter.h"
#include "utils/ffmpegdemuxer.h"
#include "utils/gifprocess.h"
#include "utils/imageobject.h"
#include "utils/internal/log.h"
#include "utils/mp3demuxer.h"
#include "utils/mpeg4util.h"

namespace {

constexpr int kThreads = 32;

void OnThreads(const std::function<void(int)>& work) {
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) threads.emplace_back(work, n);
  for (std::thread& thread : threads) thread.join();
}

std::size_t ThreadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

}  // namespace

TEST(Threads, SnapshotsAreThoseOfOneThread) {
  const Bytes key = EncodeClip({"libx264", 160, 120, 1}).frames[0].data;
  const auto snapshot = [&key] {
    AVFrame* frame = nullptr;
    unsigned char* jpeg = nullptr;
    int size = 0;
    DoFFMpegGetScaledFrame(3, nullptr, 0, key.data(), static_cast<int>(key.size()), &frame, 80);
    DoFFMpegGetJpeg(frame, &jpeg, &size, -1, "00000000500000005000500000005000");
    Bytes bytes(jpeg, jpeg + size);
    std::free(jpeg);
    DoFFmpegFrameFree(&frame);
    return bytes;
  };
  const Bytes expected = snapshot();
  std::atomic<int> equal{0};
  OnThreads([&](int) { equal += snapshot() == expected ? 1 : 0; });
  EXPECT_EQ(equal, kThreads);
}

TEST(Threads, LogGuardAndRegistration) {
  LogCapture log;
  log.cfg.pidCount = 1;
  log.cfg.pids[0] = 1;
  g_DbgLogPid = 0;
  OnThreads([&log](int n) {
    LockAVCodecRegister();
    LockAVFilterRegister();
    if (n == 5) log.Detach();
    DoFFmpegConvertFrameFormat(nullptr, AV_PIX_FMT_RGBA, nullptr);
  });
  EXPECT_EQ(log.Lines().size(), static_cast<std::size_t>(kThreads));
}

TEST(Threads, TheLibraryStartsNone) {
  const TempDir dir;
  const Clip clip = EncodeClip({"libx264", 320, 240, 10, 0, true});
  WriteFile(clip, dir.Path("clip.mp4"));
  SaveTone(dir.Path("tone.flac"), "-ar 44100", 20);  // whose decoder could use threads
  std::thread([] {}).join();                         // with the first one ThreadSanitizer starts its own
  const std::size_t before = ThreadCount();
  std::size_t most = before;
  const auto look = [&most](std::size_t own = 0) { most = std::max(most, ThreadCount() - own); };

  FFmpegDemux demux;
  ESFormat video;
  ESFormat audio;
  ASSERT_EQ(demux.Open(dir.Path("clip.mp4"), video, audio), 0);
  look();
  video.Reset(ES_UNKNOWN);
  FFmpegAttr attr = {};
  unsigned char* buffer = nullptr;
  ASSERT_EQ(DoFFMpegInitVideo(attr, 3, clip.extradata.data(), static_cast<int>(clip.extradata.size())), 0);
  const Bytes& key = clip.frames[0].data;
  ASSERT_EQ(DoFFMpegDecode(attr, key.data(), static_cast<int>(key.size())), 0);
  look();
  AudioMixer mixer;
  const mediautil::FfPtr<AVCodecParameters> aac(FFmpegAdapter::AudioOutCodecParameters());
  for (int i = 0; i < 2; ++i) ASSERT_EQ(mixer.AddStream(aac.get()), i);
  ASSERT_EQ(mixer.SetOutput(""), 0);
  ASSERT_EQ(mixer.ProcessInput(), 0);
  look();
  DoFFMpegFree(attr, buffer);

  CropAttr crop = {};
  ASSERT_EQ(DoFFMpegInitFilter(crop, 320, 240, 100, 100, 0, 0), 0);
  look();
  DoFFMpegReleaseFilter(crop);
  const auto lookDuring = [&look](const auto& step) {
    std::future<int> result = std::async(std::launch::async, step);
    while (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready) look(1);
    return result.get();
  };
  GifProcess gif;
  gif.SetGifPath(dir.Path("key.gif"));
  Bytes extradata = clip.extradata;
  Bytes data = key;
  ASSERT_EQ(
      gif.AddFrame(data.data(), static_cast<int>(data.size()), extradata.data(), static_cast<int>(extradata.size()), 3),
      0);
  EXPECT_EQ(lookDuring([&gif] { return gif.Process(); }), 0);

  DemuxMp3 player;
  ASSERT_EQ(player.Open(dir.Path("tone.flac"), audio), 0);
  look();
  AudioTranscoder transcoder;
  ASSERT_EQ(transcoder.Init({"a", 44100, 16, 2, "pcm_mulaw", "", ""}, {"b", 44100, 16, 2, "aac", "adts", "fltp"},
                            nullptr, nullptr),
            0);
  look();
  EncoderMP3 encoder;
  const mediautil::FfPtr<AVCodecContext> sound(avcodec_alloc_context3(nullptr));
  sound->sample_rate = 8000;
  sound->sample_fmt = AV_SAMPLE_FMT_S16;
  ASSERT_EQ(encoder.OpenOutputAudioCodec(sound.get(), false, ""), 0);
  look();
  EXPECT_EQ(lookDuring([&dir] { return TranscodeToG711(dir.Path("tone.flac"), dir.Path("tone.wav")); }), 0);
  EXPECT_EQ(most, before);
}

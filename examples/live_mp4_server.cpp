// Plays a recording in a browser as if it were live: live_mp4_server RECORDING [--port N]
//
// The recording takes the camera's part: its frames arrive at their own pace. Each viewer has a muxer of its own, whose
// write callback puts the bytes straight into the HTTP response, and the page hands them to a MediaSource.
#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "utils/ffmpegdemuxer.h"
#include "utils/ffmpegmuxer.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace {

// The default policy puts both streams into the order of their times: a frame waits until the other stream has got as
// far, up to 10 seconds for sound that does not come. This one writes at once, and each stream keeps its own times.
class ImmediateCtrler : public MuxCtrler {
 public:
  int WritePkt(AVFormatContext* oc, AVPacket* pkt) const override { return av_write_frame(oc, pkt); }
};

const ImmediateCtrler g_policy;

// A recording with its H.264 video and, when it is AAC (AAC-LC is what players expect), its sound.
struct Source {
  FFmpegDemux demux;
  ESFormat video;
  ESFormat audio;

  Source() = default;
  ~Source() {
    video.Reset(ES_UNKNOWN);
    audio.Reset(ES_UNKNOWN);
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  bool Open(const std::string& path) {
    if (demux.Open(path, video, audio) != 0 || video.str_codec != "H264") {
      return false;
    }
    if (audio.str_codec != "MPEG4-GENERIC") {
      audio.Reset(ES_UNKNOWN);
    }
    return true;
  }

  bool HasSound() const { return audio.i_cat == ES_AUDIO; }
};

// One viewer: reads, waits until a frame is due, and writes it.
class Viewer {
 public:
  explicit Viewer(httplib::DataSink& sink) : m_sink(sink) {}

  bool Play(const std::string& path) {
    const ESFormat& video = m_source.video;
    const ESFormat& audio = m_source.audio;
    if (!m_source.Open(path) || m_muxer.Init(FFMPEG_MUXER_FORMAT_MP4, this, OnBytes) != 0 ||
        m_muxer.AddVdoStream(video.str_codec, static_cast<int>(video.video.i_width),
                             static_cast<int>(video.video.i_height), video.p_extra, video.i_extra) != 0) {
      return false;
    }
    const std::string info = std::to_string(audio.audio.i_channels) + "|" + std::to_string(audio.audio.i_rate);
    if ((m_source.HasSound() && m_muxer.AddAdoStream(info, audio.str_codec, false) != 0) ||
        m_muxer.WriteHeader() != 0) {
      return false;
    }
    m_source.demux.Demux(m_source.video, m_source.audio, this, OnPacket);
    m_muxer.Finalize();
    return true;
  }

 private:
  using Clock = std::chrono::steady_clock;

  // The bytes are valid during the call only; the sink has sent them when it returns. A negative result ends the
  // output.
  static int OnBytes(void* self, unsigned char* data, int size) {
    auto& viewer = *static_cast<Viewer*>(self);
    viewer.m_isGone = !viewer.m_sink.write(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
    return viewer.m_isGone ? -1 : size;
  }

  static FETCH_CONN OnPacket(void* self, ESFormat& fmt, AVPacket& pkt, AVStream* st) {
    auto& viewer = *static_cast<Viewer*>(self);
    const bool isVideo = fmt.i_cat == ES_VIDEO;
    if (!isVideo && !viewer.m_source.HasSound()) {
      return FETCH_CONN_NEXT;
    }
    const long long time = viewer.WaitFor(AvPacketPtsToRealPts(pkt.dts, st->time_base));
    // A damaged frame is left out. What ends the stream is a viewer who has gone.
    if (isVideo) {
      viewer.m_muxer.WriteVdoFrame(pkt.data, pkt.size, time, (pkt.flags & AV_PKT_FLAG_KEY) != 0);
    } else {
      viewer.m_muxer.WriteAdoFrame(pkt.data, pkt.size, time);
    }
    return viewer.m_isGone || !viewer.m_sink.is_writable() ? FETCH_CONN_STOP : FETCH_CONN_NEXT;
  }

  // Sleeps until the frame is due. Returns its time since the first frame, which is 1: a 0 stands for no time.
  long long WaitFor(long long recorded) {
    if (!m_isBegun) {
      m_isBegun = true;
      m_firstTime = recorded;
      m_begin = Clock::now();
    }
    const long long time = recorded - m_firstTime + 1;
    std::this_thread::sleep_until(m_begin + std::chrono::microseconds(time));
    return time;
  }

  httplib::DataSink& m_sink;
  bool m_isGone = false;  // before the muxer, whose end may write
  Source m_source;
  FFmpegMuxer m_muxer{g_policy};
  bool m_isBegun = false;
  long long m_firstTime = 0;
  Clock::time_point m_begin;
};

// Opened as /?report, the page also tells the server how it gets on.
constexpr const char* kPage = R"html(<!DOCTYPE html>
<html lang="en">
<meta charset="utf-8">
<title>Live</title>
<style>body { font: 16px system-ui, sans-serif; margin: 2rem; } video { max-width: 100%; background: #000; }</style>
<video id="video" autoplay muted controls playsinline></video>
<p><span id="frames">0</span> frames decoded, <span id="state">waiting</span></p>
<script>
const video = document.getElementById('video');
const show = (id, text) => { document.getElementById(id).textContent = text; };

async function play() {
  const mime = await (await fetch('/mime')).text();
  if (!MediaSource.isTypeSupported(mime)) throw Error('the browser does not play ' + mime);
  const source = new MediaSource();
  video.src = URL.createObjectURL(source);
  await new Promise(resolve => source.addEventListener('sourceopen', resolve, {once: true}));
  const buffer = source.addSourceBuffer(mime);
  const reader = (await fetch('/live.mp4')).body.getReader();
  for (let chunk = await reader.read(); !chunk.done; chunk = await reader.read()) {
    buffer.appendBuffer(chunk.value);
    await new Promise((resolve, reject) => {
      buffer.addEventListener('updateend', resolve, {once: true});
      buffer.addEventListener('error', () => reject(Error('the browser refuses the stream')), {once: true});
    });
    show('state', buffer.buffered.length ? buffer.buffered.end(0).toFixed(2) + ' s received' : 'receiving');
  }
  source.endOfStream();
}

function tell(state) {
  const frames = video.getVideoPlaybackQuality().totalVideoFrames;
  show('frames', frames);
  if (location.search === '?report') {
    const text = `frames=${frames} time=${video.currentTime.toFixed(2)} ${state}`;
    fetch('/report', {method: 'POST', body: text});
  }
}

video.addEventListener('ended', () => { show('state', 'ended'); tell('ended'); });
setInterval(() => tell(video.paused ? 'paused' : 'playing'), 500);
play().catch(error => { show('state', error.message); tell(error.message); });
</script>
</html>
)html";

int Serve(const std::string& path, int port) {
  Source source;
  if (!source.Open(path)) {
    std::cerr << "live_mp4_server: " << path << ": not a recording with H.264 video\n";
    return 1;
  }
  const std::string mime = GetMimeCodecs(source.video, source.audio, g_policy);

  httplib::Server server;
  server.Get("/",
             [](const httplib::Request&, httplib::Response& response) { response.set_content(kPage, "text/html"); });
  server.Get("/mime", [mime](const httplib::Request&, httplib::Response& response) {
    response.set_content(mime, "text/plain");
  });
  server.Get("/live.mp4", [path](const httplib::Request&, httplib::Response& response) {
    response.set_chunked_content_provider("video/mp4", [path](std::size_t, httplib::DataSink& sink) {
      const bool isPlayed = Viewer(sink).Play(path);
      sink.done();
      return isPlayed;
    });
  });
  server.Post("/report",
              [](const httplib::Request& request, httplib::Response&) { std::cout << request.body << std::endl; });

  // The camera's pictures stay on this machine.
  constexpr const char* kHost = "127.0.0.1";
  if (port == 0) {
    port = server.bind_to_any_port(kHost);
  } else if (!server.bind_to_port(kHost, port)) {
    port = -1;
  }
  if (port < 0) {
    std::cerr << "live_mp4_server: cannot listen there; choose another --port\n";
    return 1;
  }
  std::cout << "http://" << kHost << ":" << port << "/" << std::endl;
  return server.listen_after_bind() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool hasPort = argc == 4 && std::string(argv[2]) == "--port";
  if (argc != 2 && !hasPort) {
    std::cerr << "usage: live_mp4_server RECORDING [--port N]\n";
    return 2;
  }
  return Serve(argv[1], hasPort ? static_cast<int>(std::strtol(argv[3], nullptr, 10)) : 0);
}

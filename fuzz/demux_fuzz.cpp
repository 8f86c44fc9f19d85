#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "utils/ffmpegdemuxer.h"
#include "utils/mpeg4util.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

FETCH_CONN Count(void* opaque, ESFormat&, AVPacket&, AVStream*) {
  return ++*static_cast<int*>(opaque) < 1000 ? FETCH_CONN_NEXT : FETCH_CONN_STOP;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int fd = memfd_create("input", MFD_CLOEXEC);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  DoFFMpegGetDuration(path);
  FFmpegDemux demux;
  ESFormat video;
  ESFormat audio;
  if (demux.Open(path, video, audio) == 0) {
    int packets = 0;
    demux.Demux(video, audio, &packets, Count);
    demux.Seek(static_cast<long long>(size), 0);
    demux.Demux(video, audio, &packets, Count);
  }
  video.Reset(ES_UNKNOWN);
  audio.Reset(ES_UNKNOWN);
  close(fd);
  return 0;
}

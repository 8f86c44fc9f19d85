// Lets somebody talk through a camera: sound_to_camera HOST PORT < talk.ul
//
// Standard input takes the microphone's part: G.711 mu-law of 8000 Hz, as browsers and telephones send it. The camera
// takes AAC of 16000 Hz with ADTS headers over a TCP connection. Another camera needs another kLoudspeaker, no more.
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "utils/audiotranscoder.h"

namespace {

// Label, Hz, bits a sample, channels, FFmpeg's names of codec, container and sample format.
const CAM_CAP_AUDIO_OUT_FORMAT kMicrophone = {"G711U", 8000, 8, 1, "pcm_mulaw", "", ""};
const CAM_CAP_AUDIO_OUT_FORMAT kLoudspeaker = {"AAC", 16000, 2, 1, "aac", "adts", "fltp"};  // 32 kbit/s

constexpr auto kPieceTime = std::chrono::milliseconds(20);
using Piece = std::array<char, 160>;

class Camera {
 public:
  Camera() = default;
  ~Camera() {
    if (m_socket >= 0) {
      close(m_socket);
    }
  }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  bool Connect(const std::string& host, const std::string& port) {
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &wanted, &found) != 0) {
      return false;
    }
    m_socket = socket(found->ai_family, found->ai_socktype | SOCK_CLOEXEC, found->ai_protocol);
    const bool isConnected = m_socket >= 0 && connect(m_socket, found->ai_addr, found->ai_addrlen) == 0;
    freeaddrinfo(found);
    return isConnected;
  }

  // The transcoder's callback. The bytes are valid during the call only; a negative result says that they are lost,
  // and the transcoder goes on, so the camera remembers it.
  static int Send(void* self, unsigned char* data, int size) {
    auto& camera = *static_cast<Camera*>(self);
    for (int done = 0; done < size && !camera.m_isLost;) {
      const ssize_t sent = send(camera.m_socket, data + done, static_cast<std::size_t>(size - done), MSG_NOSIGNAL);
      camera.m_isLost = sent < 0 && errno != EINTR;
      done += static_cast<int>(std::max<ssize_t>(sent, 0));
    }
    return camera.m_isLost ? -1 : size;
  }
  bool IsLost() const { return m_isLost; }

 private:
  int m_socket = -1;
  bool m_isLost = false;
};

// Hands the pieces over at their own pace, so that a recorded talk does not overrun the camera.
void Talk(std::istream& microphone, AudioTranscoder& transcoder, const Camera& camera) {
  Piece piece;
  auto due = std::chrono::steady_clock::now();
  while (!camera.IsLost() && microphone.read(piece.data(), piece.size()).gcount() > 0) {
    transcoder.DoTranscode(piece.data(), static_cast<int>(microphone.gcount()));
    std::this_thread::sleep_until(due += kPieceTime);
  }
  // What does not fill an encoder frame stays inside: silence pushes the last word out.
  piece.fill('\xFF');
  for (int i = 0; i < 15; ++i) {
    transcoder.DoTranscode(piece.data(), static_cast<int>(piece.size()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: sound_to_camera HOST PORT < MU-LAW\n";
    return 2;
  }
  Camera camera;
  if (!camera.Connect(argv[1], argv[2])) {
    std::cerr << "sound_to_camera: cannot connect to " << argv[1] << " port " << argv[2] << "\n";
    return 1;
  }
  AudioTranscoder transcoder;
  if (transcoder.Init(kMicrophone, kLoudspeaker, &camera, Camera::Send) != 0) {
    std::cerr << "sound_to_camera: this FFmpeg cannot encode " << kLoudspeaker.ffCodecName << "\n";
    return 1;
  }
  Talk(std::cin, transcoder, camera);
  transcoder.Close();
  if (camera.IsLost()) {
    std::cerr << "sound_to_camera: the camera hung up\n";
    return 1;
  }
  return 0;
}

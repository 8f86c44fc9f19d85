// The sound of a file, decoded.
#pragma once

#include <functional>
#include <memory>
#include <string>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct SwrContext;

// The best audio stream of a file.
class SoundSource {
 public:
  SoundSource() = default;
  ~SoundSource();
  SoundSource(const SoundSource&) = delete;
  SoundSource& operator=(const SoundSource&) = delete;

  // Opens the stream and its decoder. kDone, or prints the error.
  int Open(const std::string& path);

  // Of an opened source.
  AVCodecContext* Decoder() const { return m_decoder; }
  int Rate() const;  // Hz
  int Channels() const;
  double Seconds() const;  // playing time, 0 when not known
  bool IsAlone() const;    // nothing else is in the file, covers and chapters apart

  // Decodes it all and lends every frame to take, which returns false to stop; a stop signal ends it too. Damaged
  // packets are skipped.
  void Decode(const std::function<bool(AVFrame&)>& take);

 private:
  AVFormatContext* m_input = nullptr;
  AVCodecContext* m_decoder = nullptr;
  int m_streamIndex = -1;
};

// Decoded frames as signed 16-bit samples, interleaved, of one rate and channel count. More channels are mixed down,
// the sum never above full scale; mono goes to both of two channels 3 dB down.
class PcmConverter {
 public:
  PcmConverter(int rate, int channels);
  ~PcmConverter();
  PcmConverter(const PcmConverter&) = delete;
  PcmConverter& operator=(const PcmConverter&) = delete;

  // Null when nothing can be made of the frame, and without memory. The result is valid until the next call.
  AVFrame* Convert(AVFrame& frame);
  AVFrame* Silence(double seconds);

 private:
  bool Describe(int samples);

  int m_rate;
  int m_channels;
  SwrContext* m_swr;
  AVFrame* m_pcm;
};

// The samples of a frame that PcmConverter made.
unsigned char* PcmData(const AVFrame& pcm);
int PcmSize(const AVFrame& pcm);  // bytes

// Prepares audio files for a camera's loudspeaker: G.711 µ-law samples, WAV headers, conversion.
#pragma once

#include <cstdio>
#include <string>

#include "platform/export.h"
#include "utils/esformat.h"

struct AVCodecContext;
struct AVFormatContext;

// One signed 16-bit sample to its µ-law code, and back.
VY_API unsigned char Linear2Ulaw(short sample);
VY_API short Ulaw2Linear(unsigned char code);

// Playing time of a file's best audio stream in whole seconds, truncated; -1 when the file cannot be read, has no sound
// or does not tell.
VY_API int GetAudioDuration(const std::string& path);

// Writes the 44-byte header of a µ-law WAV file, 8000 Hz stereo, at the stream's position. dataSize: bytes of samples.
VY_API void WriteWavHeader(FILE* file, int dataSize);

// Rewrites the two sizes in the header that a file begins with; leaves the position behind the second one.
VY_API void UpdateWavMetaSize(FILE* file, int dataSize);

// Puts the header in front of a file of raw µ-law samples. 0, or -1. A file that cannot be read, or has more than
// INT_MAX bytes, stays as it was; one that has no room for the header gets its old content back, as far as it can still
// be written.
VY_API int AppendWavHeader(const std::string& path);

// Where the samples of a WAV file begin, in bytes: 58 in the stock clips' directory, else 44. Does not read the file.
VY_API int GetWavAudioFileDataStartPos(const std::string& path);

// Opens a file and analyses its streams. 0, or -1. The caller closes fmt (avformat_close_input) in both cases: it may
// be open after -1, or null. Anything but a plain file is refused, playlists too: reading might never end.
VY_API int GetAVFormat(const std::string& path, AVFormatContext*& fmt);

// Describes the best audio stream of fmt in a new decoder context, not opened, and tells the stream's index. 0, and the
// caller frees ctx (LockAVCodecFreeContext); or -1 with ctx null.
VY_API int GetAVCodec(AVFormatContext*& fmt, AVCodecContext*& ctx, int& streamIndex);

// The two calls above in one. 0, or -1; the caller closes fmt and frees ctx in both cases, either may be null.
VY_API int GetAVContext(const std::string& path, AVFormatContext*& fmt, AVCodecContext*& ctx, int& streamIndex);

// False for 16-bit interleaved samples at 16000 a second over all channels, whatever their codec, and for a file that
// cannot be read.
VY_API bool IsFileNeedToTranscode(const std::string& path);

// Converts a file's best audio stream to a µ-law WAV file, 8000 Hz stereo; mono goes to both channels 3 dB down. Bytes
// that the destination holds already count as samples in front. The data size in the header counts whole blocks of
// 4096 new bytes, the last ones may lie behind it. Frames of more than 12 s are left out. 0, or -1: a missing source
// leaves an empty destination, a failure later on leaves what was written. A destination that is the source, or no
// plain file, is refused.
VY_API int TranscodeToG711(const std::string& srcPath, const std::string& dstPath);

// Channels, rate (Hz) and bit rate of a context in a record that names MP3 whatever the codec is; category, codec code
// and name stay unset and p_extra null.
VY_API ESFormat GetAdoFmt(AVCodecContext*& ctx);

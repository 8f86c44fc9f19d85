// Sound as files.
#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tests/support/sound.h"

// A tone of amplitude 0.5 on two channels, coded by the ffmpeg program as its options and the file's name say.
inline void SaveTone(const std::string& path, const std::string& options, double seconds = 2, double frequency = 1000) {
  const std::string wave = "0.5*sin(2*PI*" + std::to_string(frequency) + "*t)";
  const std::string source = "aevalsrc=" + wave + "|" + wave + ":s=48000:d=" + std::to_string(seconds);
  const std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i '" + source + "' " + options + " " + path;
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error(command);
  }
}

// The bytes of a file; none when it cannot be read.
inline Bytes ReadBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

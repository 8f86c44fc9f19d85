// Checks of a step, and files as bytes.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

// Throws where a step failed. With a literal no text is made as long as all goes well.
inline void Require(bool ok, const char* step) {
  if (!ok) {
    throw std::runtime_error(std::string(step) + " failed");
  }
}
inline void Require(bool ok, const std::string& step) {
  Require(ok, step.c_str());
}

// The bytes of a file; none when it cannot be read.
inline std::vector<std::uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace bench

#!/usr/bin/env bash
# The README's example compiles, links and makes a picture.
top=$(cd "$(dirname "$0")/../.." && pwd)
. "$top/tests/cli/common.sh"

lib=${MEDIAUTIL%/bin/*}/lib
# shellcheck disable=SC2016  # the ticks are Markdown's
sed -n '/^```cpp$/,/^```$/p' "$top/README.md" | sed '/^```/d' >example.cpp
cat >>example.cpp <<'CPP'

#include <fstream>
#include <iostream>
#include <iterator>

int main(int, char** argv) {
  std::ifstream file(argv[1], std::ios::binary);
  const std::vector<unsigned char> frame{std::istreambuf_iterator<char>(file), {}};
  const std::vector<unsigned char> jpeg = Snapshot(frame);
  std::cout.write(reinterpret_cast<const char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
  return jpeg.empty() ? 1 : 0;
}
CPP
# A library with a sanitizer in it needs the program to have it too.
flags=()
nm -D "$lib/libmediautil.so" >symbols
if grep -q __asan symbols; then flags=("-fsanitize=address,undefined"); fi
g++ -std=c++17 -Wall -Wextra -Werror "${flags[@]}" -I"$top" example.cpp -o example -L"$lib" -Wl,-rpath,"$lib" \
  -lmediautil -lmediautil_platform 2>err.txt || die 'the example does not build'

ffmpeg -v error -f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 1 -c:v libx264 -bf 0 key.h264 </dev/null
./example key.h264 >out.jpg 2>err.txt || die 'the example failed'
equal "$(size out.jpg)" mjpeg,640,360
equal "$(colour out.jpg 100 50)" black
./example /dev/null >out.jpg 2>err.txt && die 'no frame, yet a picture'
equal "$(stat -c %s out.jpg)" 0

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

# The commands of its ten minutes do what it says, on a port that is free.
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
{
  # shellcheck disable=SC2016  # for that shell
  echo 'trap "kill \$(jobs -p)" EXIT'
  grep '^ffmpeg ' "$top/README.md"
  sed -n '/^mediautil snapshot/,/^```$/p' "$top/README.md" | sed -e '/^```/d' -e "s/5055/$port/g" \
    -e 's/ & sleep 1$/ >log \& until grep -q listening log; do sleep 0.1; done/'
} >ten.sh
PATH=${MEDIAUTIL%/*}:$PATH bash -euo pipefail ten.sh >words.txt 2>err.txt </dev/null || die 'the ten minutes'
equal "$(size gate.jpg)" mjpeg,640,360
equal "$(colour gate.jpg 100 50)" black
equal "$(ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 gate.mp4)" 150
equal "$(size gate.gif)" gif,640,360
cmp gate.mp4 received/archive/gate/gate.mp4 || die 'the push brought something else'

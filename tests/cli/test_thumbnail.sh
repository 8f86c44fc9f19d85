#!/usr/bin/env bash
# thumbnail: both size classes, the time, masked regions.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

colours wide.mp4 20 -c:v libx264
ffmpeg -v error -i wide.mp4 -vf scale=320:240 tall.mp4
must thumbnail wide.mp4 -o a.jpg
equal "$(size a.jpg)" mjpeg,160,90
says "a.jpg: 160x90 (key frame at 0.000 s)"
must thumbnail wide.mp4 --preview --at 3.2 -o a.jpg
equal "$(size a.jpg)" mjpeg,320,180
equal "$(colour a.jpg)" blue
must thumbnail tall.mp4 -o a.jpg
equal "$(size a.jpg)" mjpeg,120,90

must thumbnail wide.mp4 -o a.jpg --privacy 00000000500000005000500000005000
equal "$(colour a.jpg 30 15) $(colour a.jpg 120 70)" "black red"
rm a.jpg
must_fail 1 thumbnail wide.mp4 -o a.jpg --privacy 0000
ffmpeg -v error -f lavfi -i color=red:size=16x160:duration=1 -c:v mjpeg narrow.avi
must_fail 1 thumbnail narrow.avi -o a.jpg
says "narrow.avi: cannot decode the key frame (key frame at 0.000 s): it is damaged, or smaller than 17x17"
must_fail 3 thumbnail missing.mp4 -o a.jpg
[ ! -e a.jpg ] || die "a failure left a picture"

#!/usr/bin/env bash
# Writes small seeds for every target below the given folder, made with the ffmpeg program.
set -euo pipefail
out=${1:?folder for the seeds}
mkdir -p "$out"/{snapshot,image,region,demux}

source=(-f lavfi -i "testsrc2=size=64x48:rate=25")
encode() { ffmpeg -v error -y "${source[@]}" "$@" </dev/null; }

# The snapshot target's head: video type, length of the configuration data, length of the region text, size wish.
snapshot() { # NAME TYPE FILE
  { printf '%b' "\\x0$2\\x00\\x20\\x20"; printf '00000000500000005000500000005000'; cat "$3"; } >"$out/snapshot/$1"
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
encode -frames:v 1 -c:v mjpeg "$work/1.mjpeg"
encode -frames:v 1 -c:v mpeg4 -f m4v "$work/2.m4v"
encode -frames:v 1 -c:v libx264 -bf 0 "$work/3.h264"
encode -frames:v 1 -c:v libx265 -x265-params log-level=none "$work/6.hevc"
snapshot mjpeg 1 "$work/1.mjpeg"
snapshot mpeg4 2 "$work/2.m4v"
snapshot h264 3 "$work/3.h264"
snapshot mxpeg 5 "$work/1.mjpeg"
snapshot hevc 6 "$work/6.hevc"

{ printf '\x40\x30'; cat "$work/1.mjpeg"; } >"$out/image/baseline"
printf '\x40\x3000000000500000005000500000005000;1234567890120000' >"$out/region/two"
for file in a.mp4 b.mov c.avi d.flv e.mkv f.ts; do
  encode -f lavfi -i sine -frames:v 5 -t 0.2 -c:v "$([ "$file" = c.avi ] && echo mjpeg || echo libx264)" \
    -c:a aac "$out/demux/$file"
done

#!/usr/bin/env bash
# jpeg: frames as they are stored, and what the index lists. crop: the right pixels of the right frame.
# gif: the right key frames, their delays, and what is left after a failure.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# --- jpeg ------------------------------------------------------------------------------------------------------------

colours gate.avi 20 -c:v mjpeg
ffmpeg -v error -i gate.avi -c copy -bsf:v null stored%d.jpg
ffmpeg -v error -i gate.avi -f lavfi -i sine -shortest -c:v copy -c:a pcm_mulaw -ar 8000 gate.mov
while read -r options n; do
  # shellcheck disable=SC2086
  must jpeg gate.mov ${options//=/ } -o -
  says "stdout: frame $((n - 1))"
  cmp -s out.txt "stored$n.jpg" || die "$options is not frame $n"
done <<'END'
--index=0 1
--index=119 120
--at=49 1
--at=50 2
--at=5999 120
END

must jpeg gate.avi --info
equal "$(tr -s ' \n' ' |' <out.txt)" 'file: gate.avi|size: 320x180|frames: 120|rate: 20.000 frames/s|duration: 6.000 s|'
equal "$(wc -c <err.txt)" 0 "remarks about a whole index"
must jpeg gate.mov --info --json
equal "$(json '[d[k] for k in ("schema", "file", "width", "height", "frames", "rate", "duration", "recording_duration")]')" \
  "[1, 'gate.mov', 320, 180, 120, 20.0, 6.0, 6]"

# Too few in the index, or nothing to be found.
ffmpeg -v error -i gate.avi -c copy gate.mkv -c copy gate.mjpeg -c copy -movflags faststart front.mov -c:v libx264 gate.mp4
head -c -100 front.mov >end.mov
head -c -1500 front.mov >late.mov
must jpeg gate.mkv --info
says "gate.mkv: its index lists 1 frame, 0.050 s of 6 s; the file of mediautil export lists all"
echo old >kept.jpg
refuses jpeg <<'END'
1|gate.avi --index 120 -o kept.jpg|gate.avi: cannot read frame 120: the last index is 119
1|gate.avi --at 6000 -o kept.jpg|gate.avi: cannot read frame 120 (at 6000 ms): the last index is 119
1|gate.mkv --index 1 -o kept.jpg|gate.mkv: cannot read frame 1: its index lists 1 frame, 0.050 s of 6 s
1|gate.mjpeg --index 0 -o kept.jpg|gate.mjpeg: cannot read frame 0: its index lists no frames
1|gate.mp4 --index 0 -o kept.jpg|gate.mp4: cannot find stored JPEGs: no Motion JPEG video; mediautil snapshot
3|/dev/null --info|/dev/null: cannot open the recording: not media, or damaged
2|gate.avi --index 0 -o gate.avi|gate.avi: the picture would replace the recording
2|gate.avi -o kept.jpg|jpeg: --index, --at or --info is missing
2|gate.avi --index 0|jpeg: --index requires --output
2|gate.avi --index 0 --at 0 -o kept.jpg|--index excludes --at
END
must jpeg end.mov --index 119 -o a.jpg
says "a.jpg: frame 119, $(wc -c <a.jpg) bytes; it lacks its end: the recording may be cut off"
# The end marker of a preview in the header is none of the picture.
python3 - <<'END'
jpeg = open('stored1.jpg', 'rb').read()
preview = b'\xff\xd8\xff\xda\xff\xd9'
preview = b'\xff\xe1' + (len(preview) + 2).to_bytes(2, 'big') + preview
for name, end in ('whole.jpg', None), ('cut.jpg', -100):
    open(name, 'wb').write(jpeg[:2] + preview + jpeg[2:end])
END
for name in whole cut; do
  ffmpeg -v error -i $name.jpg -c copy $name.mov
  must jpeg $name.mov --index 0 -o a.jpg
  [ $name = cut ] && lacks=1 || lacks=0
  equal "$(grep -c 'lacks its end' err.txt)" "$lacks" "a preview, $name"
done
must_fail 1 jpeg late.mov --index 119 -o kept.jpg
says "late.mov: cannot read frame 119: the file is damaged there"
equal "$(cat kept.jpg)" old "file after failures"

# --- crop ------------------------------------------------------------------------------------------------------------

ffmpeg -v error -i gate.mp4 -vf drawbox=160:90:160:90:black:fill -c:v libx264 -g 30 box.mp4 </dev/null
while read -r rectangle at wanted said; do
  must crop box.mp4 --rect "$rectangle" --at "$at" -o a.jpg
  says "a.jpg: ${said//_/ } (key frame at $at s)"
  equal "$(size a.jpg) $(colour a.jpg 56 26) $(colour a.jpg 64 34)" "mjpeg,100,50 $wanted black" "$rectangle"
done <<'END'
100,60,100,50 0.000 red 100x50_at_100,60
101,61,101,51 3.000 blue 100x50_at_100,60,_rounded_to_even_numbers
END
must crop box.mp4 --rect 80,0,240,90 -o - --privacy 00000000500000005000999900009999
equal "$(colour out.txt 70 40) $(colour out.txt 90 40)" "black red" "regions of the whole picture"

rm a.jpg
refuses crop <<'END'
1|box.mp4 --rect 300,0,22,10 -o a.jpg|box.mp4: cannot cut out 22x10 at 300,0: the picture is 320x180; give a rectangle inside
1|box.mp4 --rect 0,2147483647,10,2147483647 -o a.jpg|the picture is 320x180
1|box.mp4 --rect 0,0,10,10 --privacy 12 -o a.jpg|cannot paint the privacy regions
2|box.mp4 --rect 0,0,10,1 -o a.jpg|crop: --rect: "0,0,10,1" is too small: 2x2 pixels at least
2|box.mp4 --rect 0,0,-10,10 -o a.jpg|"0,0,-10,10" is no rectangle: write X,Y,W,H in pixels
2|box.mp4 --rect 0,0,10,10,10 -o a.jpg|is no rectangle
2|box.mp4 --rect 0,0,10,99999999999 -o a.jpg|is no rectangle
END
[ ! -e a.jpg ] || die "a failure left a picture"

# --- gif -------------------------------------------------------------------------------------------------------------

# shows FILE: the colours of its frames; delays FILE: their seconds.
shows() {
  rm -f shown*.png
  ffmpeg -v error -i "$1" -fps_mode passthrough shown%d.png </dev/null
  for ((n = 1; n <= $(find . -name 'shown*.png' | wc -l); ++n)); do colour "shown$n.png"; done | xargs
}
delays() { ffprobe -v error -show_entries packet=duration_time -of csv=p=0 "$1" | sort -u; }

# Key frames at 0, 1.5, 3 and 4.5 s of 6.
colours rec.mp4 20 -c:v libx264 -bf 2
ffmpeg -v error -i rec.mp4 -c copy -bsf:v h264_mp4toannexb bare.h264
must gif rec.mp4 -o kept.gif --delay 259 --progress=json
progresses "$(wc -c <rec.mp4)"
equal "$(shows kept.gif), $(delays kept.gif)" "red green blue white, 0.250000"
says "kept.gif: 320x180, 4 frames of 0.250 s, $(wc -c <kept.gif) bytes; its frames took 0.9 MB of memory"
while read -r every wanted; do
  must gif rec.mp4 -o a.gif --every "$every"
  equal "$(shows a.gif)" "$wanted" "--every $every"
done <<'END'
0.001 red green blue white
2 red green white
2.5 red blue white
100 red
END
# Key frames at 0, 1.6, 2.2 and 3 s: the nearest to 0, 1, 2 and 3 s.
colours uneven.mp4 20 -c:v libx264 -g 999 -sc_threshold 0 -force_key_frames 1.6,2.2,3
must gif uneven.mp4 -o a.gif --every 1
equal "$(shows a.gif)" "red green green blue" "uneven key frames"
ffmpeg -v error -i rec.mp4 -ss 3 -frames:v 1 -vf scale=1280:720 Big.JPG
must gif Big.JPG -o - --max-frames 1
says "stdout: 640x360, 1 frame of 1.000 s"
must gif Big.JPG gate.avi rec.mp4 -o - --max-frames 3
equal "$(shows out.txt), $(delays out.txt), $(size out.txt)" "blue red red, 1.000000, gif,640,360" stdout
says "gate.avi: the GIF ends here with 3 frames; --max-frames N takes more"

cp kept.gif before.gif
ffmpeg -v error -f lavfi -i sine=d=1 sound.wav
head -c 200 stored1.jpg >cut.jpg
mkfifo pipe.jpg
: >empty.jpg
truncate -s 64M most.jpg
truncate -s 67108865 large.jpg
refuses gif <<'END'
1|sound.wav -o kept.gif|sound.wav: cannot find a key frame: no video stream
1|rec.mp4 bare.h264 --every 1 -o kept.gif|bare.h264: cannot choose key frames by time: its video carries no times
1|rec.mp4 -o none/a.gif|none/a.gif: cannot write the GIF: No such file or directory
3|rec.mp4 missing.jpg -o kept.gif|missing.jpg: cannot read the recording
3|rec.mp4 cut.jpg -o kept.gif|cut.jpg: cannot decode the JPEG: damaged
3|most.jpg -o kept.gif|most.jpg: cannot decode the JPEG: damaged
3|large.jpg -o kept.gif|large.jpg: cannot read the JPEG: it is larger than 64 MB
3|empty.jpg -o kept.gif|empty.jpg: cannot read the JPEG: it is empty
3|pipe.jpg -o kept.gif|pipe.jpg: cannot read the JPEG: it is no regular file
2|Big.JPG rec.mp4 -o rec.mp4|rec.mp4: the GIF would replace the recording
2|rec.mp4 --delay -1 -o kept.gif|--delay
2|rec.mp4 --every 0 -o kept.gif|not a pause: 0; 0.001 at least
2|rec.mp4 --every 0.0009 -o kept.gif|not a pause: 0.0009
2|rec.mp4 --max-frames 0 -o kept.gif|--max-frames
2|rec.mp4 --max-frames 10001 -o kept.gif|--max-frames
2|-o kept.gif|gif: FILE is required
END
ends 1 "$MEDIAUTIL" gif rec.mp4 -o - >/dev/full
says "stdout: cannot write the result: No space left on device"

# Ctrl-C in the long work.
ffmpeg -v error -f lavfi -i nullsrc=size=640x360:rate=20:duration=5,geq='random(1)*255:128+80*random(2):128' \
  -c:v mjpeg -q:v 2 noise.avi
ends 130 timeout --preserve-status -s INT 1 "$MEDIAUTIL" gif noise.avi -o kept.gif
cmp -s before.gif kept.gif || die "a failure or Ctrl-C changed the older GIF"
equal "$(find . -name '*.part*' -o -name '.export*')" "" "left-over files"

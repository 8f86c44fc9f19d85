#!/usr/bin/env bash
# probe: fields as text and JSON, and what it does with files that are no recordings.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

colours video.mp4 20 -c:v libx264
ffmpeg -v error -i video.mp4 -f lavfi -i sine=d=6:sample_rate=22050 -c:v copy -c:a aac -ac 1 both.mp4
ffmpeg -v error -i both.mp4 -vn -c copy sound.mp4

must probe both.mp4
prints "file:      both.mp4"
prints "duration:  6 s"
grep -qE '^video: +h264 \(h264\), 320x180, [0-9]+ bit/s, [1-9][0-9]* bytes extradata$' out.txt || die "video line"
grep -qE '^audio: +aac \(mp4a\), 22050 Hz, 1 channel, [0-9]+ bit/s, [1-9][0-9]* bytes extradata$' out.txt ||
  die "audio line"
[ ! -s err.txt ] || die "noise on stderr"

must probe --json both.mp4
equal "$(json '(d["schema"], d["file"], d["duration"])')" "(1, 'both.mp4', 6)"
equal "$(json '[d["video"][k] for k in ("codec", "fourcc", "width", "height")]')" "['h264', 'h264', 320, 180]"
equal "$(json '[d["audio"][k] for k in ("codec", "fourcc", "rate", "channels")]')" "['aac', 'mp4a', 22050, 1]"
equal "$(json 'd["video"]["extradata_bytes"] > 20 and d["video"]["bit_rate"] > 1000')" True
equal "$(json 'd["audio"]["bit_rate"]')" \
  "$(ffprobe -v error -select_streams a -show_entries stream=bit_rate -of csv=p=0 both.mp4)" "sound bit rate"

must probe --json sound.mp4
equal "$(json '(d["video"], d["audio"]["codec"], d["duration"])')" "(None, 'aac', 6)"

# Any name is data, never a URL, an option or a break in the output.
for name in 'cam1:noon.mp4' '-v.mp4' $'quote"\xff\n.mp4'; do
  cp video.mp4 "./$name"
  must probe --json -- "$name"
  equal "$(json 'd["video"]["width"]')" 320 "$name"
done

# Unreadable or not media: exit code 3, and the message names file, step and cause.
head -c 3000 /dev/zero >zero.mp4
head -c 700 both.mp4 >cut.mp4
seq 2000 | md5sum >garbage.mp4
printf '1\n00:00:01,000 --> 00:00:02,000\ntext\n' >words.srt
refuses probe <<'END'
3|zero.mp4|mediautil: zero.mp4: cannot open the recording: not media, or damaged; check that it was copied whole
3|cut.mp4|mediautil: cut.mp4: cannot open the recording: not media, or damaged; check that it was copied whole
3|garbage.mp4|mediautil: garbage.mp4: cannot open the recording: not media, or damaged; check that it was copied whole
3|.|mediautil: .: cannot read the recording: it is a directory; name a file in it
3|missing.mp4|mediautil: missing.mp4: cannot read the recording: No such file or directory; check the path
3|words.srt|words.srt: cannot find a stream: neither video nor sound
END

# -q leaves the program's own error alone, -v adds the library's.
must_fail 3 -q probe garbage.mp4
equal "$(wc -l <err.txt)" 1 "lines with -q"
must_fail 3 probe garbage.mp4 -v
says "Could not open source file"

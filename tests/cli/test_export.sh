#!/usr/bin/env bash
# export: what is in the output, times, sound, parts, stdout, progress, and what is left after a failure.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# times FILE STREAM: the decoding times of the packets.
times() { ffprobe -v error -select_streams "$2" -show_entries packet=dts_time -of csv=p=0 "$1" | cut -d, -f1 | grep .; }
# check FILE WANTED: codecs; one time line from 0 that always rises, and frame counts: "h264:100 aac:173".
check() {
  local found='' i=0 codec
  for codec in $(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "$1"); do
    times "$1" $i >times.txt
    awk 'NR > 1 && $1 <= last { exit 1 } { last = $1 }' times.txt || die "$1: times of stream $i do not rise"
    found+="${found:+ }$codec:$(wc -l <times.txt)"
    i=$((i + 1))
  done
  equal "$found" "$2" "streams of $1"
  equal "$(ffprobe -v error -show_entries format=start_time -of csv=p=0 "$1")" 0.000000 "start of $1"
}
# last FILE STREAM: the whole hundredths of a second of the last packet.
last() { times "$1" "$2" | tail -n 1 | awk '{ printf "%d", $1 * 100 + 0.5 }'; }
between() { if [ "$1" -lt "$2" ] || [ "$1" -gt "$3" ]; then die "$4: $1 is not within $2 and $3"; fi; }
pixels() { ffmpeg -v error "${@:2}" -i "$1" -map 0:v -f framemd5 - </dev/null | grep -v '^#' | awk '{ print $NF }'; }

# Four seconds, a key frame each second, no B-frames, a tone.
ffmpeg -v error -f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=frequency=1000:sample_rate=48000 -t 4 \
  -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -c:a aac aac.mp4 </dev/null
ffmpeg -v error -i aac.mp4 -c:v copy -c:a pcm_mulaw -ar 8000 -ac 1 g711.mov </dev/null
ffmpeg -v error -i aac.mp4 -an -c:v libx265 -x265-params log-level=error:bframes=0 hevc.mp4 </dev/null
ffmpeg -v error -i aac.mp4 -an -c:v mpeg4 mpeg4.avi </dev/null
ffmpeg -v error -i aac.mp4 -an -c:v mjpeg mjpeg.avi </dev/null
ffmpeg -v error -i aac.mp4 -c copy -output_ts_offset 1000 aac.ts </dev/null
ffmpeg -v error -i aac.mp4 -an -c copy silent.mkv </dev/null
ffmpeg -v error -i aac.mp4 -c:v copy -c:a libmp3lame mp3.mp4 </dev/null
aac=$(times aac.mp4 1 | wc -l)

# Containers: length prefixes and start codes, every video codec, sound that is copied, encoded, left out.
while read -r name options wanted; do
  IFS=, read -ra words <<<"$options"
  case $name in *.flv) out=$name ;; *) out=out.mp4 ;; esac
  must export "${name%.flv}" -o "$out" "${words[@]/#/--}"
  check "$out" "$wanted"
done <<END
aac.mp4 audio=copy h264:100 aac:$aac
aac.ts format=mp4 h264:100 aac:$((aac - 1))
aac.mp4.flv audio=copy h264:100 aac:$aac
aac.mp4 audio=none h264:100
hevc.mp4 format=mp4 hevc:100
mpeg4.avi format=mp4 mpeg4:100
mjpeg.avi format=mp4 mjpeg:100
mp3.mp4 format=mp4 h264:100
END
says "mp3.mp4: cannot take this mp3 sound; the output is silent"
must export hevc.mp4 -o out.mp4
equal "$(ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 out.mp4)" hvc1 "HEVC tag"
must export aac.ts -o out.mp4
says "out.mp4: 100 frames, 4.0"
equal "$(pixels out.mp4 | md5sum)" "$(pixels aac.mp4 | md5sum)" "pixels"
must export aac.mp4 -o out.mp4 --audio mp3
says "aac.mp4: AAC sound is copied, not encoded to MP3"

# Encoded sound: all of it but for what the encoder holds back.
for row in "mp3 out.mp4" "aac out.flv" "mp3 out.mp3"; do
  read -r codec out <<<"$row"
  must export g711.mov -o "$out" --audio "$codec"
  equal "$(ffprobe -v error -select_streams a -show_entries stream=codec_name -of csv=p=0 "$out")" "$codec" "$row"
  ffmpeg -v error -i "$out" -vn -ac 1 -f s16le - </dev/null >pcm
  [ "$(wc -c <pcm)" -gt $((32000 * 2 * 37 / 10)) ] || die "$row: sound is missing"
done

# Parts: back to a key frame, up to a time, sound along with the picture.
while read -r from to frames sound; do
  must export aac.ts -o out.mp4 --from "$from" --to "$to"
  check out.mp4 "h264:$frames aac:$(ffprobe -v error -select_streams a -show_entries packet=dts_time -of csv=p=0 out.mp4 | wc -l)"
  equal "$(pixels out.mp4 | md5sum)" "$(pixels aac.mp4 -ss "${from%.*}" | head -n "$frames" | md5sum)" "pixels of $from"
  between "$(last out.mp4 1)" $((sound - 8)) "$sound" "last sound of $from to $to"
done <<'END'
1.5 2.49 38 149
2 3.2 31 120
0 0.5 13 50
3.9 99 25 100
END
says "aac.ts: begins at 3.000 s, the key frame at or before 3.900 s"
must export g711.mov -o out.mp3 --from 1 --to 3

# A camera's clock that is set, ahead or back: the jump is closed up and told once, for both streams.
for offset in 100 5000; do ffmpeg -v error -i aac.mp4 -c copy -output_ts_offset $offset $offset.ts </dev/null; done
for row in "100 5000" "5000 100"; do
  cat "${row% *}.ts" "${row#* }.ts" >jump.ts
  must export jump.ts -o out.mp4
  check out.mp4 "h264:200 aac:$(times out.mp4 1 | wc -l)"
  equal "$(grep -c 'the clock jumps from' err.txt)" 1 "jumps told of $row"
  equal "$(last out.mp4 0)" 796 "last picture of $row"
  between "$(last out.mp4 1)" 790 810 "last sound of $row"
done
colours b.mp4 25 -c:v libx264
must export b.mp4 -o out.mp4
says "b.mp4: the video has B-frames"
ffmpeg -v error -i aac.mp4 -itsoffset 1.5 -i g711.mov -map 0:v -map 1:a -c copy late.mov </dev/null
must export late.mov -o out.mp4
says "early: it has holes in the recording"

ffmpeg -v error -ss 0.5 -i aac.ts -c copy -copyinkf middle.ts </dev/null
must export middle.ts -o out.mp4 --from 0.1
says ", the first key frame"

# stdout, progress, names for browsers.
must export aac.mp4 -o -
cp out.txt out.mp4
check out.mp4 "h264:100 aac:$aac"
must export aac.mp4 -o out.mp4 --progress=json
progresses 4
must export aac.mp4 -o out.mp4 --progress
equal "$(grep -c left err.txt || true)" 0 "progress without a terminal"
must export aac.mp4 --codecs
grep -qxE 'video/mp4; codecs="avc1\.64[0-9a-f]{4}, mp4a\.40\.2"' out.txt || die "codecs: $(cat out.txt)"

# The configuration of HE-AAC begins like that of AAC-LC, with half the rate.
ffmpeg -v error -i g711.mov -vn -c:a g726 -strict unofficial -ar 16000 -code_size 2 g726.mkv </dev/null
python3 - <<'END'
data = open('aac.mp4', 'rb').read()
assert data.count(b'\x05\x80\x80\x80\x05\x11\x88V\xe5\0') == 1
open('he.mp4', 'wb').write(data.replace(b'\x05\x80\x80\x80\x05\x11\x88V\xe5\0', b'\x05\x80\x80\x80\x05\x13\x08V\xe5\x98'))
END

# What cannot be done, and that it leaves the older file.
mkdir left && cd left && echo old >out.mp4 && cp out.mp4 out.flv && cp out.mp4 out.mp3
refuses export <<'END'
1|../g711.mov -o out.mp4 --audio copy|g711.mov: cannot copy pcm_mulaw sound, only AAC; use --audio mp3 or --audio aac
1|../g711.mov -o out.flv|FLV cannot hold MP3 of 32000 Hz, as sound is encoded; add --audio aac or --audio none
1|../mpeg4.avi -o out.flv|FLV cannot hold mpeg4 video; write an .mp4 instead
1|../aac.mp4 -o out.mp3|AAC sound is copied, and an MP3 cannot hold it; write an .mp4 instead
1|../silent.mkv -o out.mp3|nothing to export: no sound
1|../mp3.mp4 -o out.mp4 --audio aac|cannot take this mp3 sound: only AAC-LC, G.711
1|../g711.mov -o out.mp3 --from 9|nothing to export: no sound in what was asked for
1|../g726.mkv -o out.mp3|cannot take this adpcm_g726 sound: only AAC-LC, G.711, G.726 of 8000 Hz
1|../he.mp4 -o out.mp4 --audio copy|cannot take this aac sound: only AAC-LC
2|../aac.mp4 --codecs --format flv|--codecs
2|../g711.mov -o out.mp3 --audio none|an MP3 holds MP3 sound and nothing else
2|../aac.mp4 -o out.avi|out.avi: cannot tell the container from the name; add --format mp4, flv or mp3
2|../aac.mp4 -o ../aac.mp4|../aac.mp4: the export would replace the recording
2|../aac.mp4 -o out.mp4 --from -1|--from
2|../aac.mp4 -o out.mp4 --from 2 --to 1|--to is not behind --from
2|../aac.mp4|--output is required
3|../none.mp4 -o out.mp4|none.mp4: cannot read the recording
1|../aac.mp4 -o none/out.mp4|none/out.mp4: cannot write the recording: No such file or directory
END
(
  ulimit -f 8
  must_fail 1 export ../aac.mp4 -o out.mp4
)
says "out.mp4: cannot write the recording: File too large"
ends 1 "$MEDIAUTIL" export ../aac.mp4 -o - >/dev/full

# Ctrl-C in the middle of a long recording.
for _ in {1..80}; do cat ../100.ts ../5000.ts; done >../long.ts
interrupts export ../long.ts -o out.mp4
equal "$(cat out.mp4 out.flv out.mp3 | sort -u) $(find . -type f | wc -l)" "old 5" "what failures left"
must export ../aac.mp4 -o out.mp4
check out.mp4 "h264:100 aac:$aac"

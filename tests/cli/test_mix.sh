#!/usr/bin/env bash
# mix: sounds, levels, lengths, what it says, progress, and what is left after a failure; the live example.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# hears FILE FREQUENCY FROM DECIBEL: the level of a tone in the second from there on, within 1 dB; -99 for silence.
hears() {
  ffmpeg -v info -ss "$3" -t 1 -i "$1" -vn -af "bandpass=frequency=$2:width_type=h:width=30,atrim=0.4,volumedetect" \
    -f null - </dev/null 2>&1 | awk '/mean_volume/ { print $5 }' >level.txt
  awk -v wanted="$4" '{ exit wanted < -60 ? $1 > -40 : $1 < wanted - 1 || $1 > wanted + 1 }' level.txt ||
    die "$1: $2 Hz has level $(cat level.txt) at $3 s, not $4"
}
kind() { ffprobe -v error -show_entries stream=codec_name,sample_rate,channels,duration -of csv=p=0 "$1"; }
tone() { ffmpeg -v error -f lavfi -i "sine=frequency=$2:duration=$3" "${@:4}" "$1" </dev/null; }  # -21 dB

tone a.wav 700 4 -ar 8000
tone b.mp3 1100 2 -ar 44100
ffmpeg -v error -f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i sine=frequency=1500:sample_rate=16000 -t 3 \
  -c:v mpeg4 -c:a aac film.mkv </dev/null
ffmpeg -v error -i film.mkv -an -c copy mute.mkv -map 0:a -map 0:a -c copy two.mp4 </dev/null
head -c 5000 b.mp3 >cut.mp3 && head -c 78 a.wav >none.wav

must mix a.wav b.mp3 film.mkv -o mix.MP4
says "mix.MP4: 3 sounds, 4.0"
must mix a.wav b.mp3 film.mkv -q -o mix.wav --progress=json
progresses 4
equal "$(kind mix.MP4 | cut -d, -f1-3) $(kind mix.wav)" "aac,44100,1 pcm_s16le,44100,1,4.000000" "what came out"
for file in mix.MP4 mix.wav; do
  for row in "700 0 -21" "1100 0 -21" "1500 1.5 -21" "1100 2.2 -99" "700 3 -21"; do
    read -ra words <<<"$row" && hears $file "${words[@]}"
  done
done

# The log, in which the mixer tells of every frame, is for those who ask. A mode stays, also one that forbids writing.
export MEDIAUTIL_STATE_DIR=.
must log-level media 7
chmod 440 mix.wav
[ "$(id -u)" != 0 ] || plain=(setpriv --bounding-set=-dac_override)  # root in name only
ends 0 "${plain[@]}" "$MEDIAUTIL" mix a.wav a.wav -o mix.wav
equal "$(stat -c %a mix.wav) $(cat err.txt)" "440 mediautil: mix.wav: 2 sounds, 4.000 s" "mode and words"
must mix cut.mp3 cut.mp3 -o cut.wav -v
says "utils/audiomixer"
says "cut.mp3: only 0."
unset MEDIAUTIL_STATE_DIR

# What cannot be done, and that it leaves the older file.
mkdir left && cd left && echo old >out.wav
refuses mix <<'END'
2|../a.wav -o out.wav|mix: one recording is nothing to mix; name two or more
2|../a.wav ../b.mp3 -o -|mix: OUT is a file that may be completed at its beginning, it cannot be stdout
2|../a.wav ../b.mp3 -o out.ogg|out.ogg: cannot tell the kind of sound from the name; use .mp3, .wav, .aac
2|../a.wav ../b.mp3 -o ../b.mp3|../b.mp3: the mix would replace the recording
3|../a.wav ../lost.wav -o out.wav|lost.wav: cannot read the recording
3|../a.wav ../mute.mkv -o out.wav|mute.mkv: cannot find sound in it
3|../a.wav ../two.mp4 -o out.wav|two.mp4: cannot mix the recording: it has more than one sound track
1|../none.wav ../none.wav -o out.wav|out.wav: nothing of the recordings' sound could be decoded
1|../a.wav ../b.mp3 -o none/out.wav|none/out.wav: cannot write the mix: No such file or directory
END
(ulimit -f 8 && must_fail 1 mix ../a.wav ../b.mp3 -o out.wav)
says "out.wav: cannot write the mix: File too large"
tone ../long.wav 700 900 -ar 8000 -c:a pcm_mulaw
interrupts mix ../long.wav ../long.wav -o out.wav
equal "$(cat out.wav) $(find . -type f | wc -l)" "old 3" "what failures left"
cd ..

# The example: a file and a stream of packets, which come from another file.
[ -x "${MIX_LIVE:-}" ] || exit 0
ends 0 "$MIX_LIVE" a.wav film.mkv live.flv >out.txt
equal "$(cut -c1-13 out.txt) $(cat err.txt) $(kind live.flv | cut -d, -f1-3)" "live.flv: 4.0  aac,16000,1"
hears live.flv 1500 1.5 -21 && hears live.flv 700 3 -21
ends 1 "$MIX_LIVE" a.wav mute.mkv x.flv >out.txt
says "each needs one sound track"

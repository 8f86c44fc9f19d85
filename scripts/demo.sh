#!/usr/bin/env bash
# Builds the program and runs its main jobs on a recording: demo.sh [RECORDING] [--clean]. The result is a page,
# demo/index.html. Without RECORDING a test recording is made; --clean removes what the demo made.
set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$top/build/demo
out=$top/demo
page=$out/index.html
program=$build/bin/mediautil
receiver=$build/bin/mediautil-testserver

usage() {
  echo "usage: demo.sh [RECORDING] [--clean]" >&2
  exit 2
}

# quietly WHAT COMMAND...: output only when the command fails.
quietly() {
  local what=$1 log
  shift
  log=$(mktemp)
  echo "$what ..."
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    echo "demo.sh: failed: $what" >&2
    exit 1
  fi
  rm -f "$log"
}

escape() { sed -e 's/&/\&amp;/g' -e 's/</\&lt;/g' -e 's/>/\&gt;/g'; }

# ---------------------------------------------------------------------------------------------------------------------
# Sections of the page; each runs the program in $out, where the recording is called recording.*
# ---------------------------------------------------------------------------------------------------------------------

begin_page() {
  cat >"$page" <<'HTML'
<!DOCTYPE html>
<html lang="en">
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<title>mediautil demo</title>
<style>
  body { font: 16px/1.5 system-ui, sans-serif; max-width: 60rem; margin: 2rem auto; padding: 0 1rem; color: #222; }
  h1 { font-size: 1.6rem; } h2 { font-size: 1.15rem; margin: 2.5rem 0 .5rem; }
  pre { background: #f3f4f6; border-radius: 6px; padding: .6rem .9rem; overflow-x: auto; }
  img, video { max-width: 100%; border: 1px solid #ccc; } audio { width: 100%; } p { margin: .3rem 0; }
</style>
HTML
  printf '<h1>mediautil %s</h1>\n<p>Made from %s. Every picture stands under the command that made it.</p>\n' \
    "$("$program" --version | cut -d' ' -f2)" "$(printf %s "$1" | escape)" >>"$page"
}

# shell_words WORD...: as one would type them.
shell_words() {
  local word
  for word in "$@"; do
    case $word in
      '' | *[!A-Za-z0-9_./:,=@%+-]*) printf ' %s' "${word@Q}" ;;
      *) printf ' %s' "$word" ;;
    esac
  done
}

# heading TITLE TEXT COMMAND...: what a section shows, and its command line.
heading() {
  local title=$1 text=$2
  shift 2
  {
    printf '<h2>%s</h2>\n<p>%s</p>\n<pre>' "$title" "$text"
    printf '$ mediautil'
    shell_words "$@" | escape
    printf '</pre>\n'
  } >>"$page"
}

# text_section TITLE TEXT ARGUMENT...: shows what the program prints.
text_section() {
  heading "$@"
  shift 2
  { printf '<pre>'; "$program" "$@" | escape; printf '</pre>\n'; } >>"$page"
}

# picture_section TITLE TEXT FILE ARGUMENT...: shows the picture FILE that the program writes.
picture_section() {
  local title=$1 text=$2 file=$3
  shift 3
  heading "$title" "$text" "$@" -o "$file"
  "$program" -q "$@" -o "$file"
  printf '<img alt="%s" src="data:image/%s;base64,%s">\n<p>%s, %s bytes</p>\n' "$title" \
    "$(case $file in *.gif) echo gif ;; *) echo jpeg ;; esac)" "$(base64 -w 0 "$file")" \
    "$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x "$file")" \
    "$(stat -c %s "$file")" >>"$page"
}

# still_sections RECORDING: a part of a picture, an animation, a JPEG as a camera stored it.
still_sections() {
  local width height
  IFS=x read -r width height < <(ffprobe -v error -select_streams v:0 -show_entries stream=width,height \
    -of csv=p=0:s=x "$1")
  picture_section "Cropped picture" "The middle of the first key frame." cropped.jpg \
    crop "$1" --rect "$((width / 4)),$((height / 4)),$((width / 2)),$((height / 2))"
  picture_section "Animated GIF" "The key frames, half a second each." keys.gif gif "$1" --delay 500 --max-frames 10
  ffmpeg -v error -i "$1" -t 2 -an -c:v mjpeg -q:v 5 stored.avi
  picture_section "Stored JPEG" "One frame of a Motion JPEG file, not decoded: the bytes that stand in it." stored.jpg \
    jpeg stored.avi --at 1000
}

# live_section RECORDING: its thumbnail while it is fed into shared memory as a camera's live stream.
live_section() {
  local codec words feeder cache=/var/packages/Korvane/target/@kestrel/@SharedThumb/9001.0
  export MEDIAUTIL_STATE_DIR=$PWD/state
  codec=$(ffprobe -v error -select_streams v:0 -show_entries stream=codec_name -of default=nk=1:nw=1 "$1")
  heading "Live thumbnail" "The recording is fed as the live stream of camera 9001 meanwhile: mediautil feed." \
    live-thumb --camera 9001 -o live.jpg
  if words=$("$program" camera add 9001 --codec "$codec" 2>&1); then
    "$program" -q feed "$1" --camera 9001 --loop &
    feeder=$!
    for _ in 1 2 3 4 5 6 7 8 9 10; do
      sleep 0.5
      words=$("$program" live-thumb --camera 9001 -o live.jpg 2>&1) && break
    done
    kill "$feeder" || true
    wait "$feeder" || true
    rm -f "$cache" "$cache.lock"
  fi
  if [ -f live.jpg ]; then
    printf '<img alt="Live thumbnail" src="data:image/jpeg;base64,%s">\n' "$(base64 -w 0 live.jpg)" >>"$page"
  fi
  printf '<p>%s</p>\n' "$(printf %s "${words##*$'\n'}" | escape)" >>"$page"
}

# video_section TITLE TEXT FILE ARGUMENT...: plays the MP4 that the program writes, or tells why there is none.
video_section() {
  local title=$1 text=$2 file=$3 words
  shift 3
  heading "$title" "$text" "$@" -o "$file"
  if words=$("$program" "$@" -o "$file" 2>&1); then
    printf '<video src="%s" controls muted preload="metadata"></video>\n' "$file" >>"$page"
  fi
  printf '<p>%s</p>\n' "$(printf %s "$words" | escape)" >>"$page"
}

# sound_section TITLE TEXT FILE ARGUMENT...: plays the sound file that the program writes, or tells why there is none.
sound_section() {
  local title=$1 text=$2 file=$3 words
  shift 3
  heading "$title" "$text" "$@"
  if words=$("$program" "$@" 2>&1); then
    printf '<audio src="%s" controls preload="metadata"></audio>\n' "$file" >>"$page"
  fi
  printf '<p>%s</p>\n' "$(printf %s "${words##*$'\n'}" | escape)" >>"$page"
}

# sound_sections RECORDING: its sound for loudspeakers, and the waveform of the first one.
sound_sections() {
  sound_section "Sound for a loudspeaker" "G.711 mu-law of 8000 Hz in a WAV file." speaker.wav g711 "$1" speaker.wav
  if [ -f speaker.wav ]; then
    ffmpeg -v error -i speaker.wav -filter_complex 'showwavespic=s=960x160:colors=#3b6ea5:split_channels=1' \
      -frames:v 1 waveform.png
    printf '<img alt="Waveform" src="data:image/png;base64,%s">\n<p>Its waveform, both channels</p>\n' \
      "$(base64 -w 0 waveform.png)" >>"$page"
  fi
  sound_section "Sound for a camera" "AAC of 16000 Hz as it goes to a camera that talks." camera.aac \
    speak "$1" --codec aac -o camera.aac
  sound_section "Sound as a small MP3" "Mono, 32 kbit/s." voice.mp3 mp3 "$1" voice.mp3
}

# mix_section RECORDING: its sound with a gong over it.
mix_section() {
  ffmpeg -v error -f lavfi -i \
    'aevalsrc=0.15*(sin(2*PI*659*t)*exp(-3*t)+gte(t\,0.7)*sin(2*PI*523*t)*exp(-3*(t-0.7))):s=44100:d=2.5' gong.wav
  sound_section "Mixed sound" "The recording with a gong over it, each at its own level." mixed.m4a \
    mix "$1" gong.wav -o mixed.m4a
}

# push_section TITLE TEXT ARGUMENT...: shows what the program says and what then stands in the receiver's store.
push_section() {
  heading "$@"
  shift 2
  {
    printf '<pre>'
    MEDIAUTIL_PASSWORD=secret "$program" "$@" 2>&1 | escape
    printf '</pre>\n<p>The receiver has now:</p>\n<pre>'
    find received -type f -printf '%P, %s bytes\n' | sort | escape
    printf '</pre>\n'
  } >>"$page"
}

# Starts the receiver of the pushes; it ends with this script.
start_receiver() {
  : >receiver.log
  "$receiver" --store received >receiver.log &
  local pid=$!
  # shellcheck disable=SC2064  # the number is known now
  trap "kill $pid" EXIT
  until grep -q listening receiver.log; do kill -0 "$pid" && sleep 0.1; done
  port=$(sed -n 's/^listening on //p' receiver.log)
}

# ---------------------------------------------------------------------------------------------------------------------

recording=
clean=
for argument in "$@"; do
  case $argument in
    --clean) clean=yes ;;
    -*) usage ;;
    *) [ -z "$recording" ] || usage; recording=$argument ;;
  esac
done
if [ -n "$clean" ]; then
  rm -rf "$out" "$build"
  exit 0
fi
if [ -n "$recording" ]; then
  [ -f "$recording" ] || { echo "demo.sh: no such recording: $recording" >&2; exit 1; }
  recording=$(realpath -- "$recording")
fi

"$top/scripts/setup.sh" demo
cd "$top"
quietly "Configuring" cmake --preset release -B "$build" -DMEDIAUTIL_BENCH=OFF -DMEDIAUTIL_TESTS=OFF \
  -DMEDIAUTIL_TESTSERVER=ON
quietly "Building" cmake --build "$build" --target mediautil_tool mediautil_testserver

rm -rf "$out"
mkdir -p "$out"
cd "$out"
if [ -z "$recording" ]; then
  name=recording.mp4
  origin="a test recording: 6 s, a key frame every 2 s, with sound"
  quietly "Making a recording" ffmpeg -y -f lavfi -i testsrc2=size=640x360:rate=25 -f lavfi -i \
    'aevalsrc=0.7*sin(2*PI*440*t)*abs(sin(PI*t/2))' -t 6 -c:v libx264 -bf 0 -pix_fmt yuv420p -g 50 -c:a aac "$name"
else
  origin=$(basename -- "$recording")
  name=recording
  case $origin in *.*) name=recording.${origin##*.} ;; esac
  ln -s -- "$recording" "$name"
fi

echo "Running the program ..."
begin_page "$origin"
text_section "Probe" "What the recording holds." probe "$name"
picture_section "Snapshot" "The first key frame in full size." first.jpg snapshot "$name"
picture_section "Snapshot at a time" "The key frame at or before 3.5 seconds." later.jpg snapshot "$name" --at 3.5
picture_section "Scaled snapshot" "The longer side at most 240 pixels." small.jpg snapshot "$name" --max-side 240
picture_section "Masked snapshot" "Two privacy regions: the upper left quarter and a triangle at the lower right." \
  masked.jpg snapshot "$name" --privacy '00000000500000005000500000005000;999949999999999940009999'
picture_section "Event thumbnail" "The size that event lists show." thumbnail.jpg thumbnail "$name"
picture_section "Event preview" "Twice that size." preview.jpg thumbnail "$name" --preview
still_sections "$name"
live_section "$name"
video_section "Export" "The recording as fragmented MP4; its video is copied as it is." export.mp4 export "$name"
sound_sections "$name"
mix_section "$name"

start_receiver
remote=(--host 127.0.0.1 --port "$port" --account admin)
mkdir -p 'day/events of gate 1'
cp first.jpg later.jpg day
cp thumbnail.jpg preview.jpg 'day/events of gate 1'
push_section "Push of a recording" "To the receiver of the tests, which runs on this machine meanwhile." \
  push "$name" "${remote[@]}" --dest archive/gate
push_section "Push of a directory" "It gets its name on the remote when all of it is there." \
  push day "${remote[@]}" --dest archive/day --tmp-dir
echo "Done: $page"

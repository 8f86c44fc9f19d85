#!/usr/bin/env bash
# camera, feed and live-thumb: the records of cameras, recordings as their live streams, and thumbnails of those.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# --- The records.
must_fail 1 camera list
says "cannot reach the cameras: MEDIAUTIL_STATE_DIR is not set"
export MEDIAUTIL_STATE_DIR=$DIR/state
must camera list
says "$DIR/state: no camera yet"
equal "$(ls state out.txt -s 2>/dev/null)" "0 out.txt" "what showing made"
must camera list --json
equal "$(json '(d["schema"], d["cameras"])')" "(1, [])"

region=000000000000999999990000
must camera add 12 --codec h264 --streams 4,5,6 --live low --privacy "$region;"
says "camera 12: added"
must camera add 2147483647 --codec mxpeg
must camera list
prints "camera 12: h264, high is stream 4, medium is stream 5, low is stream 6 (live), privacy $region;"
prints "camera 2147483647: mxpeg, high is stream 0 (live), medium is stream 1, low is stream 2"
must camera list --json
equal "$(json '[(c["number"], c["video_type"], c["codec"], c["live"], c["privacy"], sorted(c["streams"].items()))
                for c in d["cameras"]][0]')" \
  "(12, 3, 'h264', 'low', '$region;', [('high', 4), ('low', 6), ('medium', 5)])"
must camera remove 2147483647
says "camera 2147483647: removed with its events"
must_fail 1 camera remove 2147483647
says "camera 2147483647: not registered in $DIR/state; register it, as with mediautil camera add 2147483647 --codec h264"

refuses camera <<'END'
2|add|camera add: the camera's number is missing
2|remove|camera remove: the camera's number is missing
2|add 12|camera add: --codec is missing
2|add 12 --codec h265|h265 not in {mjpeg,mpeg4,h264,mxpeg,hevc}
2|add 0 --codec h264|N: Value 0 not in range
2|add 12 --codec h264 --privacy 0000|camera add: "0000" is no region text; write 8 digits a corner
2|add 12 --codec h264 --streams 1,2|--streams
2|add 12 --codec h264 --streams 1,2,-1|--streams
2|add 12 --codec h264 --live top|--live: top not in {high,low,medium}
2|list 12|camera list: takes no number; leave it out
2|show|WHAT: show not in {add,list,remove}
END
must camera list --json
equal "$(json '[c["privacy"] for c in d["cameras"]]')" "['$region;']" "what wrong usage left"
must camera add 12 --codec h264 --live medium
says "camera 12: replaced the one of that number"
: >file
MEDIAUTIL_STATE_DIR=$DIR/file/state must_fail 1 camera add 12 --codec h264
says "$DIR/file/state: cannot store the camera; check the directory"

# --- Recordings as live streams: with and without start codes, with and without times.
clip() { ffmpeg -v error -y -f lavfi -i testsrc2=size=320x180:rate=50 -frames:v 10 "${@:2}" "$1" </dev/null; }
clip h264.mp4 -c:v libx264 -bf 2
clip h264.ts -c:v libx264
clip h264.264 -c:v libx264
clip hevc.mp4 -c:v libx265 -x265-params log-level=none:info=0
clip mpeg4.avi -c:v mpeg4
clip mjpeg.mkv -c:v mjpeg
clip long.mp4 -c:v libx265 -x265-params log-level=none
clip huge.mkv -frames:v 1 -vf scale=4096:3072,noise=alls=100 -c:v mjpeg -q:v 1 -qmin 1
for file in h264.mp4 h264.ts h264.264 hevc.mp4 mpeg4.avi mjpeg.mkv; do
  must camera add 5 --codec "${file%.*}"
  must feed "$file" --camera 5
  grep -qE "$file: feeds camera 5, stream 0: ${file%.*}, 320x180, (50|25) fps" err.txt || die "note of $file"
  says "$file: 10 frames fed"
done

must camera add 6 --codec hevc
must camera add 8 --codec h264
python3 -c 'import sqlite3, sys; sqlite3.connect(sys.argv[1]).executescript("UPDATE cameras SET stream_high = -1 WHERE id = 8")' \
  state/nvr.db
clip vp8.mkv -c:v libvpx
ffmpeg -v error -f lavfi -i sine=duration=0.1 sound.wav
refuses feed <<'END'
2|h264.mp4|--camera is required
2|h264.mp4 --camera 0|--camera
2|h264.mp4 --camera 6 --stream -1|--stream
3|none.mp4 --camera 6|none.mp4: cannot read the recording
3|file --camera 6|file: cannot open the recording
1|h264.mp4 --camera 7|camera 7: not registered in
1|h264.mp4 --camera 8|camera 8: its live profile has no stream; give --stream, or register it again
1|huge.mkv --camera 5|huge.mkv: cannot feed it: all its frames have more than 8388608 bytes; convert the recording first
1|h264.mp4 --camera 6|h264.mp4: its video is h264, that of camera 6 is hevc; change it with mediautil camera add 6 --codec h264
1|vp8.mkv --camera 6|vp8.mkv: cannot feed vp8 video: cameras send MJPEG
1|sound.wav --camera 6|sound.wav: cannot feed it: no video stream
1|long.mp4 --camera 6|bytes of codec configuration, live streams have at most 1024
END
(unset MEDIAUTIL_STATE_DIR && must_fail 1 feed h264.mp4 --camera 12)
says "cannot reach the cameras: MEDIAUTIL_STATE_DIR is not set"
limit='echo 4096 >/proc/sys/kernel/shmmax && exec "$@"'
if unshare -i sh -c "$limit" - true 2>err.txt; then
  ends 1 unshare -i sh -c "$limit" - "$MEDIAUTIL" feed h264.mp4 --camera 12
  says "Invalid argument; check the directory that MEDIAUTIL_STATE_DIR names, or the limits of shared memory (kernel."
fi

# One feeds a stream at a time; a killed one does not stay in the way, and whoever stops a loop has not failed.
feeds() {
  : >loop.txt
  cp h264.mp4 loop.mp4
  "$MEDIAUTIL" feed loop.mp4 --camera 12 --loop 2>loop.txt &
  until grep -q "feeds camera 12, stream 1" loop.txt; do sleep 0.05; done
}
feeds
must_fail 1 feed h264.mp4 --camera 12
says "camera 12, stream 1: cannot feed it: another program feeds it; end that one, or give another --stream"
must feed h264.mp4 --camera 12 --stream 2
kill -KILL $!
wait $! 2>/dev/null || true
feeds
kill -TERM $!  # what runs in the background of a script ignores Ctrl-C
wait $! || die "a stopped loop ended with $?"
grep -qE 'loop.mp4: [0-9]+ frames fed' loop.txt || die "end of the loop"
feeds
mv hevc.mp4 loop.mp4  # what comes next is looked at again
wait $! && die "a loop went on with another codec"
grep -qF 'loop.mp4: its video is hevc, that of camera 12 is h264' loop.txt || die "a loop's new recording"
clip slow.mp4 -r 1 -c:v libx264
ends 130 timeout --preserve-status -s INT 1 "$MEDIAUTIL" feed slow.mp4 --camera 12
grep -qE 'slow.mp4: [0-9]+ frames fed, then interrupted' err.txt || die "interrupted feed"

# --- Thumbnails of live streams, in a folder /var of the test's own.
mkdir var
flags=-rm
[ "$(id -u)" != 0 ] || flags=-m
cat >private <<END
#!/bin/sh
exec unshare $flags sh -c 'mount --bind "\$0" /var && exec "\$@"' '$DIR/var' "\$@"
END
chmod +x private
if ! ./private true; then
  echo "no live-thumb: the system allows no folder /var of the test's own"
  exit 0
fi
cat >thumbs <<END
#!/bin/sh
exec '$DIR/private' '$MEDIAUTIL' "\$@"
END
chmod +x thumbs
cache="$DIR/var/packages/Korvane/target/@kestrel/@SharedThumb"
feeds
MEDIAUTIL=$DIR/thumbs
until "$MEDIAUTIL" live-thumb --camera 12 -o a.jpg 2>err.txt; do sleep 0.05; done
equal "$(size a.jpg)" mjpeg,160,90
says "a.jpg: camera 12, stream 1, "
cmp a.jpg "$cache/12.1"
kill -TERM $!
wait $! || die "a stopped loop ended with $?"
must live-thumb --camera 12 --stream-profile medium --max-age 1000 -o -
cmp out.txt "$cache/12.1"
must live-thumb --camera 12 --max-age 1000 --base64
base64 -d out.txt | cmp - "$cache/12.1"
if [ -n "${LIVE_THUMBNAIL:-}" ]; then
  touch "$cache/12.1"
  ./private "$LIVE_THUMBNAIL" >wall.html
  equal "$(grep -c '<figure>' wall.html)" 4
fi
refuses live-thumb <<'END'
2|--camera 12|live-thumb: where the picture goes is missing; give either --output or --base64
2|--camera 12 -o a.jpg --base64|--output excludes --base64
2|--camera 12 --max-age -1 --base64|--max-age
2|--camera 0 --base64|--camera
1|--camera 7 --base64|camera 7: not registered in
1|--camera 8 --stream-profile high --base64|camera 8: its high profile has no stream; give --stream-profile, or register
1|--camera 12 --max-age 0 --base64|camera 12, stream 1: no live stream; see that the camera is connected
END
rm "$cache/12.1.lock"
mkdir "$cache/12.1.lock"
must_fail 1 live-thumb --camera 12 -o a.jpg
says "@SharedThumb/12.1.lock: cannot lock the cached thumbnail: Invalid argument; give it to this user"
rm -r "$cache"
: >"$cache"
must_fail 1 live-thumb --camera 12 -o a.jpg
says "@kestrel/@SharedThumb: cannot write the cache of thumbnails: Not a directory; make the directory"

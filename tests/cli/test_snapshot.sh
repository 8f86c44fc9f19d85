#!/usr/bin/env bash
# snapshot: the right key frame, size, masked regions, and what is left after a failure.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# Key frames at 0, 1.5, 3 and 4.5 s. libx264 makes B-frames by default.
colours b.mp4 20 -c:v libx264
while read -r at wanted; do
  must snapshot b.mp4 -o a.jpg --at "$at"
  equal "$(colour a.jpg)" "$wanted" "--at $at"
done <<'END'
-7 red
1.499 red
1.5 green
3 blue
6 white
1e300 white
END
must snapshot b.mp4 -o a.jpg
equal "$(colour a.jpg)" red "without --at"
says "a.jpg: 320x180 (key frame at 0.000 s)"

# Codecs, containers, time bases that a seek in whole seconds cannot hit, streams that start late.
hevc=(-c:v libx265 -x265-params log-level=error:keyint=30:min-keyint=30:scenecut=0:open-gop=0)
colours plain.mov 20 -c:v libx264 -bf 0
colours hevc.mp4 20 "${hevc[@]}"
colours hevc_p.ts 20 "${hevc[@]}" -bf 0
colours odd.avi 30000/1001 -c:v mpeg4 -sc_threshold 1000000000
colours mpeg4_b.mp4 20 -c:v mpeg4 -bf 2 -sc_threshold 1000000000
colours mjpeg.avi 20 -c:v mjpeg
colours late.ts 20 -c:v libx264 -output_ts_offset 1000.25
colours fragments.mp4 20 -c:v libx264 -movflags empty_moov+frag_keyframe
for name in plain.mov hevc.mp4 hevc_p.ts odd.avi mpeg4_b.mp4 mjpeg.avi late.ts fragments.mp4; do
  case $name in odd.avi) times="0.9 1.2 2.9 3.8" ;; *) times="1.4 1.6 4.4 5.7" ;; esac
  read -r t1 t2 t3 t4 <<<"$times"
  for row in "$t1 red" "$t2 green" "$t3 blue" "$t4 white" "600 white"; do
    must snapshot "$name" -o a.jpg --at "${row% *}"
    equal "$(colour a.jpg)" "${row#* }" "$name --at ${row% *}"
  done
  equal "$(size a.jpg)" mjpeg,320,180 "$name"
done

# Size and quality.
while read -r side wanted; do
  must snapshot b.mp4 -o a.jpg --max-side "$side"
  equal "$(size a.jpg)" "mjpeg,$wanted" "--max-side $side"
done <<'END'
64 64,36
5000 320,180
END
ffmpeg -v error -f lavfi -i testsrc2=size=320x180:rate=5:duration=1 -c:v libx264 detail.mp4
must snapshot detail.mp4 -o low.jpg --quality 10
must snapshot detail.mp4 -o high.jpg --quality 100
[ "$(wc -c <low.jpg)" -lt "$(($(wc -c <high.jpg) / 2))" ] || die "quality without effect"

# Masked regions: black inside, untouched outside; a bad text leaves no picture and no old one changed.
must snapshot b.mp4 -o a.jpg --privacy '00000000500000005000500000005000;80008000999980009999999980009999'
equal "$(colour a.jpg 40 20) $(colour a.jpg 150 80) $(colour a.jpg 300 170)" "black black black"
equal "$(colour a.jpg 200 40) $(colour a.jpg 40 120)" "red red"
rm a.jpg
echo old >kept.jpg
for text in word 0000000050000000 0000000050000000500050000000500 0000-00050000000500050000000 \
  '00000000500000005000500000005000;9'; do
  must_fail 1 snapshot b.mp4 -o a.jpg --privacy "$text"
  says "b.mp4: cannot paint the privacy regions: \"$text\" is no region text"
  must_fail 1 snapshot b.mp4 -o kept.jpg --privacy "$text"
done
[ ! -e a.jpg ] || die "an unmasked picture was written"

# Output: stdout, whole files only.
must snapshot b.mp4 -o - --at 2
equal "$(colour out.txt)" green stdout
(
  ulimit -f 1
  must_fail 1 snapshot detail.mp4 -o kept.jpg
)
says "kept.jpg: cannot write the picture: File too large"
equal "$(cat kept.jpg)" old "file after failures"
cp b.mp4 same.mp4
ln -s same.mp4 link.jpg
ffmpeg -v error -f lavfi -i sine=d=1 -c:a aac sound.mp4
ffmpeg -v error -i detail.mp4 -c:v flv1 old.flv
refuses snapshot <<'END'
1|b.mp4 -o none/a.jpg|none/a.jpg: cannot write the picture: No such file or directory; check the directory
1|b.mp4 -o .|.: cannot write the picture: not a regular file
2|same.mp4 -o link.jpg|link.jpg: the picture would replace the recording
1|sound.mp4 -o a.jpg|sound.mp4: cannot find a key frame: no video stream
1|old.flv -o a.jpg|old.flv: cannot decode flv1 video: only MJPEG, MPEG-4, H.264, HEVC and MxPEG are
END
cmp -s b.mp4 same.mp4 || die "the recording changed"
must snapshot b.mp4 -o kept.jpg
equal "$(colour kept.jpg)" red "replaced file"
equal "$(find . -newer b.mp4 -name '*kept*' | sort | tr '\n' ' ')" "./kept.jpg " "left-over files"

# Damaged recordings end with a picture or a clear error, never with a signal.
for offset in 100 1000 2500; do
  head -c "$offset" late.ts >cut.ts
  "$MEDIAUTIL" -q snapshot cut.ts -o a.jpg --at 1 2>err.txt || case $? in 1 | 3) ;; *) die "cut at $offset: $?" ;; esac
done

# The example makes the same picture.
if [ -n "${SNAPSHOT:-}" ]; then
  ends 0 "$SNAPSHOT" b.mp4 example.jpg 00000000500000005000500000005000
  equal "$(size example.jpg) $(colour example.jpg 40 20) $(colour example.jpg 200 120)" "mjpeg,320,180 black red"
  ends 1 "$SNAPSHOT" sound.mp4 example.jpg
  says "snapshot: sound.mp4: no picture; the log says why"
fi

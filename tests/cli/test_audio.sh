#!/usr/bin/env bash
# g711, mp3, speak, play and the example that talks through a camera: tones, levels, lengths, headers, and failures.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

# tones FILE CHANNELS [OPTION...]: the amplitudes of 730 and 1000 Hz in the middle half, in thousandths, channel by
# channel, then the seconds of sound in hundredths. OPTION: for ffmpeg, how to read FILE.
tones() {
  ffmpeg -v error "${@:3}" -i "$1" -ac "$2" -ar 16000 -f f32le - </dev/null | python3 -c '
import array, cmath, sys
sound = array.array("f", sys.stdin.buffer.read())
channels = int(sys.argv[1])
for channel in (sound[c::channels] for c in range(channels)):
    middle = channel[len(channel) // 4:len(channel) // 4 * 3]
    window = [0.5 - 0.5 * cmath.cos(2 * cmath.pi * i / len(middle)).real for i in range(len(middle))]
    for hertz in 730, 1000:
        turn = -2j * cmath.pi * hertz / 16000
        print(round(2000 * abs(sum(s * w * cmath.exp(turn * i) for i, (s, w) in enumerate(zip(middle, window)))) /
                    sum(window)), end=" ")
print(len(sound) // channels * 100 // 16000)' "$2"
}
# near FOUND WANTED: every number within 2 %, but for 4 thousandths; the last one, the length, up to 40 % longer.
near() {
  awk -v found="$1" -v wanted="$2" 'BEGIN { n = split(found, f, " "); if (n != split(wanted, w, " ")) exit 1
    for (i = 1; i < n; ++i) { d = f[i] - w[i]; if (d * d > (w[i] / 50) ^ 2 && d * d > 16) exit 1 }
    exit !(f[n] >= w[n] && f[n] <= w[n] * 1.4) }' || die "$3: $1 is not near $2"
}
# plays FILE [OPTION...]: ffmpeg has nothing to say but for what every raw stream and every plain WAV file makes it say.
plays() {
  local words
  words=$(ffmpeg -v warning "${@:2}" -i "$1" -f null - 2>&1 </dev/null |
    grep -vE 'Estimating duration from bitrate|Guessed Channel Layout|^$' || true)
  [ -z "$words" ] || die "$1: $words"
}
# facts FILE: codec, rate, channels.
facts() { ffprobe -v error -show_entries stream=codec_name,sample_rate,channels -of csv=p=0 "$1"; }
# little FILE OFFSET: four bytes as a number.
little() { od -An -tu4 -j "$2" -N 4 "$1" | tr -d ' '; }
header_fits() {
  equal "$(little "$1" 40) $(little "$1" 4)" "$(($(stat -c %s "$1") - 44)) $(($(stat -c %s "$1") - 8))" "sizes in $1"
}

# Two seconds: 730 Hz on the left and 1 kHz on the right; 1 kHz mono; the stereo one coded, and beside a picture.
tone() { echo "aevalsrc=$1:s=$2:d=2"; }
ffmpeg -v error -f lavfi -i "$(tone '0.5*sin(2*PI*730*t)|0.5*sin(2*PI*1000*t)' 44100)" st.wav
ffmpeg -v error -f lavfi -i "$(tone '0.5*sin(2*PI*1000*t)' 8000)" mono.wav
ffmpeg -v error -i mono.wav -ac 2 -c:a pcm_s16le fits.wav
ffmpeg -v error -i mono.wav -ar 44100 mono.mp3
ffmpeg -v error -i st.wav -sample_fmt fltp st.mp3
ffmpeg -v error -f lavfi -i testsrc2=size=64x64:rate=25 -i st.wav -t 2 -c:a aac st.mp4
ffmpeg -v error -i st.wav -ar 48000 -c:a flac -sample_fmt s32 st.flac
cat st.mp3 mono.mp3 st.mp3 >change.mp3

# The WAV file: both channels, mono to both 3 dB down, a header that counts every sample.
while read -r source wanted; do
  must g711 "$source" out.wav
  equal "$(facts out.wav)" pcm_mulaw,8000,2 "$source"
  near "$(tones out.wav 2)" "$wanted" "g711 $source"
  header_fits out.wav
  plays out.wav
done <<'END'
st.wav 500 0 0 500 199
st.flac 500 0 0 500 199
st.mp4 500 0 0 500 199
mono.wav 0 354 0 354 200
END
equal "$(stat -c %s out.wav)" $((44 + 2 * 16000)) "size of two seconds"
must g711 fits.wav out.wav
says "fits.wav: needs no conversion, it has 16-bit samples, 16000 a second over all channels"
says "out.wav: 2.000 s"
must g711 change.mp3 out.wav
near "$(tones out.wav 2 | cut -d' ' -f5)" 600 "WAV of stereo, mono, stereo"

# MP3: mono, both channels in it, nothing cut off at the end.
while read -r source wanted; do
  must mp3 "$source" out.mp3
  equal "$(facts out.mp3)" mp3,32000,1 "$source"
  near "$(tones out.mp3 1)" "$wanted" "mp3 $source"
  plays out.mp3
done <<'END'
st.wav 238 238 203
st.mp4 238 238 203
mono.wav 0 475 203
END
must mp3 change.mp3 out.mp3
near "$(tones out.mp3 1 | cut -d' ' -f3)" 603 "MP3 of stereo, mono, stereo"
must mp3 st.wav -
cp out.txt stdout.mp3
must mp3 st.wav out.mp3
cmp -s out.mp3 stdout.mp3 || die "MP3 on stdout is another one"

# A camera's loudspeaker: every codec, mixed down or not, up and down in rate.
while read -r source options facts wanted input; do
  read -ra words <<<"${options//,/ --}"
  read -ra raw <<<"${input//,/ }"
  must speak "$source" --codec "${words[@]}" -o out.bin
  # ffmpeg reads G.726 in packets of 1020 bytes and calls a shorter last one corrupt, also of its own files.
  [[ $options == g726* ]] || plays out.bin "${raw[@]}"
  [ "${#raw[@]}" -gt 0 ] || equal "$(facts out.bin)" "${facts/@/}" "$source $options"
  near "$(tones out.bin "${facts##*[,@]}" "${raw[@]}")" "${wanted//,/ }" "speak $source $options"
done <<'END'
st.mp4 aac,rate=48000,channels=2 aac,48000,2 500,0,0,500,200
mono.wav mp3,rate=44100 mp3,44100,1 0,475,200
st.wav g711u,rate=16000,channels=2 @2 500,0,0,500,200 -f,mulaw,-ar,16000,-ac,2
st.mp3 g711a @1 238,238,200 -f,alaw,-ar,8000,-ac,1
st.wav g726 @1 250,250,200 -f,g726,-code_size,4
mono.wav g726,bits=5 @1 0,500,200 -f,g726,-code_size,5
st.wav g722 @1 250,250,200 -f,g722
END
must speak st.wav --codec aac -o -
cp out.txt stdout.aac
must speak st.wav --codec aac -o out.aac
cmp -s out.aac stdout.aac || die "AAC on stdout is another one"

# Played: every sample, as ffmpeg decodes them, at the pace of hearing, until the reader leaves.
for source in st.wav mono.mp3; do
  begin=$(date +%s%N)
  must play "$source"
  [ $(($(date +%s%N) - begin)) -gt 1600000000 ] || die "$source was played too fast"
  ffmpeg -v error -i "$source" -f s16le - </dev/null | cmp -s - out.txt || die "$source: other samples"
  says "$source: 2.000 s"
done
says "mono.mp3: samples for aplay -q -t raw -f S16_LE -r 44100 -c 1"
"$MEDIAUTIL" play st.wav 2>err.txt | head -c 40000 >out.txt || die "play, reader gone: ${PIPESTATUS[*]}"
equal "$(stat -c %s out.txt)" 40000 "samples until the reader left"
says "stdout: the reader has left after 0."

# Progress, and what is missing of a file that was cut off.
head -c 9000 st.mp3 >cut.mp3
for line in "g711 st.mp3 out.wav" "mp3 st.mp3 out.mp3" "speak st.mp3 --codec aac -o out.aac" "play st.mp3"; do
  read -ra words <<<"$line"
  must "${words[@]}" --progress=json
  grep '^{' err.txt | tail -n 1 >out.txt
  equal "$(json '(d["finished"], d["schema"], round(d["total"]), round(d["done"]))')" "(True, 1, 2, 2)" "progress: $line"
  must "${words[@]/st.mp3/cut.mp3}"
  [ "${words[0]}" = play ] || says "cut.mp3: only 0."
done

# What cannot be done, and that it leaves the older file.
ffmpeg -v error -i st.mp4 -an -c copy silent.mp4
ffmpeg -v error -f lavfi -i sine=frequency=30:sample_rate=300:duration=2 -c:a pcm_u8 slow.wav
head -c 3000 /dev/zero >zeros.mp3
mkdir left && cd left && echo old >out.wav
# shellcheck disable=SC2119  # the lines name the commands
refuses <<'END'
2|g711 ../st.wav -|g711: DST is a file whose header is completed at the end
2|g711 ../st.wav ../st.wav|../st.wav: the sound would replace the recording; name another file
2|speak ../st.wav --codec ogg -o out.wav|--codec
2|speak ../st.wav --codec g726 --rate 16000 -o out.wav|speak: g726 does not have 16000 Hz; choose --rate of 8000
2|speak ../st.wav --codec g726 --bits 6 -o out.wav|speak: g726 does not have 6 bits a sample; choose --bits from 2 to 5
2|speak ../st.wav --codec mp3 --bits 8 -o out.wav|speak: mp3 does not have 8 bits a sample; leave --bits out
2|speak ../st.wav --codec g722 --channels 2 -o out.wav|speak: g722 is mono; leave --channels out
3|g711 ../none.wav out.wav|none.wav: cannot read the recording: No such file
3|mp3 ../zeros.mp3 out.wav|zeros.mp3: cannot open the recording: not media, or damaged
3|speak ../silent.mp4 --codec aac -o out.wav|silent.mp4: cannot find sound in it
3|play ../silent.mp4|silent.mp4: cannot find sound in it
1|play ../st.mp4|st.mp4: cannot play it: it holds other streams beside its sound; take the sound out first, as with mediautil mp3
1|mp3 ../slow.wav out.wav|slow.wav: cannot encode its sound of 300 Hz
1|speak ../slow.wav --codec aac -o out.wav|slow.wav: cannot turn its sound of 300 Hz into aac of 16000 Hz
1|g711 ../st.wav none/out.wav|none/out.wav: cannot write the sound: No such file or directory; check the directory
1|mp3 ../st.wav /proc/out.mp3|/proc/out.mp3: cannot write the sound
1|speak ../st.wav --codec aac -o .|.: cannot write the sound: not a regular file
END
for line in "g711 ../st.wav out.wav" "mp3 ../st.wav out.wav" "speak ../st.wav --codec g711u -o out.wav"; do
  read -ra words <<<"$line"
  (
    ulimit -f 4
    must_fail 1 "${words[@]}"
  )
  says "out.wav: cannot write the sound: File too large; check the directory"
done
for line in "mp3 ../st.wav -" "speak ../st.wav --codec aac -o -" "play ../st.wav"; do
  read -ra words <<<"$line"
  code=0
  "$MEDIAUTIL" "${words[@]}" 2>err.txt >/dev/full || code=$?
  says "stdout: cannot write the result: No space left on device"
  "$MEDIAUTIL" "${words[@]}" 2>err.txt >&- || code+=$?
  says "stdout: cannot write the result: Bad file descriptor"
  equal "$code" 11 "full and closed stdout: $line"
done
for _ in {1..99}; do cat ../st.mp3; done >../long.mp3
interrupts g711 ../long.mp3 out.wav
interrupts mp3 ../long.mp3 out.wav
interrupts speak ../long.mp3 --codec aac -o out.wav
equal "$(cat out.wav) $(find . -type f | wc -l)" "old 3" "what failures left"
cd ..

# The example: G.711 from a microphone to a camera that takes AAC over TCP, and one that hangs up.
[ -x "${SOUND_TO_CAMERA:-}" ] || exit 0
ffmpeg -v error -i mono.wav -f mulaw talk.ul
talk() {
  : >port
  python3 -c 'import socket, sys
server = socket.create_server(("127.0.0.1", 0))
print(server.getsockname()[1], file=open("port", "w"))
camera = server.accept()[0]
while (data := camera.recv(4096)) and sys.argv[1] == "listen": open("heard.aac", "ab").write(data)' "$1" &
  until [ -s port ]; do sleep 0.1; done
  "$SOUND_TO_CAMERA" 127.0.0.1 "$(cat port)" <talk.ul 2>err.txt
}
talk listen || die "sound_to_camera: $?"
wait
equal "$(facts heard.aac)" aac,16000,1 "what the camera got"
near "$(tones heard.aac 1)" "0 500 200" "what the camera played"
plays heard.aac
! talk hang-up || die "sound_to_camera did not see that the camera hung up"
says "sound_to_camera: the camera hung up"

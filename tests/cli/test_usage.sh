#!/usr/bin/env bash
# Command line: suggestions, exit codes, help, version, stdout that cannot be written, Ctrl-C.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

colours rec.mp4 20 -c:v libx264

# shellcheck disable=SC2119  # the lines name the commands
refuses <<'END'
2||a command is missing; see mediautil --help
2|snapshot rec.mp4 -o a.jpg --max-sde 3|unknown option --max-sde; did you mean --max-side?
2|probe rec.mp4 --frobnicate|unknown option --frobnicate; see mediautil probe --help
2|snapshto rec.mp4|unknown command snapshto; did you mean snapshot?
2|explode rec.mp4|unknown command explode; see mediautil --help
2|probe rec.mp4 more|probe: unexpected argument more; see mediautil probe --help
2|probe|probe: FILE is required; see mediautil probe --help
2|snapshot rec.mp4|snapshot: --output is required; see mediautil snapshot --help
2|snapshot rec.mp4 -o a.jpg --quality 101|--quality
2|snapshot rec.mp4 -o a.jpg --max-side 3x|--max-side
2|probe rec.mp4 -q -v|-q and -v exclude each other
END
[ ! -e a.jpg ] || die "wrong usage wrote a file"

must --version
grep -qxE 'mediautil [0-9]+\.[0-9]+\.[0-9]+' out.txt || die "version"
for command in '' probe snapshot thumbnail jpeg crop gif export g711 mp3 speak play push mix log-level camera feed; do
  must ${command:+"$command"} --help
  [ "$(wc -l <out.txt)" -le 40 ] || die "help of '$command' is longer than 40 lines"
  [ "$(grep -c '^  mediautil ' out.txt)" = 2 ] || die "help of '$command' has not 2 examples"
done

# stdout that takes nothing is an error with a message, never a signal.
ends 1 "$MEDIAUTIL" probe rec.mp4 >/dev/full
says "stdout: cannot write the result: No space left on device"
ends 1 "$MEDIAUTIL" snapshot rec.mp4 -o - >&-
says "stdout: cannot write the result"
mkfifo pipe
(exec 3<>pipe && exec 4>pipe && exec 3>&- && ends 1 "$MEDIAUTIL" probe rec.mp4 >&4)
says "Broken pipe"
"$MEDIAUTIL" snapshot rec.mp4 -o a.jpg 2>&-
equal "$(size a.jpg)" mjpeg,320,180 "picture with stderr closed"
if script -qec true /dev/null >/dev/null 2>&1 </dev/null; then  # there is a pseudo-terminal to be had
  script -qec "'$MEDIAUTIL' snapshot rec.mp4 -o -; echo code \$?" /dev/null </dev/null >err.txt
  says "a terminal shows no picture"
  says "code 2"
fi

# Ctrl-C while it waits for input.
ends 130 timeout --preserve-status -s INT 1 "$MEDIAUTIL" probe pipe

# Prelude of the program's tests: a directory of their own, must-fail cases, and looks at pictures with ffmpeg.
# shellcheck shell=bash
set -euo pipefail
: "${MEDIAUTIL:?the path of the program under test}"
MEDIAUTIL=$(realpath "$MEDIAUTIL")
unset MEDIAUTIL_STATE_DIR MEDIAUTIL_LOG_FILE
# A sanitizer's report must not look like one of the program's own exit codes.
for options in ASAN_OPTIONS UBSAN_OPTIONS LSAN_OPTIONS; do
  export "$options=${!options:+${!options}:}exitcode=99"
done

DIR=$(mktemp -d)
trap 'rm -rf "$DIR"' EXIT
cd "$DIR"

die() {
  echo "FAILED: $*" >&2
  sed 's/^/  stderr: /' err.txt >&2 || true
  exit 1
}

# ends CODE COMMAND...: runs it and expects the exit code; stderr goes to err.txt.
ends() {
  local code=0
  "${@:2}" 2>err.txt || code=$?
  [ "$code" = "$1" ] || die "exit code $code, not $1, of: ${*:2}"
}
# Run the program; stdout goes to out.txt.
must() { ends 0 "$MEDIAUTIL" "$@" >out.txt; }
must_fail() {
  ends "$1" "$MEDIAUTIL" "${@:2}" >out.txt </dev/null
  [ ! -s out.txt ] || die "a failure wrote to stdout: $*"
  [ -s err.txt ] || die "a failure without a message: $*"
}
says() { grep -qF -- "$1" err.txt || die "stderr lacks: $1"; }
# refuses COMMAND...: fails as each line of stdin says, "code|more arguments|text"; wrong usage is told in one line.
refuses() {
  local code line text words
  while IFS='|' read -r code line text; do
    read -ra words <<<"$line"
    must_fail "$code" "$@" "${words[@]}"
    says "$text"
    [ "$code" != 2 ] || equal "$(wc -l <err.txt)" 1 "lines of: $line"
  done
}
# interrupts COMMAND... OUT: ends with 130 when Ctrl-C comes as the first bytes of its file have been written.
interrupts() {
  python3 - "$MEDIAUTIL" "$@" 2>err.txt <<'END' || die "Ctrl-C: $*"
import glob, os, signal, subprocess, sys
run = subprocess.Popen(sys.argv[1:])
while run.poll() is None and not any(os.path.getsize(name) for name in glob.glob('.export-*')):
    pass
run.send_signal(signal.SIGINT)
assert run.wait() == 130, run.returncode
END
  says "${*: -1}: interrupted; nothing was written"
}
prints() { grep -qF -- "$1" out.txt || die "stdout lacks: $1 ($(head -c 500 out.txt))"; }
equal() { [ "$1" = "$2" ] || die "${3:-values}: $1 is not $2"; }
# json EXPRESSION: a Python expression over the object d in out.txt.
json() { python3 -c 'import json, sys; d = json.load(open("out.txt")); print(eval(sys.argv[1]))' "$1"; }
# progresses TOTAL: the lines of JSON progress in err.txt end with all of it.
progresses() {
  python3 - "$1" <<'END' || die "progress"
import json, sys
rows = [json.loads(line) for line in open('err.txt') if line.startswith('{')]
assert rows and all(row['schema'] == 1 and row['total'] == float(sys.argv[1]) for row in rows), rows
assert [row['finished'] for row in rows] == [False] * (len(rows) - 1) + [True], rows
assert abs(rows[-1]['done'] - rows[-1]['total']) < 0.1, rows
END
}

size() { ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,width,height -of csv=p=0 "$1"; }

# colour FILE [X Y]: the name of the flat colour at a pixel, (160, 90) without one.
colour() {
  local r g b
  read -r r g b < <(ffmpeg -v error -i "$1" -frames:v 1 -pix_fmt rgb24 \
    -vf "crop=1:1:${2:-160}:${3:-90}:exact=1" -f rawvideo - </dev/null | od -An -tu1)
  local name=
  for v in "$r" "$g" "$b"; do
    if [ "$v" -lt 60 ]; then name+=0; elif [ "$v" -gt 195 ]; then name+=1; else name+='?'; fi
  done
  case $name in
    000) echo black ;; 100) echo red ;; 010) echo green ;; 001) echo blue ;; 111) echo white ;;
    *) echo "$r,$g,$b" ;;
  esac
}

# colours OUT RATE ENCODER...: 320x180; red, green, blue, white for 30 frames each; each begins with a key frame.
colours() {
  local out=$1 rate=$2
  shift 2
  local inputs=() c
  for c in red lime blue white; do inputs+=(-f lavfi -i "color=$c:size=320x180:rate=$rate,trim=end_frame=30"); done
  ffmpeg -v error -y "${inputs[@]}" -filter_complex 'concat=n=4,format=yuv420p' -g 30 "$@" "$out" </dev/null
}

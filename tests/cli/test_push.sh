#!/usr/bin/env bash
# push: what arrives, what is told when it does not, passwords, TLS, and interruption.
PUSH_DIRECTORY=${PUSH_DIRECTORY:+$(realpath "$PUSH_DIRECTORY")}
MEDIAUTIL_TESTSERVER=$(realpath "${MEDIAUTIL_TESTSERVER:?the path of the receiver}")
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"
export MEDIAUTIL_PASSWORD=secret

server=
stop() {
  [ -n "$server" ] || return 0
  kill "$server"
  wait "$server" || die "the receiver failed"
  server=
}
trap 'stop; rm -rf "$DIR"' EXIT
# serve OPTION...: a new receiver; it stores in ./store and logs to server.txt.
serve() {
  stop
  : >server.txt
  "$MEDIAUTIL_TESTSERVER" --store store --params "$@" >server.txt &
  server=$!
  until grep -q listening server.txt; do
    kill -0 "$server" || die "the receiver does not start"
    sleep 0.05
  done
  port=$(sed -n 's/^listening on //p' server.txt)
}
to=()
# push SOURCE DEST OPTION...: the arguments that all pushes have; "to" are those of the remote.
push() { to=(push "$1" --dest "$2" --host 127.0.0.1 --port "$port" "${@:3}"); }
pushes() { push "$@" && must "${to[@]}" --account admin; }
fails() { push "${@:2}" && must_fail "$1" "${to[@]}" --account admin; }
# starts: the push that "to" has, in the background; it has begun to send a file when this returns.
starts() {
  : >err.txt # the last one's words must not be taken for this one's
  "$MEDIAUTIL" "${to[@]}" --account admin -vv 2>err.txt &
  pushing=$!
  until grep -q strMsg err.txt; do sleep 0.05; done
}
# The receiver logs a request when its connection has ended.
served() {
  for _ in {1..50}; do
    if grep -qE -- "$1" server.txt; then return; fi
    sleep 0.1
  done
  die "the receiver has not seen: $1 ($(cat server.txt))"
}

mkdir -p 'src/a b/ünï=&?#%+' src/.hidden src/empty
head -c 3000000 /dev/urandom >src/large
echo inner >'src/a b/ünï=&?#%+/"q".mp4' && echo seen >src/.hidden/.file && : >src/nothing
mkfifo src/pipe && ln -s .. src/loop && ln -s large src/link
mkdir seen && cp -a src seen && rm seen/src/{pipe,loop,link}

# Files and directories.
serve
pushes src/large one/two
says "src/large: 3000000 bytes sent to 127.0.0.1:$port, one/two"
cmp src/large store/one/two/large
served '^SyncFiles one/two large: done, 3000000 bytes;.* fileType=4 '
echo new >large
fails 4 large one/two
says "large: not sent: the remote refused it with code 518; a file of that name is there; for a single file add --over"
cmp src/large store/one/two/large
pushes large one/two --overwrite --progress=json
cmp large store/one/two/large
progresses 4

pushes src// way/dir// --tmp-dir
says "src//: 4 files, 3000011 bytes sent to 127.0.0.1:$port, way/dir"
says "src/: 3 entries that are no regular files were left out"
says "127.0.0.1:$port: the password goes over plain HTTP, where others can read it; add --https"
diff -r seen/src store/way/dir || die "another tree arrived"
[ ! -e store/way/dir.arch ] || die "the temporary directory is left"
fails 4 src way/dir --tmp-dir
says "src: sent as way/dir.arch, not renamed: the remote refused it with code 518; move what has that name there, then"
pushes src plain
diff -r seen/src store/plain || die "another tree arrived"
fails 4 src plain
says "src/large: not sent: the remote refused it with code 518"
says "src: 0 of 4 files arrived"
equal "$(grep -c 'not sent' err.txt)" 4 "files told of"
fails 4 src ../out --tmp-dir
says "code 407"
mkdir -p 'comma/with,comma' none && echo x >comma/with,comma/x
pushes comma comma
cmp comma/with,comma/x store/comma/with,comma/x
pushes none plain2 --tmp-dir
[ -d store/plain2 ] || die "no empty directory"
if [ -n "$PUSH_DIRECTORY" ]; then
  PUSH_PASSWORD=secret "$PUSH_DIRECTORY" src 127.0.0.1 "$port" admin example >out.txt || die "the example"
  diff -r seen/src store/example || die "the example sent another tree"
  ! PUSH_PASSWORD=secret "$PUSH_DIRECTORY" src 127.0.0.1 "$port" admin example >out.txt 2>err.txt ||
    die "the example's second time"
  grep -q "did not become DEST: code 518" err.txt || die "the example's second time: $(cat err.txt)"
  rm -r store/example.arch
fi
equal "$(find store -name '.receiving*' | wc -l)" 0 "files begun"

# A recording brings its cause and its triggers: 12 bytes for 2 seconds, as base64.
mkdir -p rec/cam/today rec/cam/triggers
ffmpeg -v error -f lavfi -i testsrc2=size=64x64:rate=5 -t 2 rec/cam/today/gate-1700000000.mp4 </dev/null
printf 'abcdefghijkl' >rec/cam/triggers/1700000000.trig
python3 -c 'import sqlite3; d = sqlite3.connect("events.db"); d.execute("CREATE TABLE event(path, cause)")
d.execute("INSERT INTO event VALUES(?, 200)", ("today/gate-1700000000.mp4",)); d.commit()'
(cd rec/cam/today && pushes gate-1700000000.mp4 rec --recording --camera 7 --event-db "$DIR/events.db" --otp 123456)
equal "$(cat store/rec/gate-1700000000.mp4.extra)" YWJjZGVmZ2hpamts "triggers"
served ' camId=7 .* duration=2 .* fileType=0 .* recMethod=-56 '
served '^login.* otp_code=123456 '

# What the remote answers, and what it does instead of answering.
while read -r code exit; do
  serve --code "$code"
  fails "$exit" src/large refused
  says "src/large: not sent: the remote"
  says "code $code"
  fails "$exit" src refused --tmp-dir
  says "src: 0 of 4 files arrived; nothing was renamed"
  [ ! -e store/refused ] || die "something arrived in spite of code $code"
done <<'END'
105 5
487 4
END
for fault in close reset half-header not-json no-content redirect; do
  serve --fault $fault
  fails 1 src/large "$fault"
  says "src/large: not sent: the remote did not acknowledge it"
  fails 1 src "$fault" --tmp-dir
  says "src: 0 of 4 files arrived; nothing was renamed"
done

serve --fault-method CreateDirs --code 401
fails 4 src refused
says "src: cannot make the directories in refused: the remote refused it with code 401; check the destination and the"
fails 4 none refused --tmp-dir
says "none: cannot make the directories in refused: the remote refused it with code 401"

while read -r fault method source text; do
  serve --fault-method "$method" --fault "$fault"
  fails 1 "$source" "$method-$fault" --tmp-dir
  says "$source: $text"
done <<'END'
not-json MoveDir src sent as MoveDir-not-json.arch, the rename was not acknowledged; look which name it has there, then
close MoveDir none no files, the rename was not acknowledged
close CreateDirs none cannot make the directories in CreateDirs-close: the remote did not acknowledge it; try
no-content CreateDirs src cannot make the directories in CreateDirs-no-content: the remote did not acknowledge it; try
END

# What the other files of a directory do when one vanishes.
mkdir gone && head -c 2000 /dev/zero >gone/a && echo c >gone/c
while read -r arrived option; do
  serve --fault slow-read
  echo b >gone/b$'\e[2J'
  push gone "gone$option" ${option:+"$option"}
  starts
  rm gone/b*
  code=0
  wait $pushing || code=$?
  equal "$code" 3 "exit code"
  says "gone/b?[2J: not sent: No such file or directory; check the path and the permissions"
  says "gone: $arrived of 3 files arrived${option:+; nothing was renamed}"
done <<'END'
2
1 --tmp-dir
END

# Logging in: wrong password, nobody there, no session without an account, the paired host.
serve
MEDIAUTIL_PASSWORD=wrong fails 5 src/large d
says "127.0.0.1:$port: not logged in: the account or the password is wrong"
push src/large d && must_fail 5 "${to[@]}"
says "127.0.0.1:$port: not logged in: it is not the paired central-management host; give --account"
mkdir state && export MEDIAUTIL_STATE_DIR=$DIR/state
echo '{"cmsPaired": true, "cmsHostIp": "127.0.0.1", "cmsHostPort": '"$port"', "cmsCookie": "kept-back",
  "cmsTimestamp": "17", "serialNumber": "S1"}' >state/settings.json
push src/large paired && must "${to[@]}" -vv
cp err.txt log.txt
cmp src/large store/paired/large
served '^SyncFiles paired large: done, .* client=REC_SERVER .*recSerialNum="S1"'

# Secrets: neither in the arguments that others see, nor in the log.
serve --fault slow-read
push src/large slow
starts
tr '\0' ' ' <"/proc/$pushing/cmdline" >cmdline
grep -q 'push src/large' cmdline || die "cmdline: $(cat cmdline)"
code=0
for _ in {1..40}; do if kill $pushing 2>/dev/null; then sleep 0.2; fi; done  # as often as one likes
! kill -9 $pushing 2>/dev/null || die "signals postpone the end"
wait $pushing || code=$?
equal "$code" 130 "ended by a signal"
says "interrupted"
grep -q '_sid=\*\*\*' err.txt || die "no masked session in the log"
! grep -E 'secret|kept-back|_sid=[0-9a-f]' err.txt log.txt cmdline || die "a secret is seen"

# Passwords from a file, stdin and a terminal.
serve
[ -z "$(ls -A store/slow)" ] || die "part of a file was left"
unset MEDIAUTIL_PASSWORD
printf 'secret\nmore\n' >password && chmod 644 password
pushes src/large f1 --password-file password
says "password: other users may read the password; chmod 600 it"
push src/large f2
must "${to[@]}" --account admin --password-file - <password
: >empty
for file in empty none-there src; do
  fails 3 src/large f3 --password-file $file
  says "$file: cannot read the password: "
done
push src/large f4
ends 2 setsid -w "$MEDIAUTIL" "${to[@]}" --account admin </dev/null
says "no terminal to ask for the password; give --password-file, or set MEDIAUTIL_PASSWORD"
push src/large f5
python3 - "$MEDIAUTIL" "${to[@]}" --account admin <<'END' 2>err.txt || die "terminal"
import os, pty, sys, termios
for typed, wanted in ((b'secret\n', 0), (b'sec\x03', 130)):
    try:
        pid, fd = pty.fork()
    except OSError:
        sys.exit(0)  # there is no pseudo-terminal to be had
    if pid == 0:
        os.execv(sys.argv[1], sys.argv[1:])
    seen = b''
    while b'Password of admin' not in seen:
        seen += os.read(fd, 1000)
    while termios.tcgetattr(fd)[3] & termios.ECHO:
        pass
    seen = b''
    os.write(fd, typed)
    while b'mediautil: ' not in seen:
        seen += os.read(fd, 1000)
    echo = termios.tcgetattr(fd)[3] & termios.ECHO
    status = os.waitpid(pid, 0)[1]
    assert os.WEXITSTATUS(status) == wanted and echo and b'sec' not in seen, (seen, status, echo)
END

# HTTPS: only with a trusted certificate; no plain words to a TLS port.
export MEDIAUTIL_PASSWORD=secret
rm state/settings.json
mkdir tls
serve --tls tls
fails 5 src/large d --https
says "no recorder answers there, or its certificate is not trusted"
fails 5 src/large d
equal "$(wc -l <server.txt)" 1 "requests that an untrusted server saw"
echo "{\"tlsCaFile\": \"$DIR/tls/testserver.crt\"}" >state/settings.json
pushes src/large safe --https
cmp src/large store/safe/large
echo '{"tlsVerify": false}' >state/settings.json
pushes src/large unsafe --https
says "is not verified, the settings switch it off"

# Wrong usage and input.
refuses push <<'END'
2|src --host h --dest d --account a --overwrite|--overwrite is for a file; of a directory, files that are there stay
2|src/large --host h --dest d --account a --tmp-dir|src/large: --tmp-dir is for a directory, and this is a file
2|src --host h --dest d --account a --recording|src: --recording is for a file, and this is a directory
2|src/large --host h --dest d --account a --camera 3|--camera
2|src/large --host 127.0.0.1:5055 --dest d|--host takes a name or address, the port goes to --port
2|src/large --host [::1]:5055 --dest d|--host takes a name or address, the port goes to --port
5|src/large --host ::1 --port 1 --dest d|::1:1: not logged in: no recorder answers there
2|src/large --host h --dest / --account a|--dest names no directory of the remote; give one such as archive/gate
2|src/large --host h --dest d --password-file x|--password-file without --account
2|src/large --host h --dest d --port 0|--port
2|src/large --dest d|--host is required
3|none-there --host h --dest d --account a|none-there: cannot read it: No such file or directory; check the path
3|src/pipe --host h --dest d --account a|src/pipe: cannot read it: neither a file nor a directory
5|src/large --host 127.0.0.1 --port 1 --dest d --account a|127.0.0.1:1: not logged in: no recorder answers there
END

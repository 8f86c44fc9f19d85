#!/usr/bin/env bash
# log-level: the record shown and changed, and what later runs write because of it.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

must_fail 1 log-level
says "cannot reach the log record: MEDIAUTIL_STATE_DIR is not set"
export MEDIAUTIL_STATE_DIR=$DIR/state
mkdir state

must log-level --json
equal "$(json '(d["schema"], d["present"], d["pids"])')" "(1, False, [])"
[ -z "$(ls state)" ] || die "showing made a record"
must log-level
prints "no log record yet"

media='[c["level"] for c in d["categories"] if c["number"] == 75]'
while read -r categ level wanted; do
  must log-level "$categ" "$level" --json
  equal "$(json "$media + [d['present']]")" "[$wanted, True]" "$categ $level"
done <<'END'
media note 4
75 Trace 7
MEDIA off 0
Media info 5
END
must log-level 300 6 --pid 12 34
prints "category 300: level 6"
prints "processes: 12 34 (all others use level 3)"
must log-level --json
equal "$(json 'd["pids"]')" "[12, 34]"

refuses log-level <<'END'
2|medai 4|unknown category medai; did you mean MEDIA?
2|512 4|unknown category 512; give a name that log-level shows, or 0 to 511
2|media 8|unknown level 8; give a name that log-level shows, or 0 to 7
2|media trcae|unknown level trcae; did you mean TRACE?
2|--pid 1 --all-pids|--all-pids
END

# A later run follows the record: "Scale from" is a note of level 4.
colours rec.mp4 20 -c:v libx264
noted() {
  rm -f log.txt
  MEDIAUTIL_LOG_FILE=$DIR/log.txt must "$@" snapshot rec.mp4 -o a.jpg
  if grep -qsF 'Scale from [320x180]' log.txt; then echo yes; else echo no; fi
}
equal "$(noted)" no "a process that the list leaves out"
must log-level media 4 --all-pids
equal "$(noted)" yes "level 4"
must log-level media 3
equal "$(noted)" no "level 3"
equal "$(noted -v)" yes "-v before the record"
unset MEDIAUTIL_STATE_DIR
equal "$(noted)" no "no record"
equal "$(noted -vv)" yes "-vv without a record"

: >file
MEDIAUTIL_STATE_DIR=$DIR/file/state must_fail 1 log-level media 4
says "$DIR/file/state: cannot write the log record; check the directory"

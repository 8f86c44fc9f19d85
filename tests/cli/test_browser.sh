#!/usr/bin/env bash
# The example server's page in headless Chromium: every frame of the live stream is decoded. 77: no Chromium here.
# shellcheck source=tests/cli/common.sh
. "$(dirname "$0")/common.sh"

chromium=$(command -v chromium || command -v chromium-browser) || {
  echo "SKIPPED: Chromium is not installed; scripts/test.sh --browser installs it"
  exit 77
}
[ -x "${LIVE_MP4_SERVER:-}" ] || {
  echo "SKIPPED: the example live_mp4_server is not built; it needs libcpp-httplib-dev"
  exit 77
}

server='' browser=''
# Chromium's own processes write their profile for a moment longer.
clean_up() {
  # shellcheck disable=SC2086  # empty ones are no words
  kill $browser $server 2>/dev/null || true
  wait
  for _ in {1..10}; do
    ! rm -rf "$DIR" 2>/dev/null || break
    sleep 0.5
  done
}
trap clean_up EXIT

# Chromium at times hangs before it opens a page; then it is started anew.
open_page() {
  local attempt
  for attempt in 1 2 3; do
    "$chromium" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
      --disable-component-update --disable-sync --disable-dev-shm-usage \
      --autoplay-policy=no-user-gesture-required --user-data-dir="$(mktemp -d "$DIR/profile.XXXX")" "$1" \
      >browser.txt 2>&1 &
    browser=$!
    for _ in {1..60}; do
      ! grep -q '^frames=' out.txt || return 0
      sleep 0.5
    done
    echo "Chromium did not open the page, attempt $attempt" >&2
    kill $browser 2>/dev/null || true
    wait $browser || true
  done
  die "Chromium does not open the page: $(tail -n 3 browser.txt)"
}

# plays RECORDING FRAMES: serves the recording and waits until the page says that it played all of it.
plays() {
  local url
  : >out.txt
  "$LIVE_MP4_SERVER" "$1" >out.txt 2>err.txt &
  server=$!
  until url=$(grep -m 1 '^http://127.0.0.1:' out.txt); do
    kill -0 $server || die "the server ended"
    sleep 0.1
  done
  open_page "$url?report"
  for _ in {1..120}; do
    ! grep -q 'ended$' out.txt || break
    sleep 0.5
  done
  kill $browser $server
  wait $browser $server 2>/dev/null || true
  browser='' server=''
  equal "$(grep -m 1 'ended$' out.txt | cut -d' ' -f1)" "frames=$2" "$1 ($(tail -n 1 out.txt))"
}

ffmpeg -v error -f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=frequency=440 -t 3 \
  -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -c:a aac sound.mp4 </dev/null
ffmpeg -v error -i sound.mp4 -an -c copy silent.mp4 </dev/null
ffmpeg -v error -i sound.mp4 -itsoffset 1.5 -i sound.mp4 -map 0:v -map 1:a -t 3 -c copy late.mp4 </dev/null
plays sound.mp4 75
plays silent.mp4 75
plays late.mp4 75

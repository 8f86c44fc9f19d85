#!/usr/bin/env bash
# The Debian packages: made, checked, and installed, used, removed and purged on a copy of this system in memory, which
# sees nothing of it. Skipped where no packages can be made; the second half where mounts are refused.
set -euo pipefail
: "${BUILD:?}" "${VERSION:?}" "${CPACK:?}"
script=$(realpath "$0")
names=(libmediautil1 libmediautil-dev mediautil-tools)

die() {
  echo "FAILED: $*" >&2
  exit 1
}
skip() {
  echo "skipped: $*" >&2
  exit 77
}

# --- on the copy of the system: /mnt holds packages and consumer ---
use_packages() {
  cd /mnt
  dpkg -i ./*.deb >log 2>&1 || die "dpkg -i: $(cat log)"
  [ "$(mediautil --version)" = "mediautil $VERSION" ] || die 'the program'
  ! readelf -d /usr/bin/mediautil /usr/lib/*/libmediautil*.so.1 | grep RUNPATH || die 'a search path for system libraries'
  # shellcheck disable=SC2046  # flags are words
  g++ -std=c++17 $(pkg-config --cflags mediautil) main.cpp -o consumer $(pkg-config --libs mediautil) 2>log ||
    die "the consumer: $(cat log)"
  ./consumer >out.jpg || die 'the consumer does not run'
  for action in -r -P; do
    dpkg "$action" "${names[@]}" >log 2>&1 || die "dpkg $action: $(cat log)"
  done
}

# --- in a mount namespace of its own: DIR gets a tmpfs and on it the copy of / ---
with_copy() {
  mount -t tmpfs tmpfs "$1" 2>/dev/null || skip 'no mounts'
  cd "$1"
  mkdir upper work root
  mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" root 2>/dev/null || skip 'no overlay'
  mount --bind /dev root/dev
  mount -t tmpfs tmpfs root/mnt
  cp "$PACKAGES"/*.deb "$script" "${script%/*}/consumer/main.cpp" root/mnt
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin BUILD=. VERSION="$VERSION" CPACK=. \
    chroot root bash "/mnt/${script##*/}" use_packages
  # What is new, or no longer there; below /var others keep their records.
  local left
  left=$(cd upper && find . -mindepth 1 \( ! -path './var/*' -o -name '*mediautil*' \) |
    while read -r path; do [ -e "/$path" ] && [ ! -c "$path" ] || echo "$path"; done)
  [ -z "$left" ] || die "left behind: $left"
}

case ${1:-} in
  use_packages | with_copy)
    "$@"
    exit
    ;;
esac

for tool in dpkg-deb dpkg-shlibdeps file unshare; do
  command -v "$tool" >/dev/null || skip "no $tool"
done
DIR=$(mktemp -d)
trap 'rm -rf "$DIR"' EXIT
export PACKAGES="$DIR/packages"
"$CPACK" --config "$BUILD/CPackConfig.cmake" -B "$PACKAGES" >"$DIR/log" 2>&1 || die "cpack: $(cat "$DIR/log")"
for name in "${names[@]}"; do
  deb=$(echo "$PACKAGES/${name}_${VERSION}-1_"*.deb)
  [ "$(dpkg-deb -f "$deb" Version)" = "$VERSION-1" ] || die "$deb: another version"
done
! command -v lintian >/dev/null || lintian --fail-on error "$PACKAGES"/*.deb >"$DIR/log" 2>&1 ||
  die "lintian: $(cat "$DIR/log")"
[ "$(dpkg --print-architecture)" = "$(dpkg-deb -f "$deb" Architecture)" ] || skip 'packages of another architecture'
mkdir "$DIR/copy"
unshare -m true 2>/dev/null || skip 'no mount namespace'
unshare -m bash "$script" with_copy "$DIR/copy"
